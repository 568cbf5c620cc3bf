// Hostile bytes to the MJPEG path: never a crash, never a byte outside the picture, and the decoder goes on afterwards.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/frame_converter.h"

namespace {

constexpr int32_t kLargestSide = 256;

// The agreed size is that of the picture's own frame header where it is small, so that the decoder gets to work.
mirn::FrameLayout layoutFor(const uint8_t* data, size_t size) {
  mirn::FrameLayout layout;
  layout.pixelFormat = mirn::kCaptureMjpg;
  layout.width = 64;
  layout.height = 32;
  for (size_t i = 0; i + 8 < size; ++i) {
    if (data[i] == 0xff && data[i + 1] >= 0xc0 && data[i + 1] <= 0xc2) {
      const int32_t height = data[i + 5] << 8 | data[i + 6];
      const int32_t width = data[i + 7] << 8 | data[i + 8];
      if (width >= 1 && height >= 1 && width <= kLargestSide && height <= kLargestSide) {
        layout.width = width;
        layout.height = height;
      }
      break;
    }
  }
  return layout;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static mirn::FrameConverter converter;  // one for all inputs: what damage leaves behind must not matter
  const mirn::FrameLayout layout = layoutFor(data, size);
  const mirn::PixelBufferRef picture = mirn::PixelBuffer::create(
      static_cast<size_t>(layout.width), static_cast<size_t>(layout.height), mirn::kPixelFormatBGRA);
  if (converter.convert(data, size, layout, *picture) == mirn::ConvertResult::kConverted) {
    return 0;
  }
  // Whatever was dropped: the next whole picture is shown. A sequential one, eight by eight, all grey.
  static const std::vector<uint8_t> good = [] {
    std::vector<uint8_t> bytes = {0xff, 0xd8, 0xff, 0xdb, 0, 67, 0};
    bytes.insert(bytes.end(), 64, 1);
    const uint8_t rest[] = {0xff, 0xc0, 0, 11, 8, 0, 8, 0, 8,  1, 1,    0x11, 0,  //
                            0xff, 0xda, 0, 8,  1, 1, 0, 0, 63, 0, 0x2b, 0xff, 0xd9};
    bytes.insert(bytes.end(), rest, rest + sizeof rest);
    return bytes;
  }();
  mirn::FrameLayout small;
  small.pixelFormat = mirn::kCaptureMjpg;
  small.width = 8;
  small.height = 8;
  static const mirn::PixelBufferRef target = mirn::PixelBuffer::create(8, 8, mirn::kPixelFormatBGRA);
  if (converter.convert(good.data(), good.size(), small, *target) != mirn::ConvertResult::kConverted) {
    std::abort();
  }
  return 0;
}
