#include "apps/mirnctl/answer_wait.h"

#include "apps/common/held_keys.h"
#include "apps/common/pointer_rest.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

// The device answers within 200 ms or not at all, and several events may wait behind each other.
constexpr std::chrono::milliseconds kPatience{5000};

}  // namespace

AnsweredInput::AnsweredInput(Session& session) : session_(session) {
  first_answered_ = answered();
  first_refused_ = refused();
}

uint64_t AnsweredInput::answered() const {
  HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardSent + link.keyboardFailed + link.mouseSent + link.mouseFailed;
}

uint64_t AnsweredInput::refused() const {
  HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardFailed + link.mouseFailed;
}

bool AnsweredInput::waitUntilUnanswered(uint64_t most, const std::function<bool()>& ended) {
  for (;;) {
    // In this order: a refusal among the answers seen is not overlooked.
    uint64_t seen = answered();
    if (ended()) {
      return false;
    }
    if (expected_ <= seen - first_answered_ + most) {
      return true;
    }
    if (!runLoopUntil([&] { return answered() != seen || ended(); }, kPatience)) {
      return false;
    }
  }
}

bool AnsweredInput::mayGoOn() {
  whole_ = whole_ && waitUntilUnanswered(kInFlight - 1, [this] { return ended(); });
  return whole_;
}

void AnsweredInput::keyDown(int virtual_key) {
  if (mayGoOn()) {
    ++expected_;
    session_.input().keyDown(virtual_key);
  }
}

void AnsweredInput::keyUp(int virtual_key) {
  if (mayGoOn()) {
    ++expected_;
    session_.input().keyUp(virtual_key);
  }
}

void AnsweredInput::mouseMove(int x, int y) {
  // A begun row of moves is sent to its end: the answer belongs to the last of them.
  if (moves_ == 0 && !mayGoOn()) {
    return;
  }
  place_ = {x, y};
  if (++moves_ == PointerRest::kMovesToBeSure) {
    moves_ = 0;
    ++expected_;
  }
  session_.input().mouseMove(x, y);
}

void AnsweredInput::mouseButton(const char* type, int x, int y) {
  if (mayGoOn()) {
    ++expected_;
    place_ = {x, y};
    session_.input().mouseButton(type, x, y);
  }
}

void AnsweredInput::mouseWheel(int x, int y, int delta) {
  if (mayGoOn()) {
    ++expected_;
    place_ = {x, y};
    session_.input().mouseWheel(x, y, delta);
  }
}

bool AnsweredInput::wait() {
  whole_ = whole_ && waitUntilUnanswered(0, [this] { return ended(); });
  return whole_ && refused() == first_refused_;
}

bool AnsweredInput::letGo() {
  auto never = [] { return false; };
  // What is on its way is played before the releases, whenever those are sent: wait, so as to tell the answers apart.
  waitUntilUnanswered(0, never);
  uint64_t refused_before = refused();
  uint64_t releases = 1;
  if (place_) {
    constexpr uint64_t kButtons = 3;
    releases += kButtons;
    releaseEverythingOn(session_.input(), place_->x, place_->y);
  } else {
    session_.input().keyUp(0);
  }
  expected_ += releases;
  return waitUntilUnanswered(0, never) && refused() == refused_before;
}

int AnsweredInput::failure(Report& report, const std::string& message, const Json& fields) {
  bool released = letGo();
  std::string left = released ? "" : "The device didn't confirm that everything is let go.";
  if (signal() != 0) {
    return report.stopped(signal(), released ? "Everything held was let go." : left, fields);
  }
  return report.failure(kExitDevice, message + (released ? "" : " " + left), fields);
}

}  // namespace mirn
