#include "apps/common/held_keys.h"

#include <algorithm>

#include "apps/common/key_position.h"

namespace mirn {
namespace {

// Pressing one of these makes the proxy forget every held modifier.
constexpr int kDelete = 46;
constexpr int kKeypadDecimal = 110;

}  // namespace

bool HeldKeys::holds(int virtual_key) const {
  return std::any_of(held_.begin(), held_.end(), [&](const auto& entry) { return entry.second == virtual_key; });
}

void HeldKeys::press(unsigned hardware_code, int virtual_key) {
  if (held_.count(hardware_code) != 0) {
    return;
  }
  // Two positions can share one code (the two Enter keys): the target hears the first press and the last release.
  bool already = holds(virtual_key);
  held_[hardware_code] = virtual_key;
  if (already) {
    return;
  }
  sink_.keyDown(virtual_key);
  if (isModifierKey(virtual_key)) {
    modifiers_.push_back(virtual_key);
  } else if (virtual_key == kDelete || virtual_key == kKeypadDecimal) {
    // The fingers are still on the modifiers: hold them again, or the next key would arrive without them.
    for (int modifier : modifiers_) {
      sink_.keyDown(modifier);
    }
  }
}

void HeldKeys::release(unsigned hardware_code) {
  auto entry = held_.find(hardware_code);
  if (entry == held_.end()) {
    return;
  }
  int virtual_key = entry->second;
  held_.erase(entry);
  if (holds(virtual_key)) {
    return;
  }
  std::erase(modifiers_, virtual_key);
  sink_.keyUp(virtual_key);
}

void HeldKeys::forget() {
  held_.clear();
  modifiers_.clear();
}

void releaseEverythingOn(InputSink& sink, int x, int y) {
  sink.keyUp(0);
  sink.mouseButton("lbup", x, y);
  sink.mouseButton("rbup", x, y);
  sink.mouseButton("mbup", x, y);
}

}  // namespace mirn
