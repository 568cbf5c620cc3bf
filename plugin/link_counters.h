// How the device took what was queued, for hosts that want to show it.
#pragma once

#include <atomic>
#include <cstdint>

namespace mirn {

// Thread-safe.
struct OutcomeCounter {
  std::atomic<uint64_t> taken{0};
  std::atomic<uint64_t> failed{0};

  void count(int result) { (result == 0 ? taken : failed).fetch_add(1, std::memory_order_relaxed); }
};

struct LinkCounters {
  OutcomeCounter mouse;
  OutcomeCounter keyboard;
  OutcomeCounter firmware;
};

// Of the process; trivially destroyed, so sending threads may count until the very end.
inline LinkCounters& linkCounters() {
  static constinit LinkCounters counters;
  return counters;
}

}  // namespace mirn
