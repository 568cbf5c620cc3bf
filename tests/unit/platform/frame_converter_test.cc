#include "platform/frame_converter.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace mirn {
namespace {

struct Yuv {
  uint8_t y, u, v;
};
struct Bgra {
  uint8_t b, g, r, a;
};

// Straight from the recommendations: Kr and Kb of BT.601 and BT.709, excursions of the two ranges.
Bgra exact(const Yuv& in, YuvMatrix matrix, YuvRange range) {
  const double kr = matrix == YuvMatrix::kBt601 ? 0.299 : 0.2126;
  const double kb = matrix == YuvMatrix::kBt601 ? 0.114 : 0.0722;
  const double kg = 1 - kr - kb;
  const bool video = range == YuvRange::kVideo;
  const double y = video ? (in.y - 16) / 219.0 : in.y / 255.0;
  const double cb = (in.u - 128) / (video ? 224.0 : 255.0);
  const double cr = (in.v - 128) / (video ? 224.0 : 255.0);
  const double r = y + 2 * (1 - kr) * cr;
  const double b = y + 2 * (1 - kb) * cb;
  const double g = (y - kr * r - kb * b) / kg;
  const auto level = [](double value) { return static_cast<uint8_t>(std::lround(std::clamp(value, 0.0, 1.0) * 255)); };
  return {level(b), level(g), level(r), 255};
}

// Bars over the whole cube of legal values, black and white among them.
std::vector<Yuv> bars() {
  std::vector<Yuv> result;
  for (const int y : {16, 40, 81, 126, 145, 180, 210, 235}) {
    for (const int u : {16, 64, 90, 128, 166, 202, 240}) {
      for (const int v : {16, 64, 110, 128, 146, 200, 240}) {
        result.push_back({static_cast<uint8_t>(y), static_cast<uint8_t>(u), static_cast<uint8_t>(v)});
      }
    }
  }
  return result;
}

constexpr int kBarWidth = 4;
constexpr int kRows = 4;

std::vector<uint8_t> yuyvOf(const std::vector<Yuv>& colours, size_t bytesPerLine) {
  std::vector<uint8_t> bytes(bytesPerLine * kRows);
  for (size_t row = 0; row < kRows; ++row) {
    uint8_t* at = bytes.data() + row * bytesPerLine;
    for (const Yuv& colour : colours) {
      for (int pair = 0; pair < kBarWidth / 2; ++pair) {
        *at++ = colour.y;
        *at++ = colour.u;
        *at++ = colour.y;
        *at++ = colour.v;
      }
    }
  }
  return bytes;
}

std::vector<uint8_t> nv12Of(const std::vector<Yuv>& colours, size_t bytesPerLine) {
  std::vector<uint8_t> bytes(bytesPerLine * (kRows + kRows / 2));
  for (size_t bar = 0; bar < colours.size(); ++bar) {
    for (size_t x = bar * kBarWidth; x < (bar + 1) * kBarWidth; ++x) {
      for (size_t row = 0; row < kRows; ++row) {
        bytes[row * bytesPerLine + x] = colours[bar].y;
      }
      for (size_t row = 0; row < kRows / 2; ++row) {
        bytes[(kRows + row) * bytesPerLine + x] = x % 2 == 0 ? colours[bar].u : colours[bar].v;
      }
    }
  }
  return bytes;
}

Bgra pixelAt(PixelBuffer& picture, size_t x, size_t y) {
  Bgra pixel{};
  std::memcpy(&pixel, picture.baseAddress() + y * picture.bytesPerRow() + x * 4, 4);
  return pixel;
}

int distance(const Bgra& a, const Bgra& b) {
  return std::max({std::abs(a.b - b.b), std::abs(a.g - b.g), std::abs(a.r - b.r)});
}

struct ColourCase {
  FourCharCode format;
  YuvMatrix matrix;
  YuvRange range;
};

class ColourTest : public testing::TestWithParam<ColourCase> {};

TEST_P(ColourTest, BarsComeOutWithinTwoLevelsOfTheExactMatrix) {
  const ColourCase& parameters = GetParam();
  const std::vector<Yuv> colours = bars();
  const size_t width = colours.size() * kBarWidth;
  for (const size_t padding : {size_t{0}, size_t{24}}) {
    const bool packed = parameters.format == kCaptureYuyv;
    const size_t line = width * (packed ? 2 : 1) + padding;
    const std::vector<uint8_t> bytes = packed ? yuyvOf(colours, line) : nv12Of(colours, line);
    const FrameLayout layout = {parameters.format, static_cast<int32_t>(width), kRows, line, parameters.matrix,
                                parameters.range};
    const PixelBufferRef picture = PixelBuffer::create(width, kRows, kPixelFormatBGRA);
    FrameConverter converter;
    ASSERT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kConverted);
    picture->lockBaseAddress(kPixelBufferLockReadOnly);
    for (size_t bar = 0; bar < colours.size(); ++bar) {
      const Bgra expected = exact(colours[bar], parameters.matrix, parameters.range);
      for (size_t x = bar * kBarWidth + 1; x + 1 < (bar + 1) * kBarWidth; ++x) {
        const Bgra got = pixelAt(*picture, x, 1);
        ASSERT_LE(distance(got, expected), 2)
            << "YUV " << int{colours[bar].y} << "," << int{colours[bar].u} << "," << int{colours[bar].v} << " gave "
            << int{got.b} << "," << int{got.g} << "," << int{got.r} << " instead of " << int{expected.b} << ","
            << int{expected.g} << "," << int{expected.r};
        ASSERT_EQ(got.a, 255);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, ColourTest,
                         testing::Values(ColourCase{kCaptureYuyv, YuvMatrix::kBt601, YuvRange::kVideo},
                                         ColourCase{kCaptureYuyv, YuvMatrix::kBt709, YuvRange::kVideo},
                                         ColourCase{kCaptureYuyv, YuvMatrix::kBt601, YuvRange::kFull},
                                         ColourCase{kCaptureYuyv, YuvMatrix::kBt709, YuvRange::kFull},
                                         ColourCase{kCaptureNv12, YuvMatrix::kBt601, YuvRange::kVideo},
                                         ColourCase{kCaptureNv12, YuvMatrix::kBt709, YuvRange::kVideo},
                                         ColourCase{kCaptureNv12, YuvMatrix::kBt601, YuvRange::kFull},
                                         ColourCase{kCaptureNv12, YuvMatrix::kBt709, YuvRange::kFull}),
                         [](const testing::TestParamInfo<ColourCase>& entry) {
                           return fourCharText(entry.param.format) +
                                  (entry.param.matrix == YuvMatrix::kBt601 ? "Bt601" : "Bt709") +
                                  (entry.param.range == YuvRange::kVideo ? "Video" : "Full");
                         });

TEST(FrameConverterTest, EverySmallSizeConvertsInsideItsBuffers) {
  FrameConverter converter;
  for (int32_t width = 1; width <= 70; ++width) {
    for (const int32_t height : {1, 2, 3, 5}) {
      for (const FourCharCode format : {kCaptureYuyv, kCaptureNv12}) {
        FrameLayout layout;
        layout.pixelFormat = format;
        layout.width = width;
        layout.height = height;
        const std::vector<uint8_t> bytes(frameBytes(layout) + 1, 128);  // exact, so that the sanitizer sees one more
        const PixelBufferRef picture =
            PixelBuffer::create(static_cast<size_t>(width), static_cast<size_t>(height), kPixelFormatBGRA);
        ASSERT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kConverted)
            << width << "x" << height;
      }
    }
  }
}

// ---- MJPEG

struct Jpeg {
  std::vector<uint8_t> bytes;
};

Jpeg encode(const std::vector<uint8_t>& bgra, int width, int height, int subsampling, int quality) {
  tjhandle encoder = tjInitCompress();
  unsigned char* out = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(encoder, bgra.data(), width, 0, height, TJPF_BGRA, &out, &size, subsampling, quality, 0), 0);
  Jpeg jpeg{{out, out + size}};
  tjFree(out);
  tjDestroy(encoder);
  return jpeg;
}

constexpr int kJpegWidth = 128;
constexpr int kJpegHeight = 64;

// Eight bars, 16 pixels wide each: a whole number of JPEG blocks in every subsampling.
std::vector<uint8_t> jpegBars() {
  const Bgra colours[8] = {{255, 255, 255, 255}, {0, 255, 255, 255}, {255, 255, 0, 255}, {0, 255, 0, 255},
                           {255, 0, 255, 255},   {0, 0, 255, 255},   {255, 0, 0, 255},   {0, 0, 0, 255}};
  std::vector<uint8_t> pixels;
  for (int y = 0; y < kJpegHeight; ++y) {
    for (int x = 0; x < kJpegWidth; ++x) {
      const Bgra& colour = colours[x / 16];
      pixels.insert(pixels.end(), {colour.b, colour.g, colour.r, colour.a});
    }
  }
  return pixels;
}

FrameLayout jpegLayout(int32_t width = kJpegWidth, int32_t height = kJpegHeight) {
  FrameLayout layout;
  layout.pixelFormat = kCaptureMjpg;
  layout.width = width;
  layout.height = height;
  return layout;
}

PixelBufferRef jpegPicture() {
  return PixelBuffer::create(kJpegWidth, kJpegHeight, kPixelFormatBGRA);
}

TEST(FrameConverterMjpegTest, BarsComeOutWithinTwoLevels) {
  const std::vector<uint8_t> pixels = jpegBars();
  for (const int subsampling : {TJSAMP_444, TJSAMP_422, TJSAMP_420}) {
    const Jpeg jpeg = encode(pixels, kJpegWidth, kJpegHeight, subsampling, 100);
    const PixelBufferRef picture = jpegPicture();
    FrameConverter converter;
    ASSERT_EQ(converter.convert(jpeg.bytes.data(), jpeg.bytes.size(), jpegLayout(), *picture),
              ConvertResult::kConverted);
    picture->lockBaseAddress(kPixelBufferLockReadOnly);
    for (int x = 8; x < kJpegWidth; x += 16) {
      Bgra expected{};
      std::memcpy(&expected, pixels.data() + x * 4, 4);
      EXPECT_LE(distance(pixelAt(*picture, static_cast<size_t>(x), 20), expected), 2)
          << "bar " << x / 16 << ", subsampling " << subsampling;
      EXPECT_EQ(pixelAt(*picture, static_cast<size_t>(x), 20).a, 255);
    }
  }
}

class MjpegDamageTest : public testing::Test {
 protected:
  ConvertResult convert(const std::vector<uint8_t>& bytes) {
    return converter_.convert(bytes.data(), bytes.size(), jpegLayout(), *picture_);
  }
  std::vector<uint8_t> good_ = encode(jpegBars(), kJpegWidth, kJpegHeight, TJSAMP_422, 90).bytes;
  PixelBufferRef picture_ = jpegPicture();
  FrameConverter converter_;
};

TEST_F(MjpegDamageTest, EveryTruncationIsDamaged) {
  for (size_t size = 1; size + 2 < good_.size(); ++size) {
    ASSERT_EQ(convert({good_.begin(), good_.begin() + static_cast<std::ptrdiff_t>(size)}), ConvertResult::kDamaged)
        << size << " of " << good_.size() << " bytes";
  }
  EXPECT_EQ(convert(good_), ConvertResult::kConverted);
}

TEST_F(MjpegDamageTest, AnotherSizeThanAgreedIsDamaged) {
  const std::vector<uint8_t> larger = encode(std::vector<uint8_t>(256 * 64 * 4), 256, 64, TJSAMP_422, 90).bytes;
  EXPECT_EQ(convert(larger), ConvertResult::kDamaged);
}

TEST_F(MjpegDamageTest, NoBytesAndNoPictureAreDamaged) {
  EXPECT_EQ(converter_.convert(nullptr, 100, jpegLayout(), *picture_), ConvertResult::kDamaged);
  EXPECT_EQ(converter_.convert(good_.data(), 0, jpegLayout(), *picture_), ConvertResult::kDamaged);
  EXPECT_EQ(convert(std::vector<uint8_t>(5000, 0)), ConvertResult::kDamaged);
}

TEST_F(MjpegDamageTest, FillBytesAfterThePictureDontHurt) {
  std::vector<uint8_t> padded = good_;
  padded.insert(padded.end(), 512, 0);
  EXPECT_EQ(convert(padded), ConvertResult::kConverted);
}

TEST_F(MjpegDamageTest, FillBytesBeforeTheEndMarkerDontHurt) {
  std::vector<uint8_t> padded = good_;
  padded.insert(padded.end() - 2, 6, 0);
  EXPECT_EQ(convert(padded), ConvertResult::kConverted);
}

TEST_F(MjpegDamageTest, AFrameWithoutHuffmanTablesUsesTheStandardOnes) {
  // Cameras leave the tables out; the encoder writes the standard ones.
  std::vector<uint8_t> bare;
  size_t at = 2;
  bare.insert(bare.end(), good_.begin(), good_.begin() + 2);
  while (good_[at + 1] != 0xda) {
    const size_t length = static_cast<size_t>(good_[at + 2]) << 8 | good_[at + 3];
    if (good_[at + 1] != 0xc4) {
      bare.insert(bare.end(), good_.begin() + static_cast<std::ptrdiff_t>(at),
                  good_.begin() + static_cast<std::ptrdiff_t>(at + 2 + length));
    }
    at += 2 + length;
  }
  bare.insert(bare.end(), good_.begin() + static_cast<std::ptrdiff_t>(at), good_.end());
  ASSERT_LT(bare.size(), good_.size());
  EXPECT_EQ(convert(bare), ConvertResult::kConverted);
}

TEST_F(MjpegDamageTest, RandomDamageNeverHurtsAndTheDecoderGoesOn) {
  std::mt19937 random(11);
#ifdef MIRN_SANITIZED
  constexpr int kRounds = 500;
#else
  constexpr int kRounds = 4000;
#endif
  for (int round = 0; round < kRounds; ++round) {
    std::vector<uint8_t> bytes = good_;
    for (unsigned hits = 1 + random() % 8; hits > 0; --hits) {
      bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
    }
    convert(bytes);
  }
  EXPECT_EQ(convert(good_), ConvertResult::kConverted);
}

// ---- refusals

TEST(FrameConverterTest, ShortRawFramesAreDamaged) {
  FrameConverter converter;
  for (const FourCharCode format : {kCaptureYuyv, kCaptureNv12}) {
    FrameLayout layout;
    layout.pixelFormat = format;
    layout.width = 16;
    layout.height = 4;
    const std::vector<uint8_t> bytes(frameBytes(layout), 100);
    const PixelBufferRef picture = PixelBuffer::create(16, 4, kPixelFormatBGRA);
    EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kConverted);
    EXPECT_EQ(converter.convert(bytes.data(), bytes.size() - 1, layout, *picture), ConvertResult::kDamaged);
    EXPECT_EQ(converter.convert(bytes.data(), 0, layout, *picture), ConvertResult::kDamaged);
  }
}

