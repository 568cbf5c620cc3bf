#include "apps/common/channel_input.h"

namespace mirn {

void ChannelInput::keyDown(int virtual_key) {
  channel_.call("keyDown", {{"key", Value(int32_t{virtual_key})}});
}

void ChannelInput::keyUp(int virtual_key) {
  channel_.call("keyUp", {{"key", Value(int32_t{virtual_key})}});
}

void ChannelInput::pointerAt(int x, int y) {
  x_ = x;
  y_ = y;
}

void ChannelInput::mouseMove(int x, int y) {
  pointerAt(x, y);
  channel_.call("mouseMove", {{"x", Value(int32_t{x})}, {"y", Value(int32_t{y})}});
}

void ChannelInput::mouseButton(const char* type, int x, int y) {
  pointerAt(x, y);
  channel_.call("mouseEventButtons", {{"x", Value(int32_t{x})}, {"y", Value(int32_t{y})}, {"type", Value(type)}});
}

void ChannelInput::mouseWheel(int x, int y, int delta) {
  pointerAt(x, y);
  channel_.call("mouseWheel", {{"x", Value(int32_t{x})}, {"y", Value(int32_t{y})}, {"delta", Value(int32_t{delta})}});
}

}  // namespace mirn
