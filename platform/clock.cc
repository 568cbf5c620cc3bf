#include "platform/clock.h"

#include <atomic>
#include <thread>

namespace mirn {
namespace {

class RealClock final : public Clock {
 public:
  Duration now() override { return std::chrono::steady_clock::now().time_since_epoch(); }

  void sleepFor(Duration duration) override { std::this_thread::sleep_for(duration); }

  void waitUntil(std::condition_variable_any& condition, Mutex& mutex, Duration deadline) override
      MIRN_REQUIRES(mutex) {
    condition.wait_until(mutex, std::chrono::steady_clock::time_point(deadline));
  }
};

std::atomic<Clock*> g_clock{nullptr};

}  // namespace

Clock& realClock() {
  // Never destroyed: threads may still read it while the process ends.
  static RealClock* const real = new RealClock;
  return *real;
}

Clock& clock() {
  Clock* const installed = g_clock.load(std::memory_order_acquire);
  return installed != nullptr ? *installed : realClock();
}

void setClock(Clock* replacement) {
  g_clock.store(replacement, std::memory_order_release);
}

}  // namespace mirn
