#include "deps/pellum/logger/flogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/pellum/logger/log_folder.h"
#include "tests/unit/pellum/logger/own_mounts.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Flogger : public testing::Test {
 protected:
  void load(const std::string& text) {
    config.write("dravio.ini", text);
    log.loadcfg(config.file("dravio.ini").c_str());
  }
  bool writes(int level) {
    CapturedOutput output;
    log.write_log(level, "m");
    return !output.text().empty();
  }

  LogFolder config;
  LogFolder logs;
  flogger log;
};

TEST_F(Flogger, InstanceIsOneForTheProcess) {
  flogger& first = flogger::GetInitance();
  flogger* second = nullptr;
  std::thread([&] { second = &flogger::GetInitance(); }).join();
  EXPECT_EQ(&first, second);
}

TEST_F(Flogger, IniSetsAllFourValues) {
  load("[LOGGER]\nPATH=" + std::string(logs.c_str()) + "\nMASK=12\nMAXSIZE=1\nFILE_MAX_COUNT=3\n");
  EXPECT_FALSE(writes(1));
  EXPECT_FALSE(writes(2));
  logs.write("t.log", "old");
  ASSERT_TRUE(log.open("t", filelog::fixed_size, false));
  EXPECT_FALSE(logs.has("t.log.1")) << "time-stamped backups";
  EXPECT_EQ(logs.names().size(), 2U);
  const std::string line(10000, 'x');
  for (int i = 0; i < 100; ++i) {
    log.write_log(4, "%s", line.c_str());
  }
  EXPECT_GT(logs.text("t.log").size(), 900U << 10);
  for (int i = 0; i < 10; ++i) {
    log.write_log(8, "%s", line.c_str());
  }
  EXPECT_LT(logs.text("t.log").size(), 100U << 10) << "rotated at one MiB";
}

// In a process with an /etc of its own.
TEST_F(Flogger, WithoutAPathTheSystemsFileIsRead) {
  const auto test = [this] {
    std::ofstream("/etc/dravio.ini") << "[LOGGER]\nMASK=4\nPATH=" << logs.c_str() << "\n";
    flogger fresh;
    fresh.open("t", filelog::fixed_size, false);
    fresh.write_log(1, "masked");
    fresh.write_log(4, "written");
  };
  if (withSmallDisk("/etc", test) == OwnMounts::kNotAllowed) {
    GTEST_SKIP() << "no file system may be mounted here";
  }
  EXPECT_THAT(logs.lines("t.log"), ElementsAre(testing::EndsWith("written")));
}

TEST_F(Flogger, KeysAndSectionsAreCaseInsensitive) {
  load("[logger]\nmask=2\n");
  EXPECT_FALSE(writes(1));
  EXPECT_TRUE(writes(2));
}

TEST_F(Flogger, AbsentKeysAreSetToTheirDefaults) {
  log.Flag(0);
  log.SetFileMaxCount(7);
  log.MaxSize(1);
  load("[LOGGER]\nPATH=" + std::string(logs.c_str()) + "\n");
  EXPECT_TRUE(writes(16)) << "all levels";
  logs.write("t.log", "");
  std::filesystem::resize_file(logs.file("t.log"), (16U << 20) - 1000);
  log.open("t", filelog::fixed_size, true);
  log.write_log(1, "m");
  EXPECT_FALSE(logs.has("t.log.1")) << "less than 16 MiB";
  log.write_log(1, "%s", std::string(1000, 'x').c_str());
  EXPECT_TRUE(logs.has("t.log.1")) << "16 MiB";
  log.close();
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(logs.has("t.log.2")) << "numbered backups";
}

TEST_F(Flogger, AbsentPathMeansTheRootDirectory) {
  log.Path(logs.c_str(), 0);
  load("[LOGGER]\nMASK=4\n");
  // A name that leads from the root into the folder: nothing is really written to the root.
  const std::string name = logs.file("t").substr(1);
  EXPECT_TRUE(log.open(name.c_str(), filelog::fixed_size, false));
  EXPECT_THAT(logs.names(), ElementsAre("t.log")) << "neither the old directory nor the current one is used";
}

TEST_F(Flogger, EmptyFileCountsAsLoaded) {
  log.Flag(0);
  load("");
  EXPECT_TRUE(writes(1));
}

TEST_F(Flogger, UnreadableFileChangesNothing) {
  log.Flag(2);
  log.loadcfg(config.file("missing.ini").c_str());
  EXPECT_FALSE(writes(1));
  log.loadcfg(config.c_str());  // a directory
  EXPECT_FALSE(writes(1));
  log.loadcfg("");
  EXPECT_FALSE(writes(1));
  EXPECT_TRUE(writes(2));
}

// A pipe would block its reader, a device might never end.
TEST_F(Flogger, WhatIsNoRegularFileIsNotRead) {
  log.Flag(2);
  ASSERT_EQ(::mkfifo(config.file("pipe").c_str(), 0600), 0);
  log.loadcfg(config.file("pipe").c_str());
  log.loadcfg("/dev/zero");
  EXPECT_FALSE(writes(1));
}

TEST_F(Flogger, HugeFileIsNotRead) {
  log.Flag(2);
  config.write("huge.ini", "[LOGGER]\nMASK=1\n");
  std::filesystem::resize_file(config.file("huge.ini"), 1UL << 32);
  log.loadcfg(config.file("huge.ini").c_str());
  EXPECT_FALSE(writes(1));
}

