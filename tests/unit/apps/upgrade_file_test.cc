#include "apps/common/upgrade_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace mirn {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr const char* kHexText = ":0100000000FF\r\n:00000001FF\r\n";

class UpgradeFileTest : public testing::Test {
 protected:
  UpgradeFileTest() { std::filesystem::create_directories(folder_); }
  ~UpgradeFileTest() override { std::filesystem::remove_all(folder_); }

  UpgradeFile check(const std::string& name, const std::string& content) {
    std::filesystem::path path = folder_ / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return checkUpgradeFile(path.string());
  }
  std::string at(const std::string& name) const { return (folder_ / name).string(); }

  const std::filesystem::path folder_ = testing::TempDir() + "upgrade-file-" + std::to_string(getpid());
};

TEST_F(UpgradeFileTest, HexIsWhatTheLibraryConverts) {
  for (const char* name : {"a.hex", "a.HEX"}) {
    UpgradeFile file = check(name, kHexText);
    EXPECT_TRUE(file.ok) << file.reason;
    EXPECT_TRUE(file.hex);
    EXPECT_EQ(file.image_bytes, 1U);
    EXPECT_EQ(file.chunks, 1U);
  }
}

TEST_F(UpgradeFileTest, ABrokenRecordIsNamedByItsLine) {
  UpgradeFile file = check("a.hex", ":0100000000FF\r\n:0100010001FF\r\n:00000001FF\r\n");
  EXPECT_FALSE(file.ok);
  EXPECT_THAT(file.reason, HasSubstr("a.hex, line 2: "));
}

TEST_F(UpgradeFileTest, RawImagesGoOutAsTheyAre) {
  std::string image = std::string("MIRN-VERSION=2") + std::string(1, '\0') + std::string(2000, 'x');
  for (const char* name : {"a.bin", "hex", "a.hexadecimal", "a.hex.bin", "d.hex/a.bin"}) {
    UpgradeFile file = check(name, image);
    EXPECT_TRUE(file.ok) << file.reason;
    EXPECT_FALSE(file.hex) << name;
    EXPECT_EQ(file.image_bytes, image.size());
    EXPECT_EQ(file.chunks, 2U);
  }
  EXPECT_TRUE(check("colon", ":").ok);
  EXPECT_TRUE(check("colons", "::::10").ok);
  EXPECT_TRUE(check("digit", ":1 ").ok) << "a mark and a digit are no record";
  EXPECT_TRUE(check("later", "\x01:0100000000FF").ok);
}

TEST_F(UpgradeFileTest, HexTextUnderAnyOtherNameIsRefused) {
  for (const char* begin : {"", "\r\n\n", " \t", "\xEF\xBB\xBF"}) {
    UpgradeFile file = check("fw.bin", begin + std::string(kHexText));
    EXPECT_FALSE(file.ok);
    EXPECT_EQ(file.reason,
              at("fw.bin") + " looks like Intel HEX but would be sent as text: rename it to " + at("fw.bin.hex") + ".");
  }
  EXPECT_FALSE(check("cut", ":10").ok);
}

TEST_F(UpgradeFileTest, NamesThatOnlyPeopleTakeForHexAreRefusedWhateverTheContent) {
  for (const char* name : {"fw.Hex", "fw.hEX", "fw.ihex", "fw.IHEX", "fw.hex.hex", "fw.HEX.hex.hex", "fw.hex.ihex"}) {
    UpgradeFile file = check(name, "image");
    EXPECT_FALSE(file.ok) << name;
    EXPECT_THAT(file.reason, AllOf(HasSubstr(std::string(name) + " looks like Intel HEX"),
                                   HasSubstr("rename it to " + at("fw.hex") + ".")));
    EXPECT_TRUE(check("fw.hex", kHexText).ok) << "the advice helps";
  }
  EXPECT_THAT(check("fw.hex.old", kHexText).reason, HasSubstr("give it a name with \".hex\" at its end alone."));
}

TEST_F(UpgradeFileTest, ADirectoryNamedHexIsSaidToBeTheReason) {
  for (const char* name : {"d.hex/fw.hex", "d.hex.d/sub/fw.hex", "d.HEX/fw.HEX"}) {
    UpgradeFile file = check(name, kHexText);
    EXPECT_FALSE(file.ok) << name;
    EXPECT_THAT(file.reason, HasSubstr("move it to a directory without \".hex\" in its path.")) << name;
  }
}

TEST_F(UpgradeFileTest, WhatCantBeSentIsRefusedWithItsReason) {
  EXPECT_EQ(checkUpgradeFile(at("missing")).reason, at("missing") + ": No such file or directory");
  EXPECT_EQ(checkUpgradeFile(folder_.string()).reason, folder_.string() + " is no regular file.");
  EXPECT_EQ(check("empty", "").reason, at("empty") + " is empty.");
  check("large", "x");
  std::filesystem::resize_file(at("large"), kMostChunks * 1024);
  EXPECT_TRUE(checkUpgradeFile(at("large")).ok);
  std::filesystem::resize_file(at("large"), kMostChunks * 1024 + 1);
  EXPECT_THAT(checkUpgradeFile(at("large")).reason, HasSubstr("is too large"));
}

}  // namespace
}  // namespace mirn
