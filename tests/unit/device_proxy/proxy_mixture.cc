#include "tests/unit/device_proxy/proxy_mixture.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <span>
#include <utility>

namespace mirn {
namespace {

constexpr int kHeldAbsoluteMoves = 6;
constexpr int kHeldRelativeMoves = 1;
constexpr int kStep = 127;
constexpr unsigned kSeldomLong = 8;  // one relative position in so many is several steps away
constexpr unsigned kLongMove = 6 * kStep;

// The upper byte tells the kind, the others hold it.
enum : uint64_t { kMouse = 1, kKeyboard = 2, kRaw = 3, kGreeting = 4, kChunk = 5 };

uint64_t half(int value) {
  return static_cast<uint16_t>(value);
}

uint32_t digest(std::span<const uint8_t> bytes) {
  uint32_t sum = 2166136261;
  for (const uint8_t byte : bytes) sum = (sum ^ byte) * 16777619;
  return sum >> 8;
}

struct Code {
  uint64_t operator()(const VirtualMouse& mouse) const {
    return kMouse << 56 | uint64_t{mouse.relative} << 48 | half(mouse.x) << 32 | half(mouse.y) << 16 |
           uint64_t{mouse.left} << 8 | uint64_t{mouse.right} << 4 | uint64_t{mouse.middle} << 2 |
           static_cast<uint64_t>(mouse.wheel + 1);
  }
  uint64_t operator()(const VirtualRawMouse& mouse) const {
    return kRaw << 56 | half(mouse.x) << 32 | half(mouse.y) << 16 | uint64_t{mouse.buttons} << 4 |
           static_cast<uint64_t>(mouse.wheel + 1);
  }
  uint64_t operator()(const VirtualKeyboard& keyboard) const {
    uint64_t result = kKeyboard;
    for (const uint8_t key : keyboard.keys) result = result << 8 | key;
    return result << 8 | keyboard.modifiers;
  }
  uint64_t operator()(const VirtualFirmwareGreeting&) const { return kGreeting << 56; }
  uint64_t operator()(const VirtualFirmwareChunk& chunk) const {
    return kChunk << 56 | uint64_t{digest(chunk.data)} << 32 | uint64_t{chunk.id} << 16 | chunk.total;
  }
  template <typename Other>
  uint64_t operator()(const Other&) const {
    return 0;
  }
};

struct Modifier {
  int key;
  uint8_t bit;
};
constexpr std::array<Modifier, 4> kModifiers{{{0x11, 0x01}, {0x10, 0x02}, {0xA5, 0x40}, {0x5C, 0x80}}};

}  // namespace

uint64_t codeOf(const VirtualRecord& record) {
  return std::visit(Code{}, record);
}

bool comesFromTheQueue(const VirtualRecord& record) {
  return !std::holds_alternative<VirtualHandshake>(record) && !std::holds_alternative<VirtualGetInfo>(record) &&
         !std::holds_alternative<VirtualGetLed>(record) && !std::holds_alternative<VirtualSetLed>(record);
}

void Mixture::submitOne() {
  const unsigned which = random_() % 50;
  if (which < 12) return submitPointer(which);
  if (which < 19) return submitKeyboard(which - 12);
  if (which < 21) return submitFirmware(which == 19);
  if (which == 21) {
    mode_ = !mode_;
    proxy_.SetMouseMoveRelative(mode_);
  } else if (which == 22) {
    raw_ = !raw_;
    proxy_.SetMirnMouseMove(raw_);
  } else if (which < 25) {
    submitX(random_() % 4);
  } else {
    const bool relative_move = which < 30;
    const Point at = somewhere(relative_move || relative());
    move(relative_move ? Point{at.x, -at.y} : at, relative_move);
  }
}

// In relative mode near the corner, so that few moves are many steps.
Mixture::Point Mixture::somewhere(bool near) {
  const unsigned range = !near ? 32768 : random_() % kSeldomLong == 0 ? kLongMove : kStep;
  const auto x = static_cast<int>(random_() % range);
  return {x, static_cast<int>(random_() % range)};
}

void Mixture::submitPointer(unsigned which) {
  const Point at = somewhere(relative());
  switch (which) {
    case 0:
    case 1:
      left_ = 1;
      proxy_.MouseLButtonDown(at.x, at.y);
      return event(at, {.raw_buttons = 1});
    case 2:
    case 3:
      left_ = 0;
      proxy_.MouseLButtonUp(at.x, at.y);
      return event(at, {});
    case 4:
      right_ = 1;
      proxy_.MouseRButtonDown(at.x, at.y);
      return event(at, {.raw_buttons = 2});
    case 5:
      right_ = 0;
      proxy_.MouseRButtonUp(at.x, at.y);
      return event(at, {});
    case 6:
      proxy_.MouseMButtonDown(at.x, at.y);
      return event(at, {.middle = 1, .raw_buttons = 4});
    case 7:
      proxy_.MouseMButtonUp(at.x, at.y);
      return event(at, {});
    case 8:
    case 9:
      proxy_.MouseWheelUp(at.x, at.y, 1);
      return event(at, {.wheel = -1});
    default:
      proxy_.MouseWheelDown(at.x, at.y, 1);
      return event(at, {.wheel = 1});
  }
}

// Only X1's press sends anything; the others don't even let the held move go.
void Mixture::submitX(unsigned which) {
  const Point at = somewhere(relative());
  switch (which) {
    case 0:
      proxy_.MouseX1ButtonDown(at.x, at.y);
      return event(at, {.x1 = true});
    case 1:
      proxy_.MouseX1ButtonUp(at.x, at.y);
      return;
    case 2:
      proxy_.MouseX2ButtonDown(at.x, at.y);
      return;
    default:
      proxy_.MouseX2ButtonUp(at.x, at.y);
  }
}

void Mixture::submitKeyboard(unsigned which) {
  if (which < 4) {
    const int key = 'A' + static_cast<int>(random_() % 26);
    proxy_.KeyBoardDown(0, key);
    proxy_.KeyBoardUp(0, key);
    return pressAndRelease(static_cast<uint8_t>(key - 'A' + 4), modifiers_, modifiers_);
  }
  if (which < 6) {
    const Modifier& modifier = kModifiers[random_() % kModifiers.size()];
    const bool down = (modifiers_ & modifier.bit) == 0;
    modifiers_ = static_cast<uint8_t>(modifiers_ ^ modifier.bit);
    if (down) {
      proxy_.KeyBoardDown(0, modifier.key);
    } else {
      proxy_.KeyBoardUp(0, modifier.key);
    }
    return keys(0, modifiers_);
  }
  // Lower case and digits are not typed, and the held modifiers stay out of it.
  constexpr uint8_t kRightShift = 0x20;
  proxy_.TypeString(L"aQ 1!", 0);
  pressAndRelease(0x14, kRightShift, 0);
  pressAndRelease(0x2C, 0, 0);
  pressAndRelease(0x1E, kRightShift, 0);
}

// The greeting alone goes ahead of a held move.
void Mixture::submitFirmware(bool greeting) {
  if (greeting) {
    proxy_.ReqUpgradeFirmwareHandShake();
    next_chunk_ = 0;
    return add({codeOf(VirtualFirmwareGreeting{})}, kNewFirmwareHandshakeTask);
  }
  VirtualFirmwareChunk chunk{next_chunk_, kMixtureChunks, std::vector<uint8_t>(random_() % 1024 + 1)};
  next_chunk_ = static_cast<uint16_t>(1 - next_chunk_);
  for (uint8_t& byte : chunk.data) byte = static_cast<uint8_t>(random_());
  proxy_.UpgradeFirmware(chunk.id, chunk.total, chunk.data.data(), static_cast<uint16_t>(chunk.data.size()));
  chunk.data.resize(1024);  // zeros behind it
  flush();
  add({codeOf(chunk)}, kUpgradeTask);
}

void Mixture::move(Point at, bool relative_move) {
  proxy_.MouseMove(at.x, at.y, relative_move);
  if (mode_ != seen_mode_) {
    seen_mode_ = mode_;
    if (mode_) {
      origin_ = at;
      at = {};  // the way back to the origin
    }
  }
  last_relative_ = relative_move;
  if (relative_move) origin_ = {};
  std::vector<uint64_t> records = pointerCodes(at, {.raw_buttons = raw_buttons_});
  if (raw_ || ++held_ > (relative() ? kHeldRelativeMoves : kHeldAbsoluteMoves)) {
    held_ = 0;
    add(std::move(records), kMouseTask);
  } else {
    held_move_ = std::move(records);
  }
}

void Mixture::event(Point at, PointerEvent event) {
  flush();
  add(pointerCodes(at, event), kMouseTask);
}

std::vector<uint64_t> Mixture::pointerCodes(Point at, PointerEvent event) {
  if (raw_ && !relative()) {
    raw_buttons_ = event.raw_buttons;
    return {codeOf(
        VirtualRawMouse{event.raw_buttons, event.wheel, static_cast<int16_t>(at.x), static_cast<int16_t>(at.y)})};
  }
  const uint8_t left = event.x1 ? 1 : left_;
  VirtualMouse mouse{relative(), static_cast<int16_t>(at.x), static_cast<int16_t>(at.y), left, right_, event.middle,
                     event.wheel};
  if (!mouse.relative) return {codeOf(mouse)};
  // Whole steps first, each axis as long as it has one, then what is left, be it nothing. Each carries the buttons and
  // the wheel.
  std::vector<uint64_t> codes;
  Point rest{at.x - origin_.x, at.y - origin_.y};
  const auto takeStep = [](int* axis) {
    const int step = *axis >= kStep ? kStep : *axis <= -kStep ? -kStep : 0;
    *axis -= step;
    return static_cast<int16_t>(step);
  };
  while (std::max(std::abs(rest.x), std::abs(rest.y)) >= kStep) {
    mouse.x = takeStep(&rest.x);
    mouse.y = takeStep(&rest.y);
    codes.push_back(codeOf(mouse));
  }
  mouse.x = static_cast<int16_t>(rest.x);
  mouse.y = static_cast<int16_t>(rest.y);
  codes.push_back(codeOf(mouse));
  return codes;
}

void Mixture::pressAndRelease(uint8_t usage, uint8_t modifiers, uint8_t modifiers_after) {
  keys(usage, modifiers);
  keys(0, modifiers_after);
}

void Mixture::keys(uint8_t usage, uint8_t modifiers) {
  flush();
  add({codeOf(VirtualKeyboard{modifiers, {usage}})}, kKeyboardTask);
}

void Mixture::flush() {
  if (held_ > 0) add(std::move(held_move_), kMouseTask);
  held_ = 0;
}

void Mixture::add(std::vector<uint64_t> records, uint32_t kind) {
  tasks_.push_back({static_cast<uint8_t>(kind), std::move(records)});
}

}  // namespace mirn
