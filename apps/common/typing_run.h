// Plays a typing plan at the pace of the device: never more key events in flight than a few unanswered ones.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "apps/common/input_sink.h"
#include "apps/common/text_typing.h"

namespace mirn {

// Bound to the main thread. The text itself is never logged.
class TypingRun {
 public:
  using Time = std::chrono::steady_clock::time_point;

  enum class State { kTyping, kDone, kCancelled, kFailed };

  // Key events that may be unanswered at a time. A boot keyboard is polled some hundred times a second, so a longer
  // queue would only delay a cancel.
  static constexpr uint64_t kInFlight = 8;
  // The device answers a key event within 200 ms or not at all; several may wait behind each other.
  static constexpr std::chrono::seconds kPatience{5};

  // `answered` is the number of key events answered (taken or refused) so far, `refused` those that failed.
  TypingRun(TypingPlan plan, InputSink& sink, uint64_t answered, uint64_t refused);

  // Sends as much as may be sent. Call again when answers came in, at the latest after some milliseconds.
  State advance(uint64_t answered, uint64_t refused, Time now);
  // Stops at once and releases all keys.
  void cancel();
  // Somebody else let all keys go, so the plan's Shift isn't held any more: what came next would be typed wrong.
  void interrupt();

  State state() const { return state_; }
  size_t charactersDone() const { return plan_.charactersDone(static_cast<size_t>(confirmed_)); }
  size_t characters() const { return plan_.characters(); }
  // Why it failed, one line.
  const std::string& failure() const { return failure_; }

 private:
  State fail(const std::string& why);

  TypingPlan plan_;
  InputSink& sink_;
  uint64_t first_answered_;
  uint64_t first_refused_;
  uint64_t sent_ = 0;
  uint64_t confirmed_ = 0;
  Time last_progress_{};
  bool started_ = false;
  State state_ = State::kTyping;
  std::string failure_;
};

}  // namespace mirn
