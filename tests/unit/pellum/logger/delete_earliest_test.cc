#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "deps/pellum/logger/filelog.h"
#include "tests/unit/pellum/logger/log_folder.h"

namespace mirn {
namespace {

using testing::ElementsAre;

class DeleteEarliest : public testing::Test {
 protected:
  void add(const std::string& name, int age) {
    folder.write(name, name);
    folder.setAge(name, age);
  }
  LogFolder folder;
};

TEST_F(DeleteEarliest, RemovesOneFileOfThoseWithThePart) {
  add("log.1", 10);
  add("x-log-2", 30);
  add("log.3", 20);
  delete_earliest_logfile(folder.c_str(), "log", 3);
  EXPECT_THAT(folder.names(), ElementsAre("log.1", "log.3")) << "the part may stand anywhere in the name";
}

TEST_F(DeleteEarliest, NamesWithoutThePartDontCount) {
  add("log.1", 10);
  add("log.2", 20);
  add("else", 1000);
  delete_earliest_logfile(folder.c_str(), "log", 3);
  EXPECT_THAT(folder.names(), ElementsAre("else", "log.1", "log.2"));
  delete_earliest_logfile(folder.c_str(), "log", 2);
  EXPECT_THAT(folder.names(), ElementsAre("else", "log.1"));
}

TEST_F(DeleteEarliest, AtMostOneFileGoesForEachCall) {
  for (int i = 0; i < 6; ++i) {
    add("log." + std::to_string(i), 10 * i);
  }
  delete_earliest_logfile(folder.c_str(), "log", 2);
  EXPECT_EQ(folder.names().size(), 5U);
  EXPECT_FALSE(folder.has("log.5"));
}

TEST_F(DeleteEarliest, DirectoriesDontCountAndStay) {
  std::filesystem::create_directory(folder.file("log.dir"));
  add("log.1", 10);
  delete_earliest_logfile(folder.c_str(), "log", 2);
  EXPECT_THAT(folder.names(), ElementsAre("log.1", "log.dir"));
}

TEST_F(DeleteEarliest, FilesFromTheFutureCountButStay) {
  add("log.1", -100000);
  add("log.2", -200000);
  delete_earliest_logfile(folder.c_str(), "log", 2);
  EXPECT_EQ(folder.names().size(), 2U);
  add("log.3", 5);
  delete_earliest_logfile(folder.c_str(), "log", 3);
  EXPECT_THAT(folder.names(), ElementsAre("log.1", "log.2"));
}

TEST_F(DeleteEarliest, OfEqualTimesTheLaterInTheListingGoes) {
  for (const char* name : {"log.a", "log.b", "log.c"}) {
    add(name, 50);
  }
  // All the same second exactly, whatever setAge took it for.
  const auto time = std::filesystem::last_write_time(folder.file("log.a"));
  std::string last;
  for (const auto& entry : std::filesystem::directory_iterator(folder.c_str())) {
    std::filesystem::last_write_time(entry.path(), time);
    last = entry.path().filename().string();
  }
  delete_earliest_logfile(folder.c_str(), "log", 3);
  EXPECT_EQ(folder.names().size(), 2U);
  EXPECT_FALSE(folder.has(last));
}

TEST_F(DeleteEarliest, AnEmptyNameIsAPartOfEveryName) {
  add("log.1", 10);
  add("something else", 30);
  add(".hidden", 20);
  delete_earliest_logfile(folder.c_str(), "", 3);
  EXPECT_THAT(folder.names(), ElementsAre(".hidden", "log.1"));
}

TEST_F(DeleteEarliest, DanglingLinksAreLeftOut) {
  std::filesystem::create_symlink(folder.file("nowhere"), folder.file("log.link"));
  add("log.1", 10);
  delete_earliest_logfile(folder.c_str(), "log", 2);
  EXPECT_TRUE(folder.has("log.1"));
}

// A path of more than 511 bytes can't be looked at; cut off it could name another file.
TEST_F(DeleteEarliest, PathsThatAreTooLongAreLeftOut) {
  std::string deep = folder.c_str();
  while (deep.size() < 400) {
    deep += "/" + std::string(std::min<size_t>(200, 450 - deep.size()), 'd');
    std::filesystem::create_directories(deep);
  }
  const std::string fits = deep + "/log" + std::string(511 - deep.size() - 4, 'f');
  const std::string too_long = fits + "f";
  for (const std::string& path : {fits, too_long}) {
    std::ofstream(path) << "x";
  }
  delete_earliest_logfile(deep.c_str(), "log", 2);
  EXPECT_TRUE(std::filesystem::exists(fits)) << "only one counted";
  EXPECT_TRUE(std::filesystem::exists(too_long));
  delete_earliest_logfile(deep.c_str(), "log", 1);
  EXPECT_FALSE(std::filesystem::exists(fits));
  EXPECT_TRUE(std::filesystem::exists(too_long));
}

TEST_F(DeleteEarliest, MissingDirectoryOrArgumentIsNoMatter) {
  add("log.1", 10);
  delete_earliest_logfile(folder.file("missing").c_str(), "log", 0);
  delete_earliest_logfile(nullptr, "log", 0);
  delete_earliest_logfile(folder.c_str(), nullptr, 0);
  EXPECT_TRUE(folder.has("log.1"));
}

}  // namespace
}  // namespace mirn
