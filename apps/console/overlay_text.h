// The figures of the overlay, composed from statistics.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "plugin/mirn_host.h"

namespace mirn {

// What is known at one moment; the counters run since the start.
struct OverlayFigures {
  HostSessionStatistics session;
  uint64_t changed = 0;  // pictures that differed from the one before
  uint64_t drawn = 0;
  int shown_width = 0;
  int shown_height = 0;
  std::optional<std::chrono::nanoseconds> latency;  // of an input whose picture came since the call before
  std::chrono::steady_clock::time_point at{};
};

// Bound to the main thread. Rates are over the time between two calls.
class OverlayText {
 public:
  // Lines with size, format, rates, drops, latency.
  std::string compose(const OverlayFigures& now);

 private:
  std::chrono::steady_clock::time_point last_{};
  uint64_t captured_ = 0;
  uint64_t changed_ = 0;
  uint64_t drawn_ = 0;
  double latency_ms_ = -1;
};

}  // namespace mirn
