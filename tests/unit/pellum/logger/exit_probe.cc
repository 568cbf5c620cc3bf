// Logs from detached threads while the process ends in one of two ways: by returning from main, with static destructors
// that log before and after the logger's own end, or at once, right behind an error line.
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>

#include "deps/pellum/logger/flogger.h"

namespace {

mirn::flogger& logger() {
  return mirn::flogger::GetInitance();
}

bool g_returned = false;

// Made before the logger and so destroyed after its end.
struct VeryLastWords {
  VeryLastWords() = default;
  VeryLastWords(const VeryLastWords&) = delete;
  VeryLastWords& operator=(const VeryLastWords&) = delete;
  ~VeryLastWords() {
    if (g_returned) logger().write_log(1, "the very last line");
  }
};
__attribute__((init_priority(101))) VeryLastWords g_very_last_words;

struct LastWords {
  // Asks for the logger before its own file has initialised it.
  LastWords() { logger().enable(true); }
  LastWords(const LastWords&) = delete;
  LastWords& operator=(const LastWords&) = delete;
  ~LastWords() {
    for (int i = 0; g_returned && i < 100; ++i) {
      logger().write_log(1, "static destructor %d", i);
    }
  }
};
LastWords g_last_words;  // NOLINT(cert-err58-cpp)

// Long lines keep the thread that writes busy, so that others leave theirs to it. There is an end to them: a sanitizer
// lets the threads run on for a second.
void startThreads() {
  static std::atomic<int> running{0};
  static const std::string& tail = *new std::string(200, '.');
  for (int t = 0; t < 4; ++t) {
    std::thread([t] {
      for (int i = 0; i < 5000; ++i) {
        logger().write_log(8, "thread %d line %d %s", t, i, tail.c_str());
        if (i == 100) {
          ++running;
        }
      }
    }).detach();
  }
  while (running != 4) {
    std::this_thread::yield();
  }
}

}  // namespace

// FOLDER return|at-once
int main(int argc, char** argv) {
  if (argc < 3) {
    return 2;
  }
  logger().loadcfg(argv[1], ~0UL, 1UL << 30, 0);
  if (!logger().open("exit", mirn::filelog::fixed_size, false)) {
    return 3;
  }
  startThreads();
  if (std::strcmp(argv[2], "at-once") == 0) {
    logger().write_log(mirn::kLogError, "the last error");
    ::_exit(0);
  }
  g_returned = true;
  return 0;
}
