// Every picture of the fuzzer's corpus: those named good-* are shown, those named bad-* are dropped, whatever came
// before them.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "platform/frame_converter.h"

namespace mirn {
namespace {

struct Sample {
  std::string name;
  std::vector<uint8_t> bytes;
  bool good = false;
};

std::vector<Sample> corpus() {
  std::vector<Sample> samples;
  for (const auto& entry : std::filesystem::directory_iterator(MIRN_JPEG_CORPUS)) {
    std::ifstream file(entry.path(), std::ios::binary);
    Sample sample;
    sample.name = entry.path().filename();
    sample.bytes.assign(std::istreambuf_iterator<char>(file), {});
    sample.good = sample.name.rfind("good-", 0) == 0;
    samples.push_back(std::move(sample));
  }
  std::sort(samples.begin(), samples.end(), [](const Sample& a, const Sample& b) { return a.name < b.name; });
  return samples;
}

FrameLayout layout() {
  FrameLayout result;
  result.pixelFormat = kCaptureMjpg;
  result.width = 64;
  result.height = 32;
  return result;
}

TEST(DamagedJpegCorpusTest, GoodPicturesAreShownAndBadOnesDroppedInAnyOrder) {
  std::vector<Sample> samples = corpus();
  ASSERT_GE(samples.size(), 25U);
  FrameConverter converter;
  const PixelBufferRef picture = PixelBuffer::create(64, 32, kPixelFormatBGRA);
  std::mt19937 random(1);
  for (int round = 0; round < 20; ++round) {
    for (const Sample& sample : samples) {
      const ConvertResult result = converter.convert(sample.bytes.data(), sample.bytes.size(), layout(), *picture);
      if (sample.name.rfind("either-", 0) == 0) {
        continue;  // bits that mean something to a decoder, but not what was drawn: shown or dropped, both are right
      }
      ASSERT_EQ(result, sample.good ? ConvertResult::kConverted : ConvertResult::kDamaged) << sample.name;
    }
    std::shuffle(samples.begin(), samples.end(), random);
  }
}

}  // namespace
}  // namespace mirn
