#pragma once

// One grabbed frame as raw bytes.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/counted.h"
#include "video/letterbox.h"

namespace mirn {

/// The bytes of one canvas. Shared by reference; whoever holds the only reference may write.
class FrameBytes : public Counted {
 public:
  FrameBytes() : bytes_(new uint8_t[kCanvasBytes]()) {}

  const uint8_t* data() const { return bytes_.get(); }
  size_t size() const { return kCanvasBytes; }
  /// For the only holder.
  uint8_t* mutableData() { return bytes_.get(); }

  /// Where the picture was painted last; the bars around it are blank. For the painter.
  Letterbox painted;

 private:
  ~FrameBytes() override = default;
  std::unique_ptr<uint8_t[]> bytes_;
};
using FrameBytesRef = CountedRef<FrameBytes>;

/// A value: copying shares the bytes. 480 rows of 640 pixels of 3 bytes, 1,920 bytes a row, 921,600 in all.
/// Despite its name `rgbData` holds blue, green, red: that is meant.
struct FrameData {
  int64_t width = kCanvasWidth;
  int64_t height = kCanvasHeight;
  FrameBytesRef rgbData;
};

}  // namespace mirn
