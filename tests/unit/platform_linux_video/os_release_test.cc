#include "platform/linux/os_release.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/os_version.h"

namespace mirn {
namespace {

class OsReleaseTest : public testing::Test {
 protected:
  OsReleaseTest() : path_(testing::TempDir() + "os-release" + std::to_string(getpid())) {}
  ~OsReleaseTest() override { std::filesystem::remove(path_); }

  std::string nameFrom(const std::string& content) {
    std::ofstream(path_, std::ios::binary | std::ios::trunc) << content;
    return prettyNameFrom({path_});
  }

  const std::string path_;
};

TEST_F(OsReleaseTest, TheNameStandsBareOrInQuotes) {
  EXPECT_EQ(nameFrom("ID=x\nPRETTY_NAME=Bare\nNAME=y\n"), "Bare");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n"), "Debian GNU/Linux 12 (bookworm)");
  EXPECT_EQ(nameFrom("PRETTY_NAME='Single one'"), "Single one");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"Blanks behind\" \t\r\n"), "Blanks behind");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"\"\n"), "");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\n"), "");
}

TEST_F(OsReleaseTest, BackslashesProtectWhatTheShellWouldTakeForItself) {
  EXPECT_EQ(nameFrom(R"(PRETTY_NAME="a \"b\" \$c \\ \`d\`")"), R"(a "b" $c \ `d`)");
  EXPECT_EQ(nameFrom(R"(PRETTY_NAME="plain \x")"), R"(plain \x)");
  EXPECT_EQ(nameFrom(R"(PRETTY_NAME='plain \$')"), R"(plain \$)");
}

TEST_F(OsReleaseTest, QuotesThatDoNotMatchStay) {
  EXPECT_EQ(nameFrom("PRETTY_NAME=\""), "\"");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"open"), "\"open");
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"mixed'"), "\"mixed'");
}

TEST_F(OsReleaseTest, TheNameIsValidText) {
  EXPECT_EQ(nameFrom("PRETTY_NAME=\"caf\xE9 1\"\n"), "caf\xEF\xBF\xBD 1");
}

TEST_F(OsReleaseTest, TheFirstFileThatHasOneCounts) {
  EXPECT_EQ(nameFrom("ID=x\n#PRETTY_NAME=no\nXPRETTY_NAME=no\n"), "Linux");
  EXPECT_EQ(prettyNameFrom({"/nowhere/os-release", "/nowhere/else"}), "Linux");
  nameFrom("PRETTY_NAME=Second\n");
  EXPECT_EQ(prettyNameFrom({"/nowhere/os-release", path_}), "Second");
  const std::string other = path_ + ".other";
  std::ofstream(other) << "ID=x\n";
  EXPECT_EQ(prettyNameFrom({other, path_}), "Second");
  std::ofstream(other) << "PRETTY_NAME=First\n";
  EXPECT_EQ(prettyNameFrom({other, path_}), "First");
  std::filesystem::remove(other);
}

TEST_F(OsReleaseTest, TheVersionEndsWithTheKernelsRelease) {
  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(operatingSystemVersionString(),
            prettyNameFrom({"/etc/os-release", "/usr/lib/os-release"}) + " " + names.release);
}

}  // namespace
}  // namespace mirn
