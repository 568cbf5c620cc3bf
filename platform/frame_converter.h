#pragma once

// From what a camera sends to the one format everybody sees: 'BGRA', top row first, alpha 255.

#include <cstddef>
#include <cstdint>

#include "platform/pixel_buffer.h"

namespace mirn {

/// Which luma weights the camera used. ITU-R BT.601 and BT.709.
enum class YuvMatrix { kBt601, kBt709 };
/// kVideo: luma 16..235, chroma 16..240. kFull: 0..255.
enum class YuvRange { kVideo, kFull };

/// How the bytes of one frame lie. MJPEG needs only format and size; it is always BT.601 full range (JFIF).
struct FrameLayout {
  FourCharCode pixelFormat = 0;  ///< 'YUYV', 'NV12' or 'MJPG'
  int32_t width = 0;             ///< pixels, 1..kPixelBufferMaxSide
  int32_t height = 0;
  size_t bytesPerLine = 0;  ///< of the (luma) rows; 0 = packed
  YuvMatrix matrix = YuvMatrix::kBt601;
  YuvRange range = YuvRange::kVideo;
};

/// The usual choice when the device doesn't say: BT.709 from 720 lines on, BT.601 below.
YuvMatrix defaultYuvMatrix(int32_t height);

/// Bytes a whole frame of this layout has; 0 for MJPEG (any length) and for a layout that can't be converted.
size_t frameBytes(const FrameLayout& layout);

enum class ConvertResult {
  kConverted,
  kDamaged,      ///< cut short or corrupt; the destination may hold part of the picture
  kUnsupported,  ///< a layout, or a destination, that this converter doesn't know
};

/// Bound to one thread at a time (it keeps a JPEG decoder). Allocates nothing after the first frame.
class FrameConverter {
 public:
  FrameConverter();
  ~FrameConverter();
  FrameConverter(const FrameConverter&) = delete;
  FrameConverter& operator=(const FrameConverter&) = delete;

  /// Converts `size` bytes into `destination`, a 'BGRA' picture of the layout's size that nobody else holds. More bytes
  /// than needed are fine. Any bytes are safe.
  ConvertResult convert(const uint8_t* bytes, size_t size, const FrameLayout& layout, PixelBuffer& destination);

 private:
  ConvertResult convertMjpeg(const uint8_t* bytes, size_t size, const FrameLayout& layout, uint8_t* pixels,
                             size_t stride);
  bool decodeMjpeg(const uint8_t* bytes, size_t size, const FrameLayout& layout, uint8_t* pixels, size_t stride);

  void dropDecoder();

  void* decoder_ = nullptr;     // tjhandle
  uint32_t decoderTables_ = 0;  // JpegTables::defined of the picture it decoded last
};

}  // namespace mirn
