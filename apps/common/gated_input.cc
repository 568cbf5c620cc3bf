#include "apps/common/gated_input.h"

#include <string_view>
#include <utility>

#include "apps/common/held_keys.h"

namespace mirn {

GatedInput::GatedInput(InputSink& target, std::function<bool()> allowed, std::function<void()> sent,
                       std::function<bool()> elsewhere)
    : target_(target), allowed_(std::move(allowed)), sent_(std::move(sent)), elsewhere_(std::move(elsewhere)) {}

bool GatedInput::pass(Kind kind) {
  bool allowed = allowed_();
  if (allowed) {
    sent_();
    if (kind != Kind::kMove) {
      passed_ = std::chrono::steady_clock::now();
    }
  }
  return allowed;
}

bool GatedInput::passedWithin(std::chrono::milliseconds time) const {
  return passed_ && std::chrono::steady_clock::now() - *passed_ < time;
}

void GatedInput::keyDown(int virtual_key) {
  if (pass()) {
    pressed_ = true;
    target_.keyDown(virtual_key);
  }
}

void GatedInput::keyUp(int virtual_key) {
  if (pass()) {
    target_.keyUp(virtual_key);
  }
}

void GatedInput::mouseMove(int x, int y) {
  if (pass(Kind::kMove)) {
    target_.mouseMove(x, y);
  }
}

void GatedInput::mouseButton(const char* type, int x, int y) {
  if (pass()) {
    pressed_ = pressed_ || std::string_view(type).ends_with("down");
    target_.mouseButton(type, x, y);
  }
}

void GatedInput::mouseWheel(int x, int y, int delta) {
  if (pass()) {
    target_.mouseWheel(x, y, delta);
  }
}

void GatedInput::releaseEverything(int x, int y) {
  owed_ = elsewhere_();
  if (!owed_) {
    releaseEverythingOn(target_, x, y);
  } else if (pressed_) {
    target_.keyUp(0);
  }
  pressed_ = false;
}

void GatedInput::gateChanged(int x, int y) {
  if (pressed_ || owed_ || elsewhere_()) {
    releaseEverything(x, y);
  }
}

}  // namespace mirn
