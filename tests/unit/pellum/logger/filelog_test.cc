#include "deps/pellum/logger/filelog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/pellum/logger/log_folder.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Filelog : public testing::Test {
 protected:
  Filelog() { log.Path(folder.c_str(), 0); }

  // What one call adds to the file.
  std::string written(int level, const char* text) {
    const size_t before = folder.text("t.log").size();
    EXPECT_EQ(log.write_log(level, "%s", text), 1);
    return folder.text("t.log").substr(before);
  }

  LogFolder folder;
  filelog log;
};

// The local time as a line has it.
std::string nowText() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[64];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / 1000000);
  return text;
}

TEST_F(Filelog, LineHasThreadTimeTagAndMessage) {
  ASSERT_TRUE(log.open("t", filelog::fixed_size, false));
  const std::string before = nowText();
  const std::string line = written(1, "hello");
  const std::string after = nowText();
  const std::vector<std::string> groups =
      groupsOf(line, "\\[([0-9]+)\\]\t([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3})\t- Info  -\thello\n");
  ASSERT_EQ(groups.size(), 3U) << line;
  EXPECT_EQ(groups[1], std::to_string(::syscall(SYS_gettid)));
  EXPECT_LE(before, groups[2]);
  EXPECT_LE(groups[2], after);
}

// A time zone for a scope.
class Zone {
 public:
  explicit Zone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }
  ~Zone() {
    ::unsetenv("TZ");
    ::tzset();
  }
  Zone(const Zone&) = delete;
  Zone& operator=(const Zone&) = delete;
};

// A time of three hours after `universal` (seconds), as a line has it.
std::string threeHoursAfter(time_t universal) {
  const time_t shifted = universal + 3 * 60 * 60;
  tm parts{};
  gmtime_r(&shifted, &parts);
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts)};
}

TEST_F(Filelog, TheTimeIsLocal) {
  const Zone zone("UTC-3");  // east of Greenwich: later
  log.open("t", filelog::fixed_size, false);
  const std::string before = threeHoursAfter(::time(nullptr));
  // A thread of its own: nothing of an earlier line in another zone is kept.
  std::string line;
  std::thread([&] { line = written(1, "m"); }).join();
  CapturedOutput output;
  log.write_log_console(1, "m");
  const std::string console = output.text().substr(0, before.size());
  const std::string after = threeHoursAfter(::time(nullptr));
  const std::string in_line = line.substr(line.find('\t') + 1, before.size());
  EXPECT_LE(before, in_line);
  EXPECT_LE(in_line, after);
  EXPECT_LE(before, console);
  EXPECT_LE(console, after);
}

TEST_F(Filelog, EachThreadWritesItsOwnId) {
  log.open("t", filelog::fixed_size, false);
  std::string other_id;
  std::thread([&] {
    other_id = std::to_string(::syscall(SYS_gettid));
    log.write_log(1, "from a thread");
  }).join();
  EXPECT_THAT(folder.text("t.log"), testing::StartsWith("[" + other_id + "]\t"));
}

TEST_F(Filelog, ForkedChildWritesItsOwnId) {
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "parent");
  const pid_t child = ::fork();
  if (child == 0) {
    log.write_log(1, "child");
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_THAT(folder.lines("t.log"),
              ElementsAre(testing::EndsWith("parent"), testing::StartsWith("[" + std::to_string(child) + "]\t")));
}

TEST_F(Filelog, EveryLevelHasItsTag) {
  log.open("t", filelog::fixed_size, false);
  EXPECT_THAT(written(1, "m"), HasSubstr("\t- Info  -\tm\n"));
  EXPECT_THAT(written(2, "m"), HasSubstr("\t+Warning+\tm\n"));
  EXPECT_THAT(written(4, "m"), HasSubstr("\t* Error *\tm\n"));
  EXPECT_THAT(written(8, "m"), HasSubstr("\t= Debug =\tm\n"));
  for (const int level : {3, 5, 6, 7, 9, 16, 1024, -1, std::numeric_limits<int>::min()}) {
    EXPECT_THAT(written(level, "m"), HasSubstr("\t?unknown?\tm\n")) << level;
  }
}

TEST_F(Filelog, MaskAndLevelMustMeet) {
  log.open("t", filelog::fixed_size, false);
  log.Flag(0x0D);
  EXPECT_EQ(written(2, "m"), "");
  EXPECT_NE(written(1, "m"), "");
  EXPECT_NE(written(4, "m"), "");
  EXPECT_NE(written(8, "m"), "");
  EXPECT_NE(written(3, "m"), "") << "one common bit is enough";
  EXPECT_EQ(written(0, "m"), "");
  EXPECT_EQ(written(16, "m"), "");
  log.Flag(~0UL);
  EXPECT_THAT(written(16, "m"), HasSubstr("?unknown?"));
  EXPECT_EQ(written(0, "m"), "");
  log.Flag(0);
  EXPECT_EQ(written(4, "m"), "");
}

TEST_F(Filelog, DisabledLoggerWritesNothing) {
  log.open("t", filelog::fixed_size, false);
  log.enable(false);
  EXPECT_EQ(written(4, "m"), "");
  log.enable(true);
  EXPECT_NE(written(4, "m"), "");
}

