#include "virtual/virtual_clock.h"

namespace mirn {

void VirtualClock::sleepFor(Duration duration) {
  if (duration <= Duration::zero()) {
    return;
  }
  waits_.fetch_add(1, std::memory_order_relaxed);
  const Duration start = now();
  advanceTo(duration < Duration::max() - start ? start + duration : Duration::max());
}

void VirtualClock::waitUntil(std::condition_variable_any& /*condition*/, Mutex& /*mutex*/, Duration deadline) {
  waits_.fetch_add(1, std::memory_order_relaxed);
  advanceTo(deadline);
}

void VirtualClock::advanceTo(Duration time) {
  int64_t seen = now_.load(std::memory_order_acquire);
  while (seen < time.count() && !now_.compare_exchange_weak(seen, time.count(), std::memory_order_acq_rel)) {
  }
}

}  // namespace mirn
