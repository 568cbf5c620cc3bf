#include "apps/common/program_start.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

namespace mirn {
namespace {

class PrivateTempDirTest : public testing::Test {
 protected:
  PrivateTempDirTest() {
    if (const char* before = std::getenv("TMPDIR")) {
      before_ = before;
    }
    std::filesystem::create_directories(folder_);
  }
  ~PrivateTempDirTest() override {
    if (before_) {
      setenv("TMPDIR", before_->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
    std::filesystem::remove_all(folder_);
  }

  static std::string environment() {
    const char* text = std::getenv("TMPDIR");
    return text != nullptr ? text : "(unset)";
  }
  // It stands below `above`, belongs to its owner alone, is what the library finds, and goes with the object.
  static void expectPrivateDirectoryBelow(const std::string& above) {
    std::string path;
    {
      PrivateTempDir made;
      path = made.path();
      EXPECT_EQ(path.substr(0, above.size() + 6), above + "/mirn-") << path;
      EXPECT_EQ(path.find('/', above.size() + 1), path.size() - 1) << path;
      EXPECT_EQ(environment(), path);
      struct stat status {};
      ASSERT_EQ(stat(path.c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 07777U, 0700U);
      std::ofstream(path + "image") << "x";
    }
    EXPECT_FALSE(std::filesystem::exists(path));
  }

  const std::string folder_ = "/tmp/program-start-" + std::to_string(getpid());
  std::optional<std::string> before_;
};

TEST_F(PrivateTempDirTest, ATmpdirWithItsSlashIsUsedAsItIs) {
  setenv("TMPDIR", (folder_ + "/").c_str(), 1);
  PrivateTempDir none;
  EXPECT_EQ(none.path(), "");
  EXPECT_EQ(environment(), folder_ + "/");
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(PrivateTempDirTest, WithoutTheSlashItIsADirectoryBelow) {
  setenv("TMPDIR", folder_.c_str(), 1);
  expectPrivateDirectoryBelow(folder_);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(PrivateTempDirTest, UnsetEmptyOrMissingItIsADirectoryBelowTmp) {
  unsetenv("TMPDIR");
  expectPrivateDirectoryBelow("/tmp");
  setenv("TMPDIR", "", 1);
  expectPrivateDirectoryBelow("/tmp");
  setenv("TMPDIR", (folder_ + "/missing").c_str(), 1);
  expectPrivateDirectoryBelow("/tmp");
}

}  // namespace
}  // namespace mirn
