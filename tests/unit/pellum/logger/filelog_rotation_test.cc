#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "deps/pellum/logger/filelog.h"
#include "tests/unit/pellum/logger/log_folder.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::UnorderedElementsAre;

class Rotation : public testing::Test {
 protected:
  Rotation() { log.Path(folder.c_str(), 0); }

  std::vector<std::string> stamped() const {
    std::vector<std::string> result;
    for (const std::string& name : folder.names()) {
      if (matches(name, "t\\.[0-9]{8}-[0-9]{6}\\.log")) {
        result.push_back(name);
      }
    }
    return result;
  }

  LogFolder folder;
  filelog log;
};

TEST_F(Rotation, OpeningMovesAnExistingFileToTheFirstFreeNumber) {
  folder.write("t.log", "old\n");
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  log.write_log(1, "new");
  EXPECT_EQ(folder.text("t.log.1"), "old\n");
  EXPECT_THAT(folder.lines("t.log"), ElementsAre(EndsWith("new")));
}

TEST_F(Rotation, NumbersAreFilledFromOneAndNeverDeleted) {
  folder.write("t.log", "now");
  folder.write("t.log.1", "one");
  folder.write("t.log.3", "three");
  log.open("t", filelog::fixed_size, false);
  log.close();
  log.open("t", filelog::fixed_size, false);
  EXPECT_EQ(folder.text("t.log.1"), "one");
  EXPECT_EQ(folder.text("t.log.2"), "now");
  EXPECT_EQ(folder.text("t.log.3"), "three");
  EXPECT_THAT(folder.names(), ElementsAre("t.log", "t.log.1", "t.log.2", "t.log.3", "t.log.4"));
}

TEST_F(Rotation, FileCountOfOneStillMeansNumbers) {
  log.SetFileMaxCount(1);
  folder.write("t.log", "old");
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(folder.has("t.log.1"));
}

TEST_F(Rotation, AppendingContinuesTheFileAndItsSize) {
  folder.write("t.log", std::string(90, 'o') + "\n");
  log.MaxSize(100);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, true));
  EXPECT_FALSE(folder.has("t.log.1"));
  log.write_log(1, "this line makes it full");
  EXPECT_THAT(folder.lines("t.log.1"), ElementsAre(std::string(90, 'o'), EndsWith("makes it full")));
  EXPECT_EQ(folder.text("t.log"), "");
  log.write_log(1, "next");
  EXPECT_THAT(folder.lines("t.log"), ElementsAre(EndsWith("next")));
}

TEST_F(Rotation, AppendingCreatesAMissingFile) {
  EXPECT_TRUE(log.open("t", filelog::fixed_size, true));
  EXPECT_THAT(folder.names(), ElementsAre("t.log"));
}

TEST_F(Rotation, TheLineThatReachesTheMaximumIsTheLastOfItsFile) {
  log.MaxSize(1);
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "first");
  log.write_log(1, "second");
  EXPECT_THAT(folder.lines("t.log.1"), ElementsAre(EndsWith("first")));
  EXPECT_THAT(folder.lines("t.log.2"), ElementsAre(EndsWith("second")));
  EXPECT_EQ(folder.text("t.log"), "");
}

TEST_F(Rotation, SizeEqualToTheMaximumRotates) {
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "as long as the next");
  log.MaxSize(2 * folder.text("t.log").size());
  log.write_log(1, "as long as the last");
  EXPECT_EQ(folder.lines("t.log.1").size(), 2U);
  EXPECT_EQ(folder.text("t.log"), "");
}

TEST_F(Rotation, MaximumIs16MiBUnlessSet) {
  constexpr uintmax_t kMaximum = 16777216;
  folder.write("t.log", "");
  std::filesystem::resize_file(folder.file("t.log"), kMaximum - 1000);
  log.open("t", filelog::fixed_size, true);
  log.write_log(1, "far shorter than a thousand bytes");
  EXPECT_FALSE(folder.has("t.log.1"));
  log.write_log(1, "%s", std::string(1000, 'x').c_str());
  EXPECT_TRUE(folder.has("t.log.1"));
}

TEST_F(Rotation, MaximumOfZeroRotatesAfterEveryWrite) {
  log.MaxSize(0);
  log.open("t", filelog::fixed_size, false);
  log.write_log(1, "first");
  EXPECT_THAT(folder.names(), ElementsAre("t.log", "t.log.1"));
}