TEST(FrameConverterTest, TheLastRowNeedsNoPadding) {
  FrameLayout layout;
  layout.pixelFormat = kCaptureYuyv;
  layout.width = 10;
  layout.height = 3;
  layout.bytesPerLine = 64;
  EXPECT_EQ(frameBytes(layout), 64U * 2 + 20);
  layout.pixelFormat = kCaptureNv12;
  layout.height = 4;
  EXPECT_EQ(frameBytes(layout), 64U * 5 + 10);
}

TEST(FrameConverterTest, WhatItDoesntKnowIsUnsupported) {
  FrameConverter converter;
  const std::vector<uint8_t> bytes(4096);
  const PixelBufferRef picture = PixelBuffer::create(16, 4, kPixelFormatBGRA);
  FrameLayout layout;
  layout.pixelFormat = fourCharCode("H264");
  layout.width = 16;
  layout.height = 4;
  EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kUnsupported);
  layout.pixelFormat = kCaptureYuyv;
  layout.bytesPerLine = 20;  // less than a row
  EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kUnsupported);
  layout.bytesPerLine = 0;
  layout.width = 15;  // not the picture's size
  EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kUnsupported);
  layout.width = 16;
  const PixelBufferRef planar = PixelBuffer::create(16, 4, kPixelFormat420v);
  EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *planar), ConvertResult::kUnsupported);
}

TEST(FrameConverterTest, ThePictureIsLockedExactlyOnceAndGivenBack) {
  FrameConverter converter;
  FrameLayout layout;
  layout.pixelFormat = kCaptureYuyv;
  layout.width = 16;
  layout.height = 4;
  const std::vector<uint8_t> bytes(frameBytes(layout));
  const PixelBufferRef picture = PixelBuffer::create(16, 4, kPixelFormatBGRA);
  converter.convert(bytes.data(), bytes.size(), layout, *picture);
  EXPECT_EQ(picture->locksTaken(), 1U);
  EXPECT_EQ(picture->baseAddress(), nullptr);
}

TEST(FrameConverterTest, TheDefaultMatrixFollowsTheSize) {
  EXPECT_EQ(defaultYuvMatrix(480), YuvMatrix::kBt601);
  EXPECT_EQ(defaultYuvMatrix(719), YuvMatrix::kBt601);
  EXPECT_EQ(defaultYuvMatrix(720), YuvMatrix::kBt709);
  EXPECT_EQ(defaultYuvMatrix(1080), YuvMatrix::kBt709);
}

}  // namespace
}  // namespace mirn
