// How often a device that may not answer is asked.
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

namespace mirn {

// A device that doesn't answer its greeting holds the main thread for two seconds: each failure in a row makes the
// pause after it longer, so that window and menus stay usable. Bound to one thread.
class RetryPace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::array<std::chrono::seconds, 3> kPauses = {std::chrono::seconds{3}, std::chrono::seconds{10},
                                                                  std::chrono::seconds{30}};

  // The device may be asked now.
  bool due(Time now) const { return !next_ || now >= *next_; }
  // It was asked; the pause begins at `now`, when the answer was there or given up.
  void succeeded(Time now) {
    failures_ = 0;
    next_ = now + kPauses.front();
  }
  void failed(Time now) {
    next_ = now + kPauses.at(std::min(failures_, kPauses.size() - 1));
    ++failures_;
  }
  // Plugged in anew, or a person asks: at once, and with the shortest pause again.
  void reset() {
    failures_ = 0;
    next_.reset();
  }
  // Nobody has asked since the last reset.
  bool fresh() const { return !next_; }
  size_t failures() const { return failures_; }
  // From `now` to the next question, rounded up.
  std::chrono::seconds pause(Time now) const {
    return due(now) ? std::chrono::seconds{0} : std::chrono::ceil<std::chrono::seconds>(*next_ - now);
  }

 private:
  size_t failures_ = 0;
  std::optional<Time> next_;
};

}  // namespace mirn
