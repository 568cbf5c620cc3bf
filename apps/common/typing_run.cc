#include "apps/common/typing_run.h"

#include <algorithm>
#include <utility>

namespace mirn {

TypingRun::TypingRun(TypingPlan plan, InputSink& sink, uint64_t answered, uint64_t refused)
    : plan_(std::move(plan)), sink_(sink), first_answered_(answered), first_refused_(refused) {}

TypingRun::State TypingRun::fail(const std::string& why) {
  sink_.keyUp(0);
  failure_ = why + "; typing stopped after " + std::to_string(charactersDone()) + " of " +
             std::to_string(characters()) + " characters.";
  state_ = State::kFailed;
  return state_;
}

TypingRun::State TypingRun::advance(uint64_t answered, uint64_t refused, Time now) {
  if (state_ != State::kTyping) {
    return state_;
  }
  // A step that the proxy finds superfluous (no free slot) is never answered; sending on keeps the count from below.
  uint64_t confirmed = std::min(answered - first_answered_, sent_);
  if (!started_ || confirmed != confirmed_) {
    last_progress_ = now;
    started_ = true;
  }
  confirmed_ = confirmed;
  if (refused > first_refused_) {
    return fail("The device refused a key press or didn't answer");
  }
  while (sent_ < plan_.steps.size() && sent_ - confirmed_ < kInFlight) {
    const KeyStep& step = plan_.steps[static_cast<size_t>(sent_)];
    step.down ? sink_.keyDown(step.virtual_key) : sink_.keyUp(step.virtual_key);
    ++sent_;
  }
  if (confirmed_ == plan_.steps.size()) {
    state_ = State::kDone;
  } else if (now - last_progress_ > kPatience) {
    return fail("The device stopped answering");
  }
  return state_;
}

void TypingRun::cancel() {
  if (state_ == State::kTyping) {
    sink_.keyUp(0);
    state_ = State::kCancelled;
  }
}

void TypingRun::interrupt() {
  if (state_ == State::kTyping) {
    fail("All keys were let go in the middle");
  }
}

}  // namespace mirn
