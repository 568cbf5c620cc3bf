// Full disks and directories that disappear: who logs never notices.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/logger/filelog.h"
#include "tests/unit/pellum/logger/log_folder.h"
#include "tests/unit/pellum/logger/own_mounts.h"

#ifdef MIRN_SANITIZED
extern "C" size_t __sanitizer_get_current_allocated_bytes();  // its header does not come with every compiler
#else
#include <malloc.h>
#endif

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

// No file of this process may grow beyond a size. Each case is a process of its own, so nobody else is limited.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &old_);
    const rlimit limit{bytes, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { lift(); }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  void lift() { ::setrlimit(RLIMIT_FSIZE, &old_); }

 private:
  rlimit old_{};
};

// By the whole process.
size_t allocatedBytes() {
#ifdef MIRN_SANITIZED
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 now = mallinfo2();
  return now.uordblks + now.hblkhd;
#endif
}

class Failing : public testing::Test {
 protected:
  Failing() { log.Path(folder.c_str(), 0); }
  LogFolder folder;
  filelog log;
};

TEST_F(Failing, FirstFailureRotatesAndTriesTheSameLinesAgain) {
  log.open("t", filelog::fixed_size, false);
  const std::string filler(300, 'f');
  log.write_log(1, "%s", filler.c_str());
  {
    // The next line doesn't fit behind the first one, but into a file of its own.
    const FileSizeLimit limit(500);
    EXPECT_EQ(log.write_log(1, "%s", filler.c_str()), 1);
  }
  EXPECT_THAT(folder.names(), ElementsAre("t.log", "t.log.1"));
  EXPECT_THAT(folder.lines("t.log"), ElementsAre(EndsWith(filler))) << "whole, in the new file";
  EXPECT_THAT(folder.lines("t.log.1").front(), EndsWith(filler));
  log.write_log(1, "goes on");
  EXPECT_THAT(folder.lines("t.log").back(), EndsWith("goes on")) << "the success has reset the count";
}

TEST_F(Failing, AfterTwoFailuresInARowNothingIsWrittenAnyMore) {
  log.open("t", filelog::fixed_size, false);
  {
    const FileSizeLimit limit(1);
    EXPECT_EQ(log.write_log(1, "one"), 1);
    EXPECT_EQ(log.write_log(1, "two"), 1);
    EXPECT_THAT(folder.names(), ElementsAre("t.log", "t.log.1", "t.log.2")) << "each failure rotates once";
  }
  CapturedOutput output;
  EXPECT_EQ(log.write_log(1, "three"), 1);
  log.close();
  EXPECT_TRUE(log.open("u", filelog::fixed_size, false));
  EXPECT_EQ(log.write_log(1, "four"), 1);
  EXPECT_EQ(folder.text("u.log"), "") << "only a successful write resets the count";
  EXPECT_EQ(folder.text("t.log"), "");
  EXPECT_EQ(output.text(), "");
}

TEST_F(Failing, LinesThatCollectAreBoundedAndTheCallerNeverFails) {
  log.open("t", filelog::fixed_size, false);
  {
    const FileSizeLimit limit(1);
    log.write_log(1, "fails twice");
  }
  const std::string line(10000, 'x');
  const size_t before = allocatedBytes();
  for (int i = 0; i < 500; ++i) {  // five times the buffer
    ASSERT_EQ(log.write_log(4, "%s", line.c_str()), 1);
  }
  EXPECT_LT(allocatedBytes(), before + (256U << 10)) << "the buffers have their full size from the beginning";
}

TEST_F(Failing, OneFailureThenSuccessStartsTheCountAnew) {
  log.open("t", filelog::fixed_size, false);
  const std::string filler(300, 'f');
  for (int i = 0; i < 5; ++i) {
    log.write_log(1, "%s", filler.c_str());
    const FileSizeLimit limit(500);
    log.write_log(1, "%s", filler.c_str());
  }
  log.write_log(1, "still there");
  EXPECT_THAT(folder.lines("t.log").back(), EndsWith("still there"));
}

