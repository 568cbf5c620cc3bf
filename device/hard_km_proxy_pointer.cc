// The pointer half: one record for each pointer event.
#include "device/hard_km_proxy.h"

namespace mirn {

int HardKMProxy::initMousePos(const std::vector<tagRECT>& monitors) {
  mapping_.setMonitors(monitors, monitor_index_);
  return 0;
}

int HardKMProxy::SetMouseMoveRelative(bool relative) {
  relative_mode_ = relative;
  return 0;
}

int HardKMProxy::SetRelativeOrigin(unsigned int speed, int x, int y) {
  if (speed != 0) mapping_.speed = speed;
  mapping_.setOrigin(x, y);
  return 0;
}

void HardKMProxy::SetMirnMouseMove(bool new_logic) {
  mirn_mouse_move_ = new_logic;
}

PointerPosition HardKMProxy::EventPosition(int x, int y) const {
  return Relative() ? mapping_.relative(x, y) : mapping_.absolute(x, y, monitor_index_);
}

int HardKMProxy::MouseMove(int x, int y, bool relative) {
  if (relative_mode_ != seen_relative_mode_) {
    seen_relative_mode_ = relative_mode_;
    if (relative_mode_) {
      if (mapping_.speed == 0) mapping_.setOrigin(x, y);
      // The first move after switching on sends the way back to the origin, wherever the pointer is: that is meant.
      x = 0;
      y = 0;
    }
  }
  last_move_relative_ = relative;
  if (relative) mapping_.origin_x = mapping_.origin_y = 0;

  PointerPosition position = EventPosition(x, y);
  if (relative_mode_ && mapping_.speed != 0) position = mapping_.scaled(position);
  return sendMouse({.type = kMouseMove, .x = position.x, .y = position.y, .left = left_state_, .right = right_state_});
}

// `args` has everything but the position.
int HardKMProxy::SendAt(int x, int y, mouse_args_type args) {
  const PointerPosition position = EventPosition(x, y);
  args.x = position.x;
  args.y = position.y;
  return sendMouse(args);
}

int HardKMProxy::MouseLButtonDown(int x, int y) {
  left_state_ = 1;
  return SendAt(x, y, {.type = kMouseLeftDown, .left = 1, .right = right_state_});
}

int HardKMProxy::MouseLButtonUp(int x, int y) {
  left_state_ = 0;
  return SendAt(x, y, {.type = kMouseLeftUp, .left = 0, .right = right_state_});
}

int HardKMProxy::MouseLButtonUp(void* /*event*/) {
  return 0;
}

int HardKMProxy::MouseRButtonDown(int x, int y) {
  right_state_ = 1;
  return SendAt(x, y, {.type = kMouseRightDown, .left = left_state_, .right = 1});
}

int HardKMProxy::MouseRButtonUp(int x, int y) {
  right_state_ = 0;
  return SendAt(x, y, {.type = kMouseRightUp, .left = left_state_, .right = 0});
}

// The middle button has no state: the next record shows it released. That is meant.
int HardKMProxy::MouseMButtonDown(int x, int y) {
  return SendAt(x, y, {.type = kMouseMiddleDown, .left = left_state_, .right = right_state_, .middle = 1});
}

int HardKMProxy::MouseMButtonUp(int x, int y) {
  return SendAt(x, y, {.type = kMouseMiddleUp, .left = left_state_, .right = right_state_});
}

int HardKMProxy::MouseWheelUp(int x, int y, int /*delta*/) {
  return SendAt(x, y, {.type = kMouseWheel, .left = left_state_, .right = right_state_, .wheel = -1});
}

int HardKMProxy::MouseWheelDown(int x, int y, int /*delta*/) {
  return SendAt(x, y, {.type = kMouseWheel, .left = left_state_, .right = right_state_, .wheel = 1});
}

int HardKMProxy::MouseX1ButtonDown(int x, int y) {
  x1_state_ = 1;
  return SendAt(x, y, {.type = kMouseX1Down, .left = 1, .right = right_state_});
}

int HardKMProxy::MouseX1ButtonUp(int /*x*/, int /*y*/) {
  x1_state_ = 0;
  return 1;
}

int HardKMProxy::MouseX2ButtonDown(int /*x*/, int /*y*/) {
  x2_state_ = 1;
  return 1;
}

int HardKMProxy::MouseX2ButtonUp(int /*x*/, int /*y*/) {
  x2_state_ = 0;
  return 1;
}

int HardKMProxy::GetMousePoint(int /*x*/, int /*y*/, void* /*point*/) {
  return 0;
}

}  // namespace mirn
