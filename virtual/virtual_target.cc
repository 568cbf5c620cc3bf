#include "virtual/virtual_target.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "virtual/frame_strip.h"
#include "virtual/target_encoder.h"
#include "virtual/target_screen.h"
#include "virtual/target_text.h"

namespace mirn {
namespace {

constexpr size_t kMaxClicks = 16;
constexpr int kListLength = 1000;
constexpr int kRowsPerWheelStep = 3;
constexpr size_t kMaxFirmwareText = 20;

// Positions are kept in 1/(32767 * 1919) of the width and 1/(32767 * 1079) of the height, so that absolute counts and
// pixels of a 1920 x 1080 screen are both whole numbers and relative moves never drift.
constexpr int64_t kPixelSpanX = 1919;
constexpr int64_t kPixelSpanY = 1079;

int64_t clampFine(int64_t fine, int64_t span) {
  return std::clamp<int64_t>(fine, 0, span * kTargetFullScale);
}

int toCounts(int64_t fine, int64_t span) {
  return static_cast<int>((fine + span / 2) / span);
}

constexpr uint32_t kFnvOffset = 2166136261U;
constexpr uint32_t kFnvPrime = 16777619U;

}  // namespace

struct VirtualTarget::State {
  TargetView view;
  int64_t fine_x = static_cast<int64_t>(kTargetFullScale / 2) * kPixelSpanX;
  int64_t fine_y = static_cast<int64_t>(kTargetFullScale / 2) * kPixelSpanY;

  void moveTo(int64_t new_x, int64_t new_y) {
    fine_x = clampFine(new_x, kPixelSpanX);
    fine_y = clampFine(new_y, kPixelSpanY);
    view.input.pointer_x = toCounts(fine_x, kPixelSpanX);
    view.input.pointer_y = toCounts(fine_y, kPixelSpanY);
  }

  void buttonsAndWheel(uint8_t buttons, int wheel) {
    TargetInputState& input = view.input;
    const auto pressed = static_cast<uint8_t>(buttons & ~input.buttons);
    for (const uint8_t button : {kTargetLeftButton, kTargetRightButton, kTargetMiddleButton}) {
      if ((pressed & button) == 0) {
        continue;
      }
      view.clicks.push_back({input.pointer_x, input.pointer_y, button});
      if (view.clicks.size() > kMaxClicks) {
        view.clicks.erase(view.clicks.begin());
      }
      ++view.clicks_version;
    }
    view.status_version += buttons != input.buttons ? 1 : 0;
    input.buttons = buttons;
    if (wheel != 0) {
      input.wheel = static_cast<int32_t>(static_cast<uint32_t>(input.wheel) + static_cast<uint32_t>(wheel));
      const int64_t row = view.scroll_row + static_cast<int64_t>(wheel) * kRowsPerWheelStep;
      view.scroll_row = static_cast<int>(std::clamp<int64_t>(row, 0, kListLength - 1));
      ++view.list_version;
    }
  }
};

struct VirtualTarget::Painter {
  struct Size {
    Size(int width, int height) : screen(width, height) {}

    TargetScreen screen;
    std::array<std::unique_ptr<TargetEncoder>, 3> encoders;
  };

  // The picture of one size, up to date except for the strip.
  Size& updated(int width, int height, const TargetView& view) {
    std::unique_ptr<Size>& size = height == 1080 ? full : small;
    if (size == nullptr) {
      size = std::make_unique<Size>(width, height);
    }
    std::vector<RowRange> dirty;
    size->screen.update(view, dirty);
    for (const auto& encoder : size->encoders) {
      for (const RowRange& rows : dirty) {
        if (encoder != nullptr) {
          encoder->touch(rows);
        }
      }
    }
    return *size;
  }