TEST_F(Rotation, FileStaysWhileItIsBelowTheMaximum) {
  log.MaxSize(1000);
  log.open("t", filelog::fixed_size, false);
  while (folder.text("t.log").size() + 80 < 1000) {
    log.write_log(1, "a line of known length");
  }
  EXPECT_THAT(folder.names(), ElementsAre("t.log"));
}

TEST_F(Rotation, FileCountOfTwoMeansTimeStamps) {
  log.SetFileMaxCount(5);
  folder.write("t.log", "old");
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  ASSERT_EQ(stamped().size(), 1U);
  EXPECT_EQ(folder.text(stamped().front()), "old");
  EXPECT_THAT(folder.names(), UnorderedElementsAre("t.log", stamped().front()));
}

TEST_F(Rotation, OldestOfThreeGoesBeforeTheFourth) {
  log.SetFileMaxCount(3);
  folder.write("t.log", "live");
  folder.write("t.a.log", "a");
  folder.write("t.b.log", "b");
  folder.setAge("t.log", 10);
  folder.setAge("t.a.log", 20);
  folder.setAge("t.b.log", 30);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  EXPECT_FALSE(folder.has("t.b.log"));
  EXPECT_TRUE(folder.has("t.a.log"));
  ASSERT_EQ(stamped().size(), 1U);
  EXPECT_EQ(folder.text(stamped().front()), "live");
}

TEST_F(Rotation, NothingGoesBelowTheFileCount) {
  log.SetFileMaxCount(4);
  folder.write("t.log", "live");
  folder.write("t.a.log", "a");
  folder.write("t.b.log", "b");
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(folder.has("t.a.log"));
  EXPECT_TRUE(folder.has("t.b.log"));
}

TEST_F(Rotation, LiveFileCountsAndMayBeTheOneThatGoes) {
  log.SetFileMaxCount(2);
  folder.write("t.log", "live");
  folder.write("t.a.log", "a");
  folder.setAge("t.log", 100);
  folder.setAge("t.a.log", 10);
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  EXPECT_THAT(folder.names(), ElementsAre("t.a.log", "t.log"));
  EXPECT_EQ(folder.text("t.log"), "");
}

TEST_F(Rotation, TwoInTheSameSecondLeaveTheSecondBackup) {
  log.SetFileMaxCount(100);
  log.MaxSize(1);
  // A second may end between the two; then there are two backups and it is tried again.
  for (int attempt = 0; attempt < 20; ++attempt) {
    for (const std::string& name : folder.names()) {
      std::filesystem::remove(folder.file(name));
    }
    log.open("t", filelog::fixed_size, false);
    log.write_log(1, "first");
    log.write_log(1, "second");
    log.close();
    if (stamped().size() == 1) {
      EXPECT_THAT(folder.lines(stamped().front()), ElementsAre(EndsWith("second")));
      return;
    }
  }
  FAIL() << "never two rotations in one second";
}

TEST_F(Rotation, PathSetsTheFileCountToo) {
  log.Path(folder.c_str(), 3);
  folder.write("t.log", "old");
  log.open("t", filelog::fixed_size, false);
  EXPECT_EQ(stamped().size(), 1U);
  log.close();
  std::filesystem::remove(folder.file(stamped().front()));
  log.Path(folder.c_str(), 65537);  // all 32 bits of it
  log.open("t", filelog::fixed_size, false);
  EXPECT_EQ(stamped().size(), 1U);
}

TEST_F(Rotation, HourlyStyleWritesIntoTheFileOfTheHour) {
  EXPECT_TRUE(log.open("h", filelog::by_hour, false));
  EXPECT_TRUE(folder.names().empty()) << "files are opened by the lines";
  log.MaxSize(1);
  log.write_log(1, "first");
  log.write_log(4, "second");
  const std::vector<std::string> names = folder.names();
  ASSERT_GE(names.size(), 1U);  // two when the hour has just changed
  EXPECT_TRUE(matches(names.front(), "h\\.[0-9]{10}\\.log")) << names.front();
  std::string all;
  for (const std::string& name : names) {
    all += folder.text(name);
  }
  EXPECT_TRUE(matches(all, ".*first\n.*second\n")) << all;
}