// On a disk of 64 KiB.
void fillTheDisk(const LogFolder& folder) {
  filelog log;
  log.Path(folder.file("logs").c_str(), 0);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  const std::string line(1000, 'x');
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(log.write_log(1, "%s", line.c_str()), 1);
  }
  // The first failure rotates and tries again, the second one is the last.
  const auto names = [&folder] {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder.file("logs"))) {
      found.push_back(entry.path().filename());
    }
    return found;
  };
  EXPECT_THAT(names(), UnorderedElementsAre("t.log", "t.log.1", "t.log.2"));
  EXPECT_GT(std::filesystem::file_size(folder.file("logs/t.log.1")), 32U << 10);

  std::filesystem::remove(folder.file("logs/t.log.1"));
  EXPECT_EQ(log.write_log(1, "there is room again"), 1);
  EXPECT_TRUE(log.close());
  EXPECT_TRUE(log.open("u", filelog::fixed_size, false));
  EXPECT_EQ(log.write_log(1, "for another file too"), 1);
  EXPECT_TRUE(log.close());
  EXPECT_THAT(names(), UnorderedElementsAre("t.log", "t.log.2", "u.log"));
  EXPECT_EQ(folder.text("logs/t.log"), "") << "only a successful write resets the count";
  EXPECT_EQ(folder.text("logs/u.log"), "");

  filelog another;
  another.Path(folder.file("logs").c_str(), 0);
  EXPECT_TRUE(another.open("v", filelog::fixed_size, false));
  another.write_log(1, "here");
  EXPECT_THAT(folder.lines("logs/v.log"), ElementsAre(EndsWith("here"))) << "the room is really there";
}

TEST_F(Failing, FullDiskCostsLinesAndNothingElse) {
  if (withSmallDisk(folder.c_str(), [this] { fillTheDisk(folder); }) == OwnMounts::kNotAllowed) {
    GTEST_SKIP() << "no file system may be mounted here; the cases with a file size limit were run";
  }
}

TEST_F(Failing, DirectoryThatDisappearsIsMadeAgainAtTheNextRotation) {
  log.Path(folder.file("logs").c_str(), 0);
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "before");
  std::filesystem::remove_all(folder.file("logs"));
  EXPECT_EQ(log.write_log(1, "into the removed file"), 1);
  log.MaxSize(1);
  EXPECT_EQ(log.write_log(1, "fills the removed file"), 1);
  log.MaxSize(1000000);
  EXPECT_EQ(log.write_log(1, "after"), 1);
  EXPECT_THAT(folder.lines("logs/t.log"), ElementsAre(EndsWith("after")));
}

TEST_F(Failing, DirectoryReplacedByAFileSendsLinesToStandardOutput) {
  log.Path(folder.file("logs").c_str(), 0);
  log.open("t", filelog::fixed_size, false);
  std::filesystem::remove_all(folder.file("logs"));
  folder.write("logs", "a file");
  log.MaxSize(1);
  EXPECT_EQ(log.write_log(1, "fills the removed file"), 1);
  CapturedOutput output;
  EXPECT_EQ(log.write_log(1, "where to"), 1);
  EXPECT_THAT(output.text(), HasSubstr("where to\n"));
  EXPECT_EQ(folder.text("logs"), "a file");
}

TEST_F(Failing, OpenReturnsFalseWhenNoFileCanBeMade) {
  log.Path(folder.file("missing/deeper").c_str(), 0);
  EXPECT_FALSE(log.open("t", filelog::fixed_size, false));
  EXPECT_FALSE(log.open("t", filelog::fixed_size, true));
  std::filesystem::create_directories(folder.file("here/t.log"));
  log.Path(folder.file("here").c_str(), 0);
  EXPECT_FALSE(log.open("t", filelog::fixed_size, true)) << "a directory stands in its place";
}

