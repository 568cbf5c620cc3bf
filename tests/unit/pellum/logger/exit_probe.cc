// Logs from detached threads while main returns and static objects are destroyed, and from a static destructor after
// that. The logger outlives all of it, so the program ends with status 0 and its last line is in the file.
#include <atomic>
#include <thread>

#include "deps/pellum/logger/flogger.h"

namespace {

struct LastWords {
  // Asks for the logger before its own file has initialised it.
  LastWords() { mirn::flogger::GetInitance().enable(true); }
  ~LastWords() {
    for (int i = 0; i < 1000; ++i) {
      mirn::flogger::GetInitance().write_log(1, "static destructor %d", i);
    }
  }
};
LastWords g_last_words;  // NOLINT(cert-err58-cpp)

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    return 2;
  }
  mirn::flogger& logger = mirn::flogger::GetInitance();
  logger.loadcfg(argv[1], ~0UL, 1UL << 30, 0);
  if (!logger.open("exit", mirn::filelog::fixed_size, false)) {
    return 3;
  }
  static std::atomic<int> running{0};
  for (int t = 0; t < 4; ++t) {
    std::thread([t] {
      for (int i = 0;; ++i) {
        mirn::flogger::GetInitance().write_log(8, "thread %d line %d", t, i);
        if (i == 100) {
          ++running;
        }
      }
    }).detach();
  }
  while (running != 4) {
    std::this_thread::yield();
  }
  return 0;
}
