// Monotonic time that tests can replace: a ten-second time-out costs nothing on a virtual clock.
#pragma once

#include <chrono>
#include <condition_variable>

#include "deps/pellum/thread_annotations.h"

namespace mirn {

// Thread-safe.
class Clock {
 public:
  using Duration = std::chrono::nanoseconds;

  virtual ~Clock() = default;

  // Never goes back. The start is arbitrary.
  virtual Duration now() = 0;

  // Returns at once when `duration` is not positive.
  virtual void sleepFor(Duration duration) = 0;

  // Gives `mutex` up until `condition` is notified or the time is `deadline`, then takes it again. May return early,
  // as any wait for a condition; the caller looks at its condition and at now(). A virtual clock does not wait: it
  // moves its time to the deadline.
  virtual void waitUntil(std::condition_variable_any& condition, Mutex& mutex, Duration deadline)
      MIRN_REQUIRES(mutex) = 0;
};

// The clock in use, the real one by default.
Clock& clock();

// `replacement` must live until it is replaced; null brings the real clock back. Install it before the threads that use
// it start.
void setClock(Clock* replacement);

// The steady clock of the machine. Lives as long as the process.
Clock& realClock();

}  // namespace mirn