TEST_F(Filelog, SeparatorStandsBetweenTheColumns) {
  log.open("t", filelog::fixed_size, false);
  log.Split('|');
  const std::string line = written(4, "m");
  EXPECT_TRUE(matches(line, "\\[[0-9]+\\]\t[^|]+\\.[0-9]{3}\\|\\* Error \\*\\|m\n")) << line;
}

TEST_F(Filelog, LongMessageIsCutTo10239Bytes) {
  log.open("t", filelog::fixed_size, false);
  EXPECT_EQ(messageOf(written(1, std::string(20000, 'x').c_str())), std::string(10239, 'x') + "\n");
  EXPECT_EQ(messageOf(written(1, std::string(10240, 'y').c_str())), std::string(10239, 'y') + "\n");
  EXPECT_EQ(messageOf(written(1, std::string(10239, 'z').c_str())), std::string(10239, 'z') + "\n");
}

TEST_F(Filelog, EmptyAndNullFormatsWriteALineWithoutAMessage) {
  log.open("t", filelog::fixed_size, false);
  // Through a pointer, behind which compilers don't check formats.
  int (filelog::*const call)(int, const char*, ...) = &filelog::write_log;
  EXPECT_EQ((log.*call)(1, nullptr), 1);
  EXPECT_EQ((log.*call)(1, ""), 1);
  EXPECT_THAT(folder.lines("t.log"), ElementsAre(testing::EndsWith("- Info  -\t"), testing::EndsWith("- Info  -\t")));
}

TEST_F(Filelog, WithoutAFileLinesGoToStandardOutput) {
  CapturedOutput output;
  EXPECT_EQ(log.write_log(1, "to %s", "output"), 1);
  EXPECT_THAT(output.text(), HasSubstr("\t- Info  -\tto output\n"));
  EXPECT_THAT(folder.names(), IsEmpty());
}

TEST_F(Filelog, ConsoleLinesIgnoreMaskAndEnabledFlag) {
  log.enable(false);
  log.Flag(0);
  log.Split('#');
  CapturedOutput output;
  EXPECT_EQ(log.write_log_console(0x1F, "n=%d", 5), 1);
  const std::string text = output.text();
  EXPECT_TRUE(matches(text, "[0-9]{4}-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]#0x0000001f#n=5\n"))
      << text;
}

TEST_F(Filelog, DebugOutputPrintsTheTextAsItIs) {
  CapturedOutput output;
  log.debug_output("100%s\n");
  log.debug_output(nullptr);
  EXPECT_EQ(output.text(), "100%s\n");
}

TEST_F(Filelog, RealTimeOutputIsAcceptedAndIgnored) {
  log.open("t", filelog::fixed_size, false);
  CapturedOutput output;
  log.SetEnableRealTimeOutput(true);
  EXPECT_NE(written(1, "m"), "");
  log.SetEnableRealTimeOutput(false);
  EXPECT_NE(written(1, "m"), "");
  EXPECT_EQ(output.text(), "");
}

TEST_F(Filelog, OpeningAnOpenLoggerReturnsFalse) {
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  EXPECT_FALSE(log.open("other", filelog::fixed_size, false));
  EXPECT_FALSE(log.open("other", filelog::by_hour, true)) << "nor is the style changed";
  written(1, "m");
  EXPECT_THAT(folder.names(), ElementsAre("t.log"));
}

TEST_F(Filelog, CloseReturnsTrueAndCanBeRepeated) {
  EXPECT_TRUE(log.close());
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "in the file");
  EXPECT_TRUE(log.close());
  EXPECT_TRUE(log.close());
  CapturedOutput output;
  log.write_log(1, "to output");
  EXPECT_THAT(output.text(), HasSubstr("to output"));
  EXPECT_EQ(folder.lines("t.log").size(), 1U);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, true));
}

TEST_F(Filelog, NullOrEmptyNameMeansAnEmptyBaseName) {
  EXPECT_TRUE(log.open(nullptr, filelog::fixed_size, false));
  log.write_log(1, "m");
  log.close();
  EXPECT_TRUE(log.open("", filelog::fixed_size, true));
  log.write_log(1, "m");
  EXPECT_THAT(folder.names(), ElementsAre(".log"));
  EXPECT_EQ(folder.lines(".log").size(), 2U);
}

TEST_F(Filelog, NullDirectoryIsReportedAndChangesNothing) {
  testing::internal::CaptureStderr();
  log.Path(nullptr, 9);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("directory"));
  log.open("t", filelog::fixed_size, false);
  EXPECT_THAT(folder.names(), ElementsAre("t.log"));
  log.close();
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(folder.has("t.log.1")) << "the file count was left alone too";
}

TEST_F(Filelog, DestructorClosesTheFile) {
  {
    filelog other;
    other.Path(folder.c_str(), 0);
    other.open("d", filelog::fixed_size, false);
    other.write_log(8, "last words");
  }
  EXPECT_THAT(folder.lines("d.log"), ElementsAre(testing::EndsWith("last words")));
}

TEST_F(Filelog, OpenCreatesTheDirectoryForEverybody) {
  const mode_t old_mask = ::umask(0);
  log.Path(folder.file("new").c_str(), 0);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  ::umask(old_mask);
  struct stat status {};
  ASSERT_EQ(::stat(folder.file("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0707U) << "the mode is deliberate";
}

}  // namespace
}  // namespace mirn