TEST_F(Failing, ClosingWithWritesThatFailKeepsTheCountRule) {
  log.open("t", filelog::fixed_size, false);
  {
    const FileSizeLimit limit(1);
    log.write_log(1, "one");
    log.close();
  }
  EXPECT_TRUE(log.open("u", filelog::fixed_size, false));
  EXPECT_TRUE(log.close());
  EXPECT_EQ(folder.text("u.log"), "");
}

// What comes out of a pipe until nobody holds it for writing any more.
class PipeReader {
 public:
  explicit PipeReader(const std::string& path)
      : reader_([this, path] {
          std::ifstream in(path, std::ios::binary);
          text_.assign(std::istreambuf_iterator<char>(in), {});
        }) {}
  std::string text() {
    reader_.join();
    return text_;
  }

 private:
  std::string text_;
  std::thread reader_;
};

TEST_F(Failing, APipeInPlaceOfTheFileIsWrittenTo) {
  ASSERT_EQ(::mkfifo(folder.file("t.log").c_str(), 0600), 0);
  PipeReader reader(folder.file("t.log"));
  EXPECT_TRUE(log.open("t", filelog::fixed_size, true));
  const std::string line(10000, 'x');  // more than a pipe takes in one piece
  std::string expected;
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(log.write_log(1, "%s", line.c_str()), 1);
    expected += line;
  }
  log.close();
  std::string messages;
  std::istringstream lines(reader.text());
  for (std::string each; std::getline(lines, each);) {
    messages += messageOf(each);
  }
  EXPECT_EQ(messages, expected);
  EXPECT_THAT(folder.names(), ElementsAre("t.log"));
}

TEST_F(Failing, APipeThatNobodyReadsHoldsNobodyUp) {
  ASSERT_EQ(::mkfifo(folder.file("t.log").c_str(), 0600), 0);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, true));
  const std::string line(10000, 'x');
  for (int i = 0; i < 20; ++i) {  // a pipe takes 64 KiB
    EXPECT_EQ(log.write_log(1, "%s", line.c_str()), 1);
  }
  EXPECT_THAT(folder.names(), ElementsAre("t.log", "t.log.1")) << "a failed write rotates";
  EXPECT_GT(folder.lines("t.log").size(), 10U);
}

// On a disk of 64 KiB, which is full already.
void writeHourlyLineOnAFullDisk(const LogFolder& folder) {
  filelog log;
  log.Path(folder.file("logs").c_str(), 0);
  EXPECT_TRUE(log.open("h", filelog::by_hour, false));
  log.write_log(1, "makes the file");
  folder.write("logs/filler", std::string(100 << 10, 'f'));
  const std::string line(5000, 'x');
  CapturedOutput output;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(log.write_log(1, "%s", line.c_str()), 1);
  }
  EXPECT_THAT(output.text(), HasSubstr("[filelog] write failed(" + std::to_string(ENOSPC) +
                                       "), deps/pellum/logger/flogger:write_file_with_hour\n"));
}

TEST_F(Failing, HourlyLineOnAFullDiskIsReportedOnStandardOutput) {
  if (withSmallDisk(folder.c_str(), [this] { writeHourlyLineOnAFullDisk(folder); }) == OwnMounts::kNotAllowed) {
    GTEST_SKIP() << "no file system may be mounted here; the case with a file size limit was run";
  }
}

// The line is in the stream's own buffer when the flush fails, so it isn't that nothing was taken; it is lost all the
// same, and that is told.
TEST_F(Failing, HourlyLineThatOnlyTheFlushLosesIsReportedOnStandardOutput) {
  log.open("h", filelog::by_hour, false);
  log.write_log(1, "makes the file");
  CapturedOutput output;
  {
    const FileSizeLimit limit(1);
    EXPECT_EQ(log.write_log(1, "short"), 1);
  }
  EXPECT_THAT(output.text(), HasSubstr("[filelog] write failed(" + std::to_string(EFBIG) + ")"));
}

}  // namespace
}  // namespace mirn
