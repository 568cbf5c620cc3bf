#include "video/picture_scaler.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "tests/support/video/pictures.h"
#include "video/letterbox.h"

namespace mirn {
namespace {

using test::Picture;

PictureView viewOf(const Picture& picture) {
  return {picture.bytes.data(), picture.width, picture.height, picture.width * 4};
}

// Exactly as large as what is written: the sanitizer sees a byte too many.
std::vector<uint8_t> scaled(const Picture& picture, size_t width, size_t height, ScalerCode code = ScalerCode::kBest) {
  std::vector<uint8_t> packed(width * height * 3);
  PictureScaler scaler(code);
  scaler.scaleAndPack(viewOf(picture), {packed.data(), width, height, width * 3});
  return packed;
}

struct Reduction {
  size_t width;
  size_t height;
  double leastPsnr;
};

class ReductionTest : public testing::TestWithParam<Reduction> {};

TEST_P(ReductionTest, ADesktopKeepsItsQuality) {
  const Reduction& reduction = GetParam();
  const auto box = letterbox(reduction.width, reduction.height);
  ASSERT_TRUE(box);
  const Picture picture = test::desktopPicture(reduction.width, reduction.height);
  const auto width = static_cast<size_t>(box->width);
  const auto height = static_cast<size_t>(box->height);
  const std::vector<double> exact = test::exactAreaAverage(picture, width, height);
  for (const ScalerCode code : {ScalerCode::kBest, ScalerCode::kPortable}) {
    const std::vector<uint8_t> got = scaled(picture, width, height, code);
    const double quality = test::psnrUnrounded(got, exact);
    RecordProperty(code == ScalerCode::kBest ? "psnr_best" : "psnr_portable", std::to_string(quality));
    EXPECT_GE(quality, reduction.leastPsnr) << (code == ScalerCode::kBest ? "best" : "portable");
  }
}

INSTANTIATE_TEST_SUITE_P(All, ReductionTest,
                         testing::Values(Reduction{1920, 1080, 60}, Reduction{1280, 720, 60}, Reduction{1920, 1440, 60},
                                         Reduction{1280, 960, 60}, Reduction{1366, 768, 45}, Reduction{1600, 900, 45},
                                         Reduction{1920, 1200, 45}, Reduction{3840, 2160, 45}, Reduction{1024, 768, 45},
                                         Reduction{1280, 1024, 45}, Reduction{2560, 1440, 45},
                                         Reduction{1080, 1920, 45}, Reduction{7680, 4320, 45}),
                         [](const testing::TestParamInfo<Reduction>& entry) {
                           return std::to_string(entry.param.width) + "x" + std::to_string(entry.param.height);
                         });

TEST(PictureScalerTest, WholeFactorsAreExactToTheBit) {
  for (size_t factor = 1; factor <= 16; ++factor) {
    const Picture picture = test::noisePicture(37 * factor, 5 * factor, static_cast<unsigned>(factor));
    const std::vector<uint8_t> got = scaled(picture, 37, 5);
    for (size_t y = 0; y < 5; ++y) {
      for (size_t x = 0; x < 37; ++x) {
        for (size_t channel = 0; channel < 3; ++channel) {
          size_t sum = 0;
          for (size_t r = 0; r < factor; ++r) {
            for (size_t c = 0; c < factor; ++c) {
              sum += picture.at(x * factor + c, y * factor + r)[channel];
            }
          }
          const size_t area = factor * factor;
          ASSERT_EQ(got[(y * 37 + x) * 3 + channel], (sum + area / 2) / area)
              << "factor " << factor << " at " << x << "," << y;
        }
      }
    }
  }
}

TEST(PictureScalerTest, ThePortableCodeGivesTheSameBytes) {
  std::mt19937 random(4);
  for (int round = 0; round < 150; ++round) {
    const size_t width = 1 + random() % 90;
    const size_t height = 1 + random() % 60;
    // Now and then a whole factor, where quicker code runs.
    const size_t factor = 1 + random() % 4;
    const bool whole = round % 2 == 0;
    const Picture picture = test::noisePicture(whole ? width * factor : 1 + random() % 200,
                                               whole ? height * factor : 1 + random() % 200, random());
    ASSERT_EQ(scaled(picture, width, height, ScalerCode::kBest), scaled(picture, width, height, ScalerCode::kPortable))
        << picture.width << "x" << picture.height << " -> " << width << "x" << height;
  }
}

TEST(PictureScalerTest, AFlatPictureStaysFlatAtAnySize) {
  std::mt19937 random(8);
  for (int round = 0; round < 200; ++round) {
    Picture picture(1 + random() % 300, 1 + random() % 3000);
    const auto level = static_cast<uint8_t>(random());
    std::fill(picture.bytes.begin(), picture.bytes.end(), level);
    const size_t width = 1 + random() % 200;
    const size_t height = 1 + random() % 150;
    for (const uint8_t byte : scaled(picture, width, height)) {
      ASSERT_EQ(byte, level) << picture.width << "x" << picture.height << " -> " << width << "x" << height;
    }
  }
}

TEST(PictureScalerTest, ChannelsKeepTheirOrderAndAlphaIsDropped) {
  Picture picture(6, 6);
  for (size_t i = 0; i < picture.bytes.size(); i += 4) {
    picture.bytes[i] = 10;
    picture.bytes[i + 1] = 20;
    picture.bytes[i + 2] = 30;
    picture.bytes[i + 3] = 99;
  }
  for (const size_t side : {size_t{2}, size_t{3}, size_t{4}, size_t{6}, size_t{11}}) {
    const std::vector<uint8_t> got = scaled(picture, side, side);
    for (size_t i = 0; i < got.size(); i += 3) {
      ASSERT_EQ(got[i], 10);
      ASSERT_EQ(got[i + 1], 20);
      ASSERT_EQ(got[i + 2], 30);
    }
  }
}

TEST(PictureScalerTest, EnlargingIsBilinearBetweenCentres) {
  Picture picture(2, 1);
  picture.at(0, 0)[0] = 0;
  picture.at(1, 0)[0] = 200;
  const std::vector<uint8_t> got = scaled(picture, 8, 1);
  // Centres of the outer pixels lie beyond those of the source: they keep its values.
  const int expected[8] = {0, 0, 25, 75, 125, 175, 200, 200};
  for (size_t x = 0; x < 8; ++x) {
    EXPECT_NEAR(got[x * 3], expected[x], 1) << x;
  }
}

TEST(PictureScalerTest, EnlargingIsMonotoneAndWithinTheSource) {
  const Picture picture = test::noisePicture(17, 13, 3);
  uint8_t least = 255;
  uint8_t most = 0;
  for (size_t i = 0; i < picture.bytes.size(); i += 4) {
    least = std::min(least, picture.bytes[i]);
    most = std::max(most, picture.bytes[i]);
  }
  const std::vector<uint8_t> got = scaled(picture, 111, 97);
  for (size_t i = 0; i < got.size(); i += 3) {
    ASSERT_GE(got[i], least);
    ASSERT_LE(got[i], most);
  }
}

TEST(PictureScalerTest, PaddedRowsOnBothSidesAreRespected) {
  const Picture picture = test::noisePicture(60, 30, 6);
  std::vector<uint8_t> padded(30 * 300, 0xee);
  for (size_t y = 0; y < 30; ++y) {
    std::copy_n(picture.at(0, y), 240, padded.data() + y * 300);
  }
  for (const size_t width : {size_t{20}, size_t{30}, size_t{25}}) {
    const size_t height = width / 2;
    std::vector<uint8_t> out(height * 100, 0xcc);
    PictureScaler scaler;
    scaler.scaleAndPack({padded.data(), 60, 30, 300}, {out.data(), width, height, 100});
    const std::vector<uint8_t> plain = scaled(picture, width, height);
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < 100; ++x) {
        ASSERT_EQ(out[y * 100 + x], x < width * 3 ? plain[y * width * 3 + x] : 0xcc) << x << "," << y;
      }
    }
  }
}