TEST_F(Flogger, NumbersThatAreNoneKeepTheirDefaults) {
  load("[LOGGER]\nMASK=many\nMAXSIZE=\nFILE_MAX_COUNT=x\nPATH=" + std::string(logs.c_str()) + "\n");
  EXPECT_TRUE(writes(1));
  log.open("t", filelog::fixed_size, false);
  log.close();
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(logs.has("t.log.1"));
}

TEST_F(Flogger, FileMaxCountUsesItsLowSixteenBits) {
  load("[LOGGER]\nFILE_MAX_COUNT=65537\nPATH=" + std::string(logs.c_str()) + "\n");
  logs.write("t.log", "old");
  log.open("t", filelog::fixed_size, false);
  EXPECT_TRUE(logs.has("t.log.1")) << "65537 is 1";
}

TEST_F(Flogger, RepeatedKeysTakeTheFirst) {
  load("[LOGGER]\nMASK=2\nMASK=1\n");
  EXPECT_FALSE(writes(1));
  EXPECT_TRUE(writes(2));
}

TEST_F(Flogger, ValuesMayStandOnLinesOfTheirOwn) {
  load("[LOGGER]\nPATH=<<<END\n" + std::string(logs.c_str()) + "\nEND\nMASK=2\n");
  EXPECT_FALSE(writes(1));
  EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
  EXPECT_THAT(logs.names(), ElementsAre("t.log"));
}

TEST_F(Flogger, ValuesCanBeSetWithoutAFile) {
  log.loadcfg(logs.c_str(), 4, 1, 0);
  EXPECT_FALSE(writes(1));
  log.open("t", filelog::fixed_size, false);
  log.write_log(4, "m");
  EXPECT_THAT(logs.names(), ElementsAre("t.log", "t.log.1")) << "a maximum of one byte";
}

TEST_F(Flogger, NullDirectoryIsReportedAndChangesNothing) {
  log.loadcfg(logs.c_str(), 4, 1000000, 0);
  testing::internal::CaptureStderr();
  log.loadcfg(nullptr, ~0UL, 1, 5);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("directory"));
  EXPECT_FALSE(writes(1));
  log.open("t", filelog::fixed_size, false);
  log.write_log(4, "m");
  EXPECT_THAT(logs.names(), ElementsAre("t.log"));
}

// What a program leaves in its file that ends while four of its threads log.
class EndOfTheProcess : public testing::Test {
 protected:
  // The messages without the threads'. The last batch of a thread that the end stops may be cut off; all before it is
  // whole.
  std::vector<std::string> messagesOfAnEnd(const std::string& how) const {
    const std::string command = std::string(MIRN_EXIT_PROBE) + " " + logs.c_str() + " " + how + " >/dev/null";
    const int status = std::system(command.c_str());  // NOLINT(cert-env33-c): the test's own program
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::vector<std::string> lines = logs.lines("exit.log");
    EXPECT_GT(lines.size(), 400U);
    std::vector<std::string> messages;
    for (size_t n = 0; n < lines.size(); ++n) {
      if (n + 1 < lines.size()) {
        EXPECT_EQ(lines[n].front(), '[') << lines[n];
      }
      if (messageOf(lines[n]).rfind("thread ", 0) != 0) {
        messages.push_back(messageOf(lines[n]));
      }
    }
    return messages;
  }

  LogFolder logs;
};

TEST_F(EndOfTheProcess, LosesNoLineOfAStaticDestructor) {
  std::vector<std::string> expected;
  expected.reserve(101);
  for (int i = 0; i < 100; ++i) {
    expected.push_back("static destructor " + std::to_string(i));
  }
  expected.emplace_back("the very last line");
  for (int i = 0; i < 5; ++i) {
    std::vector<std::string> messages = messagesOfAnEnd("return");
    if (messages.size() > expected.size()) messages.resize(expected.size());  // a thread's line, cut off
    ASSERT_EQ(messages, expected);
  }
}

TEST_F(EndOfTheProcess, LosesNoErrorLine) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_THAT(messagesOfAnEnd("at-once"), testing::Contains("the last error"));
  }
}

// It has a copy of the buffers and of a lock that may be held.
TEST_F(EndOfTheProcess, AForkedChildWritesNothingOfItsParents) {
  flogger::GetInitance().loadcfg(logs.c_str(), ~0UL, 1UL << 30, 0);
  ASSERT_TRUE(flogger::GetInitance().open("fork", filelog::fixed_size, false));
  std::atomic<bool> done{false};
  std::atomic<int> written{0};
  std::thread writer([&] {
    while (!done) {
      flogger::GetInitance().write_log(1, "line %d", written++);
      std::this_thread::yield();
    }
  });
  while (written == 0) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 5; ++i) {
    const pid_t child = ::fork();
    if (child == 0) {
      std::exit(0);  // NOLINT(concurrency-mt-unsafe): what is tested
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  done = true;
  writer.join();
  flogger::GetInitance().close();
  const std::vector<std::string> lines = logs.lines("fork.log");
  ASSERT_EQ(lines.size(), static_cast<size_t>(written));
  for (size_t n = 0; n < lines.size(); ++n) {
    ASSERT_EQ(messageOf(lines[n]), "line " + std::to_string(n));
  }
}

}  // namespace
}  // namespace mirn
