// Any layout a driver may claim, any number of bytes, any picture size: conversion and scaling stay inside their
// memory.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/frame_converter.h"
#include "video/letterbox.h"
#include "video/picture_scaler.h"

namespace {

// Reads numbers from the front of the input; zeros when it has run out.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint8_t byte() {
    if (size_ == 0) {
      return 0;
    }
    --size_;
    return *data_++;
  }
  int32_t number() { return static_cast<int32_t>(byte() | byte() << 8); }
  // Owned and exact, so that reading one byte more is seen.
  std::vector<uint8_t> rest() const { return {data_, data_ + size_}; }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  mirn::FrameLayout layout;
  const uint8_t kind = input.byte();
  layout.pixelFormat = (kind & 1) != 0 ? mirn::kCaptureYuyv : mirn::kCaptureNv12;
  layout.matrix = (kind & 2) != 0 ? mirn::YuvMatrix::kBt709 : mirn::YuvMatrix::kBt601;
  layout.range = (kind & 4) != 0 ? mirn::YuvRange::kFull : mirn::YuvRange::kVideo;
  layout.width = input.number() % 300 - 2;
  layout.height = input.number() % 100 - 2;
  layout.bytesPerLine = (kind & 8) != 0 ? 0 : static_cast<size_t>(input.number());
  const std::vector<uint8_t> bytes = input.rest();
  const auto width = static_cast<size_t>(std::max(layout.width, 1));
  const auto height = static_cast<size_t>(std::max(layout.height, 1));
  const mirn::PixelBufferRef picture = mirn::PixelBuffer::create(width, height, mirn::kPixelFormatBGRA);
  mirn::FrameConverter converter;
  if (converter.convert(bytes.data(), bytes.size(), layout, *picture) != mirn::ConvertResult::kConverted) {
    return 0;
  }
  const auto box = mirn::letterbox(width, height);
  if (!box) {
    return 0;
  }
  std::vector<uint8_t> packed(static_cast<size_t>(box->width) * static_cast<size_t>(box->height) * 3);
  mirn::PictureScaler scaler;
  picture->lockBaseAddress(mirn::kPixelBufferLockReadOnly);
  scaler.scaleAndPack({picture->baseAddress(), width, height, picture->bytesPerRow()},
                      {packed.data(), static_cast<size_t>(box->width), static_cast<size_t>(box->height),
                       static_cast<size_t>(box->width) * 3});
  return 0;
}
