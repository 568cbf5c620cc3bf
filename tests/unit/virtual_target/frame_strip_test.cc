#include "virtual/frame_strip.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace mirn {
namespace {

// A BGRA picture with nothing but the strip in it.
std::vector<uint8_t> pictureOf(const StripContent& content, int width, int height) {
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4, 0x60);
  const StripBits bits = encodeStrip(content);
  const int cell = width / kStripCellsPerWidth;
  for (int y = height - kStripRows * cell; y < height; ++y) {
    const int row = (y - (height - kStripRows * cell)) / cell;
    for (int x = width - kStripColumns * cell; x < width; ++x) {
      const int column = (x - (width - kStripColumns * cell)) / cell;
      const uint8_t value = bits[static_cast<size_t>(row * kStripColumns + column)] ? 255 : 0;
      for (size_t i = 0; i < 4; ++i) {
        pixels[(static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4 + i] = value;
      }
    }
  }
  return pixels;
}

TEST(FrameStrip, BitsComeBackAsTheyWere) {
  std::minstd_rand random(7);
  for (int i = 0; i < 1000; ++i) {
    const StripContent content{static_cast<uint32_t>(random()) * 2U, static_cast<uint32_t>(random()) * 3U};
    EXPECT_EQ(decodeStrip(encodeStrip(content)), content);
  }
}

TEST(FrameStrip, EverySingleWrongBitIsNoticed) {
  const StripBits good = encodeStrip({123456789, 0xDEADBEEF});
  for (size_t i = 0; i < good.size(); ++i) {
    StripBits bad = good;
    bad[i] = !bad[i];
    EXPECT_EQ(decodeStrip(bad), std::nullopt) << "bit " << i;
  }
}

TEST(FrameStrip, IsReadFromPicturesOfEverySize) {
  const StripContent content{0x01020304, 0xA0B0C0D0};
  for (const auto& [width, height] : {std::pair(1920, 1080), std::pair(1280, 720), std::pair(640, 360)}) {
    const std::vector<uint8_t> pixels = pictureOf(content, width, height);
    EXPECT_EQ(readStripBgra(pixels.data(), width, height, static_cast<size_t>(width) * 4), content) << width;
  }
}

TEST(FrameStrip, APictureWithoutStripOrWithoutRoomGivesNothing) {
  const std::vector<uint8_t> grey(1280 * 720 * 4, 0x80);
  EXPECT_EQ(readStripBgra(grey.data(), 1280, 720, 1280 * 4), std::nullopt);
  EXPECT_EQ(readStripBgra(grey.data(), 100, 100, 400), std::nullopt) << "cells below two pixels";
  EXPECT_EQ(readStripBgra(grey.data(), 800, 10, 3200), std::nullopt) << "lower than the strip";
  EXPECT_EQ(readStripBgra(grey.data(), 0, 0, 0), std::nullopt);
  EXPECT_EQ(readStripBgra(nullptr, 1280, 720, 1280 * 4), std::nullopt);
}

}  // namespace
}  // namespace mirn
