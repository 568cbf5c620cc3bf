#include "apps/mirnctl/answer_wait.h"

#include "apps/common/pointer_rest.h"
#include "host/main_loop.h"

namespace mirn {

AnsweredInput::AnsweredInput(Session& session) : session_(session) {
  // What connecting has sent (the releases) is answered first, so that counting starts from rest.
  constexpr std::chrono::milliseconds kRelease{2000};
  runLoopUntil([&] { return session_.releasesAnswered(); }, kRelease);
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

void AnsweredInput::keyDown(int virtual_key) {
  ++expected_;
  session_.input().keyDown(virtual_key);
}

void AnsweredInput::keyUp(int virtual_key) {
  ++expected_;
  session_.input().keyUp(virtual_key);
}

void AnsweredInput::mouseMove(int x, int y) {
  if (++moves_ % PointerRest::kMovesToBeSure == 0) {
    ++expected_;
  }
  session_.input().mouseMove(x, y);
}

void AnsweredInput::mouseButton(const char* type, int x, int y) {
  ++expected_;
  session_.input().mouseButton(type, x, y);
}

void AnsweredInput::mouseWheel(int x, int y, int delta) {
  ++expected_;
  session_.input().mouseWheel(x, y, delta);
}

void AnsweredInput::letGo() {
  constexpr std::chrono::milliseconds kRelease{1000};
  keyUp(0);
  wait(kRelease);
}

bool AnsweredInput::wait(std::chrono::milliseconds limit) {
  bool all = runLoopUntil([&] { return answered() - first_answered_ >= expected_; }, limit);
  return all && refused() == first_refused_;
}

}  // namespace mirn
