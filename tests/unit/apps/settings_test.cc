#include "apps/common/settings.h"

#include <glib.h>
#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace mirn {
namespace {

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() {
    std::string pattern = testing::TempDir() + "mirn-settings-XXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~SettingsTest() override { std::filesystem::remove_all(folder_); }

  std::string folder_;
};

TEST_F(SettingsTest, WhatIsSavedIsLoaded) {
  ConsoleSettings settings;
  settings.quality = "720P";
  settings.best_color = true;
  settings.scaling = Scaling::kFill;
  settings.overlay = true;
  settings.device_panel = true;
  settings.theme = "dark";
  settings.release_key = "pause";
  settings.window_width = 999;
  settings.window_height = 777;
  settings.maximized = true;
  settings.screenshot_folder = "/tmp/with space;and\\more";
  settings.firmware_folder = "/f";
  std::string path = folder_ + "/a/b/settings.ini";
  std::string error;
  ASSERT_TRUE(saveSettings(path, settings, &error)) << error;
  EXPECT_EQ(loadSettings(path), settings);
}

TEST_F(SettingsTest, AMissingFileGivesTheDefaults) {
  EXPECT_EQ(loadSettings(folder_ + "/none.ini"), ConsoleSettings());
}

TEST_F(SettingsTest, NonsenseKeepsTheDefaults) {
  std::string path = folder_ + "/bad.ini";
  std::ofstream(path) << "[picture]\nquality=4K\nbest-color=maybe\nscaling=odd\n[window]\nwidth=-5\nheight=999999\n"
                         "theme=pink\n[input]\nrelease-key=a\nlayout=zz\n";
  EXPECT_EQ(loadSettings(path), ConsoleSettings());
  std::ofstream(path) << std::string("\0\xFF[[[", 5);
  EXPECT_EQ(loadSettings(path), ConsoleSettings());
}

TEST_F(SettingsTest, AFolderThatCanNotBeMadeIsSaid) {
  std::ofstream(folder_ + "/file") << "x";
  std::string error;
  EXPECT_FALSE(saveSettings(folder_ + "/file/settings.ini", {}, &error));
  EXPECT_NE(error.find(folder_ + "/file"), std::string::npos) << error;
}

TEST(SettingsPath, FollowsXdg) {
  setenv("XDG_CONFIG_HOME", "/somewhere/config", 1);
  EXPECT_EQ(settingsPath(), "/somewhere/config/mirn-console/settings.ini");
}

}  // namespace
}  // namespace mirn