  std::unique_ptr<Size> full;
  std::unique_ptr<Size> small;
};

uint32_t TargetInputState::digest() const {
  std::array<uint32_t, 9> words{};
  words[0] = modifiers | static_cast<uint32_t>(buttons) << 8 | (caps_lock ? 1U << 16 : 0U);
  for (size_t i = 0; i < keys.size(); ++i) {
    words[1 + i / 4] |= static_cast<uint32_t>(keys[i]) << (8 * (i % 4));
  }
  words[3] = static_cast<uint32_t>(pointer_x);
  words[4] = static_cast<uint32_t>(pointer_y);
  words[5] = static_cast<uint32_t>(wheel);
  words[6] = led_status;
  words[7] = led_param;
  uint32_t hash = kFnvOffset;
  for (const uint32_t word : words) {
    for (int shift = 0; shift < 32; shift += 8) {
      hash = (hash ^ ((word >> shift) & 0xFFU)) * kFnvPrime;
    }
  }
  return hash;
}

VirtualTarget::VirtualTarget() : state_(std::make_unique<State>()), painter_(std::make_unique<Painter>()) {}

VirtualTarget::~VirtualTarget() = default;

void VirtualTarget::keyboard(uint8_t modifiers, std::span<const uint8_t> keys) {
  const MutexGuard guard(state_mutex_);
  TargetView& view = state_->view;
  const std::array<uint8_t, 6> before = view.input.keys;
  std::array<uint8_t, 6> now{};
  std::copy_n(keys.begin(), std::min(keys.size(), now.size()), now.begin());
  for (const uint8_t usage : now) {
    if (usage == 0 || std::find(before.begin(), before.end(), usage) != before.end()) {
      continue;
    }
    if (usage == kUsageCapsLock) {
      view.input.caps_lock = !view.input.caps_lock;
    } else if (view.text.press(usage, modifiers, view.input.caps_lock)) {
      ++view.text_version;
    }
  }
  view.input.modifiers = modifiers;
  view.input.keys = now;
  ++view.status_version;
}

void VirtualTarget::pointerAbsolute(int x, int y, uint8_t buttons, int wheel) {
  const MutexGuard guard(state_mutex_);
  state_->moveTo(x * kPixelSpanX, y * kPixelSpanY);
  state_->buttonsAndWheel(buttons, wheel);
}

void VirtualTarget::pointerRelative(int dx, int dy, uint8_t buttons, int wheel) {
  const MutexGuard guard(state_mutex_);
  state_->moveTo(state_->fine_x + static_cast<int64_t>(dx) * kTargetFullScale,
                 state_->fine_y + static_cast<int64_t>(dy) * kTargetFullScale);
  state_->buttonsAndWheel(buttons, wheel);
}

void VirtualTarget::led(uint8_t status, uint16_t param) {
  const MutexGuard guard(state_mutex_);
  state_->view.input.led_status = status;
  state_->view.input.led_param = param;
  ++state_->view.status_version;
}

void VirtualTarget::firmware(std::string_view version) {
  const MutexGuard guard(state_mutex_);
  std::string& text = state_->view.firmware;
  text.clear();
  for (const char c : version.substr(0, kMaxFirmwareText)) {
    text += c >= ' ' && c <= '~' ? c : '?';  // a device may say anything; the screen shows ASCII
  }
  ++state_->view.status_version;
}

void VirtualTarget::reset() {
  const MutexGuard guard(state_mutex_);
  const TargetView old = std::exchange(*state_, State()).view;
  TargetView& view = state_->view;
  view.text_version = old.text_version + 1;
  view.list_version = old.list_version + 1;
  view.clicks_version = old.clicks_version + 1;
  view.status_version = old.status_version + 1;
  view.firmware = old.firmware;
}

TargetInputState VirtualTarget::inputState() const {
  const MutexGuard guard(state_mutex_);
  return state_->view.input;
}

std::string VirtualTarget::text() const {
  const MutexGuard guard(state_mutex_);
  return state_->view.text.text();
}

std::vector<TargetClick> VirtualTarget::clicks() const {
  const MutexGuard guard(state_mutex_);
  return state_->view.clicks;
}

int VirtualTarget::scrollRow() const {
  const MutexGuard guard(state_mutex_);
  return state_->view.scroll_row;
}

bool VirtualTarget::supports(int width, int height) {
  return (width == 1920 && height == 1080) || (width == 1280 && height == 720);
}

size_t VirtualTarget::maxFrameBytes(TargetFormat format, int width, int height) {
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  // A 4:2:2 picture's blocks stay below their raw size at this quality; the tables take less than a kilobyte.
  return format == TargetFormat::kNv12 ? pixels * 3 / 2 : pixels * 2;
}

bool VirtualTarget::renderTo(TargetFormat format, int width, int height, const FrameUser& user) {
  if (!supports(width, height)) {
    return false;
  }
  const MutexGuard painting(paint_mutex_);
  TargetView view;
  {
    const MutexGuard guard(state_mutex_);
    view = state_->view;
  }
  Painter::Size& size = painter_->updated(width, height, view);
  StripContent strip{next_frame_, view.input.digest()};
  if (still_ && last_strip_ && last_strip_->input_digest == strip.input_digest) {
    strip = *last_strip_;
  } else {
    ++next_frame_;
  }
  last_strip_ = strip;
  size.screen.paintStrip(strip);
  std::unique_ptr<TargetEncoder>& encoder = size.encoders[static_cast<size_t>(format)];
  if (encoder == nullptr) {
    encoder = makeTargetEncoder(format, width, height);
  }
  encoder->touch(size.screen.stripRows());
  user({encoder->encode(size.screen), strip.frame_number, strip.input_digest});
  return true;
}

bool VirtualTarget::render(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) {
  return renderTo(format, width, height,
                  [&bytes](const Frame& frame) { bytes.assign(frame.bytes.begin(), frame.bytes.end()); });
}

std::vector<uint8_t> VirtualTarget::render(TargetFormat format, int width, int height) {
  std::vector<uint8_t> bytes;
  render(format, width, height, bytes);
  return bytes;
}

std::vector<uint8_t> VirtualTarget::picture(int width, int height) {
  std::vector<uint8_t> bytes;
  if (!supports(width, height)) {
    return bytes;
  }
  const MutexGuard painting(paint_mutex_);
  TargetView view;
  {
    const MutexGuard guard(state_mutex_);
    view = state_->view;
  }
  TargetScreen& screen = painter_->updated(width, height, view).screen;
  screen.paintStrip({next_frame_, view.input.digest()});
  const size_t row = static_cast<size_t>(width) * 4;
  bytes.resize(row * static_cast<size_t>(height));
  for (size_t y = 0; y < static_cast<size_t>(height); ++y) {
    std::memcpy(bytes.data() + y * row, screen.pixels() + y * screen.stride(), row);
  }
  for (size_t i = 3; i < bytes.size(); i += 4) {
    bytes[i] = 0xFF;
  }
  return bytes;
}

void VirtualTarget::setStill(bool still) {
  const MutexGuard painting(paint_mutex_);
  still_ = still;
}

uint32_t VirtualTarget::nextFrameNumber() const {
  const MutexGuard painting(paint_mutex_);
  return next_frame_;
}

}  // namespace mirn
