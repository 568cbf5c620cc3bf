// A clock on which no wait takes time, and which remembers the waits.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/clock.h"

namespace mirn {

// Thread-safe. Lives as long as the process: a deferred stop may sleep on it after its monitor is gone.
class QuickClock : public Clock {
 public:
  Duration now() override { return Duration(now_.load()); }
  void sleepFor(Duration duration) override {
    now_.fetch_add(duration.count());
    sleeps.fetch_add(1);
  }
  void waitUntil(std::condition_variable_any&, Mutex&, Duration deadline) override { now_.store(deadline.count()); }

  std::atomic<int> sleeps{0};

 private:
  std::atomic<int64_t> now_{0};
};

inline QuickClock& quickClock() {
  static QuickClock* const clock = new QuickClock;
  return *clock;
}

// In force for a scope.
class ScopedQuickClock {
 public:
  ScopedQuickClock() { setClock(&quickClock()); }
  ~ScopedQuickClock() { setClock(nullptr); }
  ScopedQuickClock(const ScopedQuickClock&) = delete;
  ScopedQuickClock& operator=(const ScopedQuickClock&) = delete;
};

}  // namespace mirn
