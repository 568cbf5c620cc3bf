// The computer behind the virtual Mirn: a desktop picture that reacts to the keyboard and pointer records it is given,
// so that a key press can be seen in the captured picture, and that carries a machine-readable strip
// (virtual/frame_strip.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "virtual/frame_strip.h"

namespace mirn {

// The picture formats a capture stick offers.
enum class TargetFormat : uint8_t {
  kYuyv,   // packed 4:2:2, width * 2 bytes a row, BT.601 video range
  kNv12,   // a luma plane, then interleaved chroma at half size, BT.601 video range
  kMjpeg,  // a baseline JPEG, 4:2:2, full range
};

// One byte per button, as on the wire.
inline constexpr uint8_t kTargetLeftButton = 1;
inline constexpr uint8_t kTargetRightButton = 2;
inline constexpr uint8_t kTargetMiddleButton = 4;
// Pointer positions run over 0..kTargetFullScale on each axis.
inline constexpr int kTargetFullScale = 32767;

// The input that the target holds at one moment. A pure function of it stands in the strip, so a test that knows what
// it sent can compute the digest it must see.
struct TargetInputState {
  uint8_t modifiers = 0;          // HID boot-keyboard modifier bits
  std::array<uint8_t, 6> keys{};  // HID usages as reported, empty slots 0
  bool caps_lock = false;
  int pointer_x = kTargetFullScale / 2;  // 0..32767
  int pointer_y = kTargetFullScale / 2;
  uint8_t buttons = 0;  // kTarget*Button bits
  int32_t wheel = 0;    // sum of all steps, positive downwards
  uint8_t led_status = 0;
  uint16_t led_param = 0;

  uint32_t digest() const;
};

// A pressed button, where it happened (0..32767).
struct TargetClick {
  int x = 0;
  int y = 0;
  uint8_t button = 0;

  bool operator==(const TargetClick& other) const = default;
};

// Thread-safe: input may come from one thread while others render. Input never waits for a picture being drawn.
class VirtualTarget {
 public:
  // One drawn frame, valid during the callback only.
  struct Frame {
    std::span<const uint8_t> bytes;
    uint32_t frame_number = 0;
    uint32_t input_digest = 0;
  };
  using FrameUser = std::function<void(const Frame&)>;

  VirtualTarget();
  ~VirtualTarget();
  VirtualTarget(const VirtualTarget&) = delete;
  VirtualTarget& operator=(const VirtualTarget&) = delete;

  // Input, as the device would play it out.
  // A whole boot-keyboard record: what is new in `keys` types, what is missing is released.
  void keyboard(uint8_t modifiers, std::span<const uint8_t> keys);
  // Absolute position (clamped to 0..32767), the whole button mask, wheel steps (positive = down).
  void pointerAbsolute(int x, int y, uint8_t buttons, int wheel);
  // A move in pixels of a 1920 x 1080 screen.
  void pointerRelative(int dx, int dy, uint8_t buttons, int wheel);
  // Shown in the status line.
  void led(uint8_t status, uint16_t param);
  void firmware(std::string_view version);
  // Everything as at the start (an application never does this; a test between cases may).
  void reset();

  TargetInputState inputState() const;
  // The typed text, lines separated by '\n', caret excluded.
  std::string text() const;
  // The newest clicks, oldest first (at most 16 are kept).
  std::vector<TargetClick> clicks() const;
  // First visible row of the list that the wheel scrolls.
  int scrollRow() const;

  // True for 1920x1080 and 1280x720.
  static bool supports(int width, int height);
  // Bytes of one frame; for kMjpeg an upper bound.
  static size_t maxFrameBytes(TargetFormat format, int width, int height);

  // Draws what has changed since the last frame of this size, numbers the frame (each call takes the next number) and
  // appends nothing else: `bytes` is replaced and its capacity reused. False for a size that is not supported.
  bool render(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes);
  std::vector<uint8_t> render(TargetFormat format, int width, int height);
  // The same without a copy. `user` runs on the calling thread while other renderings wait.
  bool renderTo(TargetFormat format, int width, int height, const FrameUser& user);
  // The picture as it stands, as BGRA rows of width * 4 bytes, without taking a number (for screenshots).
  std::vector<uint8_t> picture(int width, int height);
  // From now on frames keep the last number while the input stays the same: a picture that is still to the last pixel.
  void setStill(bool still);
  // The number the next frame will carry.
  uint32_t nextFrameNumber() const;

 private:
  struct State;
  struct Painter;

  mutable Mutex state_mutex_;
  std::unique_ptr<State> state_ MIRN_GUARDED_BY(state_mutex_);
  mutable Mutex paint_mutex_;
  std::unique_ptr<Painter> painter_ MIRN_GUARDED_BY(paint_mutex_);
  uint32_t next_frame_ MIRN_GUARDED_BY(paint_mutex_) = 0;
  bool still_ MIRN_GUARDED_BY(paint_mutex_) = false;
  std::optional<StripContent> last_strip_ MIRN_GUARDED_BY(paint_mutex_);
};

}  // namespace mirn
