// Many threads into rotated files: every line exactly once, whole, in its thread's order, and in a file when its
// callers have returned.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/logger/filelog.h"
#include "tests/unit/pellum/logger/log_folder.h"

namespace mirn {
namespace {

constexpr int kThreads = 8;

int linesPerThread() {
  if (const char* wanted = std::getenv("MIRN_LOG_SOAK_LINES")) {
    return std::atoi(wanted);
  }
#ifdef MIRN_SANITIZED
  return 5000;
#else
  return 100000;
#endif
}

std::string payload(int thread, int number) {
  return "thread " + std::to_string(thread) + " line " + std::to_string(number) + " " +
         std::string(static_cast<size_t>((thread * 7 + number) % 40), 'p') + "|";
}

void logFromAllThreads(filelog& log, int lines) {
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t, lines] {
      for (int i = 0; i < lines; ++i) {
        ASSERT_EQ(log.write_log(1 << (i % 4), "%s", payload(t, i).c_str()), 1);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// Files in the order in which they were written: D/N.log.1, .2, ..., D/N.log.
std::vector<std::string> filesInOrder(const LogFolder& folder) {
  std::vector<std::string> files;
  for (int n = 1; folder.has("t.log." + std::to_string(n)); ++n) {
    files.push_back("t.log." + std::to_string(n));
  }
  files.emplace_back("t.log");
  EXPECT_EQ(files.size(), folder.names().size());
  return files;
}

TEST(FilelogSoak, EveryLineIsFoundExactlyOnceAndWhole) {
  const int lines = linesPerThread();
  const LogFolder folder;
  filelog log;
  log.Path(folder.c_str(), 0);
  log.MaxSize(1 << 20);
  ASSERT_TRUE(log.open("t", filelog::fixed_size, false));
  logFromAllThreads(log, lines);
  // Not closed: all callers have returned, so everything is in the files.
  std::vector<int> next(kThreads, 0);
  size_t found = 0;
  for (const std::string& name : filesInOrder(folder)) {
    std::ifstream file(folder.file(name));
    for (std::string line; std::getline(file, line); ++found) {
      const std::string message = messageOf(line);
      int thread = -1;
      ASSERT_EQ(std::sscanf(message.c_str(), "thread %d", &thread), 1) << name << ": " << line;
      ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
      int& number = next[static_cast<size_t>(thread)];
      ASSERT_EQ(message, payload(thread, number)) << "in " << name;
      ASSERT_EQ(line.front(), '[');
      ++number;
    }
  }
  EXPECT_EQ(found, static_cast<size_t>(kThreads) * static_cast<size_t>(lines));
  EXPECT_EQ(next, std::vector<int>(kThreads, lines));
  EXPECT_GT(folder.names().size(), 1U) << "it was rotated";
}

TEST(FilelogSoak, HourlyFileHoldsEveryLine) {
  const int lines = linesPerThread() / 20;
  const LogFolder folder;
  filelog log;
  log.Path(folder.c_str(), 0);
  ASSERT_TRUE(log.open("h", filelog::by_hour, false));
  logFromAllThreads(log, lines);
  std::map<std::string, int> count;
  for (const std::string& name : folder.names()) {
    for (const std::string& line : folder.lines(name)) {
      ++count[messageOf(line)];
    }
  }
  EXPECT_EQ(count.size(), static_cast<size_t>(kThreads) * static_cast<size_t>(lines));
  for (const auto& [message, times] : count) {
    ASSERT_EQ(times, 1) << message;
  }
}

// Whatever the settings do meanwhile: no crash, no hang, and the sanitizers find nothing.
TEST(FilelogSoak, SettingsMayChangeWhileOthersLog) {
  const LogFolder folder;
  filelog log;
  log.Path(folder.c_str(), 0);
  log.open("t", filelog::fixed_size, false);
  std::atomic<bool> done{false};
  std::thread changer([&] {
    for (unsigned i = 0; !done; ++i) {
      log.MaxSize(i % 3 == 0 ? 4096 : 1 << 20);
      log.Split(i % 2 == 0 ? '\t' : '|');
      log.Flag(i % 5 == 0 ? 1 : ~0UL);
      log.SetFileMaxCount(static_cast<unsigned short>(i % 4));
      log.enable(i % 7 != 0);
      if (i % 11 == 0) {
        log.close();
        log.Path(folder.c_str(), i % 3);
        log.open("t", i % 2 == 0 ? filelog::fixed_size : filelog::by_hour, i % 4 == 0);
      }
    }
  });
  CapturedOutput output;  // while the file is closed, lines go there
  logFromAllThreads(log, linesPerThread() / 50);
  done = true;
  changer.join();
  output.text();
  EXPECT_TRUE(log.close());
  log.enable(true);
  log.Flag(~0UL);
  log.MaxSize(1 << 20);
  ASSERT_TRUE(log.open("last", filelog::fixed_size, false));
  EXPECT_EQ(log.write_log(1, "still works"), 1);
  EXPECT_EQ(messageOf(folder.lines("last.log").at(0)).find("still works"),
            messageOf(folder.lines("last.log").at(0)).size() - 11);
}

// Standard output is a pipe for as long as it lives. One use.
class PipedOutput {
 public:
  PipedOutput() {
    EXPECT_EQ(::pipe(ends_), 0);
    std::fflush(stdout);
    real_ = ::dup(STDOUT_FILENO);
    ::dup2(ends_[1], STDOUT_FILENO);
    ::close(ends_[1]);
  }
  ~PipedOutput() { ::close(ends_[0]); }
  PipedOutput(const PipedOutput&) = delete;
  PipedOutput& operator=(const PipedOutput&) = delete;

  int reader() const { return ends_[0]; }
  // The reader finds the end.
  void end() const {
    std::fflush(stdout);
    ::dup2(real_, STDOUT_FILENO);
    ::close(real_);
  }

 private:
  int ends_[2] = {-1, -1};
  int real_ = -1;
};

// A thread that logs one line, of so many bytes with its head and its end.
struct LineThread {
  std::atomic<pid_t> id{0};
  std::atomic<bool> returned{false};
  std::thread thread;

  LineThread(filelog& log, size_t bytes)
      : thread([this, &log, bytes] {
          const auto own_id = static_cast<pid_t>(::syscall(SYS_gettid));
          const std::string frame =
              "[" + std::to_string(own_id) + "]\t2026-11-15 23:57:01.123\t- Info  -\t\n";  // all but the message
          const std::string message(bytes - frame.size(), 'x');
          id = own_id;
          log.write_log(1, "%s", message.c_str());
          returned = true;
        }) {}

  // Until it has returned or waits: the state behind the name in its stat file is S.
  void settle() const {
    while (!returned) {
      std::ifstream file("/proc/self/task/" + std::to_string(id) + "/stat");
      std::string stat;
      std::getline(file, stat);  // a thread that ends meanwhile is a failed read, which must not throw
      const size_t name_end = stat.rfind(") ");
      if (id != 0 && name_end != std::string::npos && stat[name_end + 2] == 'S') {
        return;
      }
      std::this_thread::yield();
    }
  }
};

TEST(FilelogSoak, WhileTheOutputStandsStillLessThanOneMiBIsKept) {
  constexpr size_t kMiB = 1 << 20;
  constexpr size_t kLine = 8192;    // with its head and its end: a whole number of them would make one MiB
  constexpr size_t kCallers = 140;  // more than fit, one line each
  const PipedOutput output;
  const int pipe_bytes = ::fcntl(output.reader(), F_GETPIPE_SZ);
  ASSERT_GT(pipe_bytes, 0);
  const std::string filler(static_cast<size_t>(pipe_bytes), '#');
  ASSERT_EQ(::write(STDOUT_FILENO, filler.data(), filler.size()), static_cast<ssize_t>(filler.size()));
  std::string text;
  {
    filelog log;
    // The first one gets stuck with its own line; what the others add waits in the second buffer.
    std::vector<std::unique_ptr<LineThread>> callers;
    for (size_t i = 0; i < kCallers; ++i) {
      callers.push_back(std::make_unique<LineThread>(log, kLine));
      callers.back()->settle();
    }
    for (const auto& caller : callers) {
      caller->settle();  // once more: asleep in the log, not on the way to it
    }
    std::thread reader([&] {
      char bytes[4096];
      for (ssize_t n = 0; (n = ::read(output.reader(), bytes, sizeof bytes)) > 0;) {
        text.append(bytes, static_cast<size_t>(n));
      }
    });
    for (const auto& caller : callers) {
      caller->thread.join();
    }
    output.end();
    reader.join();
  }
  const size_t first_line = text.find('\n', filler.size()) + 1;
  const size_t kept = text.size() - first_line;
  EXPECT_EQ(kept, kMiB - kLine) << "no more is dropped than must be, and one MiB is too much";
}

// A slow reader of standard output makes the callers wait, it doesn't cost them lines.
TEST(FilelogSoak, SlowOutputSlowsCallersDownInsteadOfDroppingLines) {
  const PipedOutput output;
  const int lines = linesPerThread() / 20;
  size_t read_lines = 0;
  std::thread reader([&] {
    char bytes[4096];
    for (ssize_t n = 0; (n = ::read(output.reader(), bytes, sizeof bytes)) > 0;) {
      read_lines += static_cast<size_t>(std::count(bytes, bytes + n, '\n'));
      for (int i = 0; i < 20; ++i) {
        std::this_thread::yield();
      }
    }
  });
  {
    filelog log;
    logFromAllThreads(log, lines);
  }
  output.end();
  reader.join();
  EXPECT_EQ(read_lines, static_cast<size_t>(kThreads) * static_cast<size_t>(lines));
}

// Writes lines beside threads that leave theirs to each other.
class AmongOthers : public testing::Test {
 protected:
  struct Log : filelog {
    using filelog::writeThrough;
  };

  AmongOthers() {
    log.Path(folder.c_str(), 0);
    log.MaxSize(1UL << 40);
    EXPECT_TRUE(log.open("t", filelog::fixed_size, false));
    for (int t = 0; t < 2; ++t) {
      others_.emplace_back([this] {
        while (!done_) {
          log.write_log(1, "noise");
        }
      });
    }
  }
  ~AmongOthers() override {
    done_ = true;
    for (std::thread& thread : others_) {
      thread.join();
    }
  }

  // Each of three threads calls `write` for its lines, which must be in the file when it returns.
  template <typename Write>
  void expectInTheFile(int lines, Write write) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < lines; ++i) {
          const auto before = std::filesystem::file_size(folder.file("t.log"));
          write(payload(t, i).c_str());
          EXPECT_NE(textFrom(before).find(payload(t, i)), std::string::npos) << payload(t, i);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }

  LogFolder folder;
  Log log;

 private:
  // As far as the file reaches now: it grows faster than it is read.
  std::string textFrom(uintmax_t begin) const {
    std::string text(std::filesystem::file_size(folder.file("t.log")) - begin, '\0');
    std::ifstream file(folder.file("t.log"), std::ios::binary);
    file.seekg(static_cast<std::streamoff>(begin));
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    return text;
  }

  std::atomic<bool> done_{false};
  std::vector<std::thread> others_;
};

TEST_F(AmongOthers, AnErrorLineIsInTheFileWhenItsCallReturns) {
  expectInTheFile(200, [this](const char* line) { log.write_log(kLogError, "%s", line); });
}

TEST_F(AmongOthers, AfterWritingThroughThatHoldsForEveryLine) {
  log.writeThrough();
  expectInTheFile(200, [this](const char* line) { log.write_log(kLogDebug, "%s", line); });
}

TEST_F(AmongOthers, WritingThroughWritesWhatWaits) {
  expectInTheFile(200, [this](const char* line) {
    log.write_log(kLogInfo, "%s", line);
    log.writeThrough();
  });
}

}  // namespace
}  // namespace mirn
