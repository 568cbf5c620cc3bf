// Where the video function's frames come from.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "virtual/virtual_target.h"

namespace mirn {

// Bound to one thread at a time.
class FrameSource {
 public:
  virtual ~FrameSource() = default;

  // Replaces `bytes` by the next whole frame; its capacity is reused. False for a size that isn't offered.
  virtual bool nextFrame(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) = 0;
};

// The picture of a target computer.
class TargetFrames : public FrameSource {
 public:
  explicit TargetFrames(std::shared_ptr<VirtualTarget> target) : target_(std::move(target)) {}
  bool nextFrame(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) override {
    return target_->render(format, width, height, bytes);
  }

 private:
  const std::shared_ptr<VirtualTarget> target_;
};

// Colour bars with a moving luma wedge, cheap to make; the frame's number stands in the first 32 pixels, one bit each
// (luma 235 or 16, most significant first). MJPEG is drawn by a target of its own, with that one's frame strip.
class TestPattern : public FrameSource {
 public:
  bool nextFrame(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) override;

  // The number in a raw frame of this pattern; kMjpeg has none.
  static uint32_t numberIn(TargetFormat format, const std::vector<uint8_t>& bytes);

 private:
  uint32_t number_ = 0;
  std::unique_ptr<VirtualTarget> mjpeg_;
};

}  // namespace mirn
