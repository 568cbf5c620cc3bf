// A clock on which waiting costs nothing.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/clock.h"

namespace mirn {

// Time stands still until somebody would wait: then it jumps to the end of that wait. Thread-safe: with several waiters
// time is the latest end of any wait so far, and it never goes back, so a wait in one thread may make another thread's
// deadline pass at once, just as a loaded machine would.
class VirtualClock : public Clock {
 public:
  explicit VirtualClock(Duration start = std::chrono::seconds(1)) : now_(start.count()) {}

  Duration now() override { return Duration(now_.load(std::memory_order_acquire)); }
  void sleepFor(Duration duration) override;
  void waitUntil(std::condition_variable_any& condition, Mutex& mutex, Duration deadline) override MIRN_REQUIRES(mutex);

  // By hand; a time that has passed changes nothing.
  void advanceTo(Duration time);

  // How often somebody would have waited, and for how long together.
  uint64_t waits() const { return waits_.load(std::memory_order_relaxed); }

 private:
  std::atomic<int64_t> now_;
  std::atomic<uint64_t> waits_{0};
};

// Installs a virtual clock for a scope.
class ScopedVirtualClock {
 public:
  ScopedVirtualClock() { setClock(&clock_); }
  ~ScopedVirtualClock() { setClock(nullptr); }
  ScopedVirtualClock(const ScopedVirtualClock&) = delete;
  ScopedVirtualClock& operator=(const ScopedVirtualClock&) = delete;

  VirtualClock& get() { return clock_; }

 private:
  VirtualClock clock_;
};

}  // namespace mirn
