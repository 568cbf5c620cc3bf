#include "platform/bt709_rows.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace mirn {
namespace {

std::vector<uint8_t> noise(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(size);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
  }
  return bytes;
}

TEST(Bt709RowsTest, TheQuickRowsGiveTheBytesOfThePlainOnesAtEveryWidth) {
  for (size_t width = 1; width <= 200; ++width) {
    const std::vector<uint8_t> packed = noise((width + 1) / 2 * 4, 3);
    const std::vector<uint8_t> luma = noise(width, 4);
    const std::vector<uint8_t> chroma = noise((width + 1) / 2 * 2, 5);
    std::vector<uint8_t> best(width * 4);
    std::vector<uint8_t> plain(width * 4);
    bt709Rows(RowCode::kBest).yuyv(packed.data(), best.data(), width);
    bt709Rows(RowCode::kPortable).yuyv(packed.data(), plain.data(), width);
    ASSERT_EQ(best, plain) << "YUYV, width " << width;
    bt709Rows(RowCode::kBest).nv12(luma.data(), chroma.data(), best.data(), width);
    bt709Rows(RowCode::kPortable).nv12(luma.data(), chroma.data(), plain.data(), width);
    ASSERT_EQ(best, plain) << "NV12, width " << width;
  }
}

TEST(Bt709RowsTest, EveryColourIsWithinOneLevelOfTheExactMatrix) {
  constexpr double kKr = 0.2126;
  constexpr double kKb = 0.0722;
  const auto exact = [](double value) { return std::clamp(value * 255, 0.0, 255.0); };
  double largest = 0;
  for (int u = 0; u < 256; u += 3) {
    for (int v = 0; v < 256; v += 3) {
      for (int y = 0; y < 256; y += 2) {
        const uint8_t pair[4] = {static_cast<uint8_t>(y), static_cast<uint8_t>(u), static_cast<uint8_t>(y),
                                 static_cast<uint8_t>(v)};
        uint8_t bgra[8];
        bt709Rows(RowCode::kPortable).yuyv(pair, bgra, 2);
        const double luma = (y - 16) / 219.0;
        const double b = luma + 2 * (1 - kKb) * (u - 128) / 224.0;
        const double r = luma + 2 * (1 - kKr) * (v - 128) / 224.0;
        const double g = (luma - kKr * r - kKb * b) / (1 - kKr - kKb);
        largest = std::max(
            {largest, std::abs(bgra[0] - exact(b)), std::abs(bgra[1] - exact(g)), std::abs(bgra[2] - exact(r))});
        ASSERT_EQ(bgra[3], 255);
      }
    }
  }
  EXPECT_LT(largest, 1.0);
}

}  // namespace
}  // namespace mirn