TEST(PictureScalerTest, EmptyPicturesAreLeftAlone) {
  PictureScaler scaler;
  const Picture picture = test::noisePicture(4, 4);
  std::vector<uint8_t> out(12, 7);
  scaler.scaleAndPack(viewOf(picture), {out.data(), 0, 2, 6});
  scaler.scaleAndPack(viewOf(picture), {out.data(), 2, 0, 6});
  scaler.scaleAndPack({nullptr, 4, 4, 16}, {out.data(), 2, 2, 6});
  scaler.scaleAndPack({picture.bytes.data(), 0, 4, 16}, {out.data(), 2, 2, 6});
  EXPECT_EQ(out, std::vector<uint8_t>(12, 7));
}

TEST(PictureScalerTest, OneScalerServesChangingSizes) {
  PictureScaler scaler;
  std::mt19937 random(2);
  for (int round = 0; round < 60; ++round) {
    const Picture picture = test::noisePicture(1 + random() % 120, 1 + random() % 120, random());
    const size_t width = 1 + random() % 64;
    const size_t height = 1 + random() % 48;
    std::vector<uint8_t> out(width * height * 3);
    scaler.scaleAndPack(viewOf(picture), {out.data(), width, height, width * 3});
    ASSERT_EQ(out, scaled(picture, width, height));
  }
}

}  // namespace
}  // namespace mirn
