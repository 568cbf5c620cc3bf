#include "platform/frame_converter.h"

#include <libyuv/convert_argb.h>
#include <libyuv/cpu_id.h>
#include <libyuv/row.h>
#include <turbojpeg.h>

#include <climits>
#include <cstdio>

#include "platform/bt709_rows.h"
#include "platform/jpeg_header.h"

namespace mirn {
namespace {

const libyuv::YuvConstants* constantsOf(const FrameLayout& layout) {
  if (layout.matrix == YuvMatrix::kBt601) {
    return layout.range == YuvRange::kVideo ? &libyuv::kYuvI601Constants : &libyuv::kYuvJPEGConstants;
  }
  return layout.range == YuvRange::kVideo ? &libyuv::kYuvH709Constants : &libyuv::kYuvF709Constants;
}

// libyuv's x86 rows keep coefficients in a signed byte, too small for the blue of BT.709 in video range: colours come
// out up to 4 levels wrong. The rows of our own have no such limit.
bool needsOwnRows(const FrameLayout& layout) {
  return layout.matrix == YuvMatrix::kBt709 && layout.range == YuvRange::kVideo;
}

using PackedRow = void (*)(const uint8_t* source, uint8_t* destination, const libyuv::YuvConstants* constants,
                           int width);

// libyuv's whole-picture call for this format knows only one matrix, its rows know all of them.
PackedRow packedRow(int width) {
#if defined(HAS_YUY2TOARGBROW_AVX2)
  if (libyuv::TestCpuFlag(libyuv::kCpuHasAVX2) != 0) {
    return width % 32 == 0 ? libyuv::YUY2ToARGBRow_AVX2 : libyuv::YUY2ToARGBRow_Any_AVX2;
  }
#endif
#if defined(HAS_YUY2TOARGBROW_SSSE3)
  if (libyuv::TestCpuFlag(libyuv::kCpuHasSSSE3) != 0) {
    return width % 16 == 0 ? libyuv::YUY2ToARGBRow_SSSE3 : libyuv::YUY2ToARGBRow_Any_SSSE3;
  }
#endif
#if defined(HAS_YUY2TOARGBROW_NEON)
  if (libyuv::TestCpuFlag(libyuv::kCpuHasNEON) != 0) {
    return width % 8 == 0 ? libyuv::YUY2ToARGBRow_NEON : libyuv::YUY2ToARGBRow_Any_NEON;
  }
#endif
  (void)width;
  return libyuv::YUY2ToARGBRow_C;
}

size_t packedLine(const FrameLayout& layout) {
  const auto width = static_cast<size_t>(layout.width);
  return layout.pixelFormat == kCaptureYuyv ? (width + 1) / 2 * 4 : width;
}

void convertYuyv(const uint8_t* bytes, size_t line, const FrameLayout& layout, uint8_t* pixels, size_t stride) {
  const auto height = static_cast<size_t>(layout.height);
  if (needsOwnRows(layout)) {
    const Bt709Rows& rows = bt709Rows(RowCode::kBest);
    for (size_t y = 0; y < height; ++y) {
      rows.yuyv(bytes + y * line, pixels + y * stride, static_cast<size_t>(layout.width));
    }
    return;
  }
  const PackedRow row = packedRow(layout.width);
  const libyuv::YuvConstants* constants = constantsOf(layout);
  for (size_t y = 0; y < height; ++y) {
    row(bytes + y * line, pixels + y * stride, constants, layout.width);
  }
}

void convertNv12(const uint8_t* bytes, size_t line, const FrameLayout& layout, uint8_t* pixels, size_t stride) {
  const auto height = static_cast<size_t>(layout.height);
  const uint8_t* chroma = bytes + line * height;
  if (needsOwnRows(layout)) {
    const Bt709Rows& rows = bt709Rows(RowCode::kBest);
    for (size_t y = 0; y < height; ++y) {
      rows.nv12(bytes + y * line, chroma + y / 2 * line, pixels + y * stride, static_cast<size_t>(layout.width));
    }
    return;
  }
  libyuv::NV12ToARGBMatrix(bytes, static_cast<int>(line), chroma, static_cast<int>(line), pixels,
                           static_cast<int>(stride), constantsOf(layout), layout.width, layout.height);
}

// Many cameras put a few bytes between the picture and its end marker. The decoder says so and the picture is whole.
// A longer run is picture data that was given up.
bool onlyFillBeforeEnd(const char* warning) {
  constexpr unsigned kMostFillBytes = 16;
  unsigned count = 0;
  unsigned marker = 0;
  constexpr unsigned kEndOfImage = 0xd9;
  return std::sscanf(warning, "Corrupt JPEG data: %u extraneous bytes before marker 0x%x", &count, &marker) == 2 &&
         count <= kMostFillBytes && marker == kEndOfImage;
}

}  // namespace

YuvMatrix defaultYuvMatrix(int32_t height) {
  return height >= 720 ? YuvMatrix::kBt709 : YuvMatrix::kBt601;
}

size_t frameBytes(const FrameLayout& layout) {
  const auto limit = static_cast<int32_t>(kPixelBufferMaxSide);
  if (layout.width < 1 || layout.height < 1 || layout.width > limit || layout.height > limit) {
    return 0;
  }
  const size_t packed = packedLine(layout);
  const size_t line = layout.bytesPerLine == 0 ? packed : layout.bytesPerLine;
  if (line < packed || line > INT_MAX) {
    return 0;
  }
  const auto height = static_cast<size_t>(layout.height);
  // The last row needn't be padded.
  switch (layout.pixelFormat) {
    case kCaptureYuyv:
      return line * (height - 1) + packed;
    case kCaptureNv12:
      return line * (height + (height + 1) / 2 - 1) + (static_cast<size_t>(layout.width) + 1) / 2 * 2;
    default:
      return 0;
  }
}

FrameConverter::FrameConverter() = default;

FrameConverter::~FrameConverter() {
  dropDecoder();
}

ConvertResult FrameConverter::convert(const uint8_t* bytes, size_t size, const FrameLayout& layout,
                                      PixelBuffer& destination) {
  if (destination.format() != kPixelFormatBGRA || layout.width < 1 || layout.height < 1 ||
      destination.width() != static_cast<size_t>(layout.width) ||
      destination.height() != static_cast<size_t>(layout.height)) {
    return ConvertResult::kUnsupported;
  }
  const bool jpeg = layout.pixelFormat == kCaptureMjpg;
  const size_t needed = frameBytes(layout);
  if (!jpeg && needed == 0) {
    return ConvertResult::kUnsupported;
  }
  if (bytes == nullptr || size == 0 || size < needed) {
    return ConvertResult::kDamaged;
  }
  destination.lockBaseAddress(kPixelBufferLockForWriting);
  uint8_t* pixels = destination.baseAddress();
  const size_t stride = destination.bytesPerRow();
  const size_t line = layout.bytesPerLine == 0 ? packedLine(layout) : layout.bytesPerLine;
  ConvertResult result = ConvertResult::kConverted;
  if (pixels == nullptr) {
    result = ConvertResult::kUnsupported;
  } else if (jpeg) {
    result = convertMjpeg(bytes, size, layout, pixels, stride);
  } else if (layout.pixelFormat == kCaptureYuyv) {
    convertYuyv(bytes, line, layout, pixels, stride);
  } else {
    convertNv12(bytes, line, layout, pixels, stride);
  }
  destination.unlockBaseAddress(kPixelBufferLockForWriting);
  return result;
}

ConvertResult FrameConverter::convertMjpeg(const uint8_t* bytes, size_t size, const FrameLayout& layout,
                                           uint8_t* pixels, size_t stride) {
  const JpegTables tables = jpegTables(bytes, size);
  if (!tables.anyQuantisation()) {
    return ConvertResult::kDamaged;
  }
  // A decoder keeps tables from one picture to the next. One that this picture doesn't bring itself would be taken from
  // whatever came before: then a new decoder starts, with the standard tables.
  if ((decoderTables_ & ~tables.defined) != 0) {
    dropDecoder();
  }
  if (decoder_ == nullptr) {
    decoder_ = tjInitDecompress();
    if (decoder_ == nullptr) {
      return ConvertResult::kUnsupported;
    }
  }
  decoderTables_ = tables.more ? ~0U : tables.defined;
  if (decodeMjpeg(bytes, size, layout, pixels, stride)) {
    return ConvertResult::kConverted;
  }
  // A decoder that gave up inside a header would read the next picture from there on.
  dropDecoder();
  return ConvertResult::kDamaged;
}

void FrameConverter::dropDecoder() {
  if (decoder_ != nullptr) {
    tjDestroy(decoder_);
  }
  decoder_ = nullptr;
  decoderTables_ = 0;
}

bool FrameConverter::decodeMjpeg(const uint8_t* bytes, size_t size, const FrameLayout& layout, uint8_t* pixels,
                                 size_t stride) {
  int width = 0;
  int height = 0;
  int subsampling = 0;
  int colorspace = 0;
  if (tjDecompressHeader3(decoder_, bytes, size, &width, &height, &subsampling, &colorspace) != 0 ||
      width != layout.width || height != layout.height) {
    return false;
  }
  // The scan limit keeps a hostile progressive picture from taking seconds.
  const int flags = TJFLAG_FASTUPSAMPLE | TJFLAG_LIMITSCANS;
  if (tjDecompress2(decoder_, bytes, size, pixels, width, static_cast<int>(stride), height, TJPF_BGRA, flags) == 0) {
    return true;
  }
  // Only the first warning of a picture is kept; a fault in front of the filler would have been that one.
  return tjGetErrorCode(decoder_) == TJERR_WARNING && onlyFillBeforeEnd(tjGetErrorStr2(decoder_));
}

}  // namespace mirn