TEST_F(Rotation, FirstLineOfANewHourChangesTheFile) {
  const auto open_files = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  // The hour changes with the time zone, too.
  const auto useZone = [](const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  };
  log.open("h", filelog::by_hour, false);
  useZone("UTC0");
  log.write_log(1, "first");
  const auto before = open_files();
  useZone("UTC-3");
  log.write_log(1, "second");
  log.write_log(1, "third");
  EXPECT_EQ(open_files(), before) << "the old hour's file is closed";
  ::unsetenv("TZ");
  ::tzset();
  std::vector<size_t> lines;
  for (const std::string& name : folder.names()) {
    lines.push_back(folder.lines(name).size());
  }
  EXPECT_THAT(lines, UnorderedElementsAre(1U, 2U));
}

TEST_F(Rotation, HourlyFilesAreContinued) {
  for (int i = 0; i < 3; ++i) {
    log.open("h", filelog::by_hour, false);
    log.write_log(1, "again");
    EXPECT_TRUE(log.close());
  }
  size_t lines = 0;
  for (const std::string& name : folder.names()) {
    lines += folder.lines(name).size();
  }
  EXPECT_EQ(lines, 3U);
}

TEST_F(Rotation, HourlyLineThatCantBeWrittenIsReportedOnStandardOutput) {
  log.Path(folder.file("missing/deeper").c_str(), 0);  // one level too many for mkdir
  EXPECT_TRUE(log.open("h", filelog::by_hour, false));
  CapturedOutput output;
  EXPECT_EQ(log.write_log(1, "lost"), 1);
  const std::string text = output.text();
  EXPECT_TRUE(matches(text,
                      "\\[filelog\\] write failed\\([0-9]+\\), deps/pellum/logger/flogger:"
                      "write_file_with_hour\n"))
      << text;
}

TEST_F(Rotation, ClosedHourlyLoggerReportsUntilItIsOpenedAgain) {
  log.open("h", filelog::by_hour, false);
  log.write_log(1, "kept");
  log.close();
  CapturedOutput output;
  log.write_log(1, "lost");
  EXPECT_THAT(output.text(), testing::HasSubstr("write failed"));
  EXPECT_TRUE(log.open("h", filelog::by_hour, false));
  log.write_log(1, "kept too");
  size_t lines = 0;
  for (const std::string& name : folder.names()) {
    lines += folder.lines(name).size();
  }
  EXPECT_EQ(lines, 2U);
}

TEST_F(Rotation, StyleMayChangeBetweenOpens) {
  log.open("t", filelog::by_hour, false);
  log.write_log(1, "hourly");
  log.close();
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  log.write_log(1, "fixed");
  EXPECT_EQ(folder.names().size(), 2U);
  EXPECT_THAT(folder.lines("t.log"), ElementsAre(EndsWith("fixed")));
}

TEST_F(Rotation, OpeningWhileAnHourlyFileIsOpenReturnsFalseAndKeepsIt) {
  log.open("h", filelog::by_hour, false);
  log.write_log(1, "first");
  EXPECT_FALSE(log.open("other", filelog::fixed_size, false));
  EXPECT_FALSE(log.open("other", filelog::by_hour, false));
  log.write_log(1, "second");
  size_t lines = 0;
  for (const std::string& name : folder.names()) {  // two when the hour has just changed
    EXPECT_TRUE(matches(name, "h\\.[0-9]{10}\\.log")) << name;
    lines += folder.lines(name).size();
  }
  EXPECT_EQ(lines, 2U);
}

TEST_F(Rotation, MaximumOfZeroWithoutAFileOpensOneAfterTheFirstLine) {
  log.MaxSize(0);
  {
    CapturedOutput output;
    log.write_log(1, "to output");
    EXPECT_THAT(output.text(), EndsWith("to output\n"));
  }
  EXPECT_THAT(folder.names(), ElementsAre(".log"));
  EXPECT_EQ(folder.text(".log"), "");
  CapturedOutput output;
  log.write_log(1, "to the file");
  EXPECT_EQ(output.text(), "");
  EXPECT_THAT(folder.names(), ElementsAre(".log", ".log.1"));
  EXPECT_THAT(folder.lines(".log.1"), ElementsAre(EndsWith("to the file")));
}

}  // namespace
}  // namespace mirn
