#include "virtual/usb/frame_source.h"

#include <array>

namespace mirn {

namespace {

constexpr int kNumberBits = 32;
constexpr uint8_t kBlack = 16;
constexpr uint8_t kWhite = 235;

struct Bar {
  uint8_t u;
  uint8_t v;
};
constexpr std::array<Bar, 8> kBars = {
    {{128, 128}, {16, 146}, {166, 16}, {54, 34}, {202, 222}, {90, 240}, {240, 110}, {128, 128}}};

Bar barAt(int x, int width) {
  return kBars.at(static_cast<size_t>(x * static_cast<int>(kBars.size()) / width));
}

uint8_t lumaAt(int x, int y, uint32_t number) {
  if (y == 0 && x < kNumberBits) return (number >> (kNumberBits - 1 - x) & 1) != 0 ? kWhite : kBlack;
  return static_cast<uint8_t>(kBlack + (static_cast<uint32_t>(x + y) + 4 * number) % (kWhite - kBlack));
}

void drawYuyv(int width, int height, uint32_t number, std::vector<uint8_t>& bytes) {
  bytes.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 2);
  uint8_t* out = bytes.data();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; x += 2) {
      const Bar bar = barAt(x, width);
      *out++ = lumaAt(x, y, number);
      *out++ = bar.u;
      *out++ = lumaAt(x + 1, y, number);
      *out++ = bar.v;
    }
  }
}

void drawNv12(int width, int height, uint32_t number, std::vector<uint8_t>& bytes) {
  bytes.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2);
  uint8_t* out = bytes.data();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) *out++ = lumaAt(x, y, number);
  }
  for (int y = 0; y < height / 2; ++y) {
    for (int x = 0; x < width; x += 2) {
      const Bar bar = barAt(x, width);
      *out++ = bar.u;
      *out++ = bar.v;
    }
  }
}

}  // namespace

bool TestPattern::nextFrame(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) {
  if (!VirtualTarget::supports(width, height)) return false;
  switch (format) {
    case TargetFormat::kYuyv:
      drawYuyv(width, height, number_++, bytes);
      return true;
    case TargetFormat::kNv12:
      drawNv12(width, height, number_++, bytes);
      return true;
    case TargetFormat::kMjpeg:
      if (mjpeg_ == nullptr) mjpeg_ = std::make_unique<VirtualTarget>();
      return mjpeg_->render(format, width, height, bytes);
  }
  return false;
}

uint32_t TestPattern::numberIn(TargetFormat format, const std::vector<uint8_t>& bytes) {
  const size_t step = format == TargetFormat::kYuyv ? 2 : 1;
  uint32_t number = 0;
  for (size_t bit = 0; bit < kNumberBits && bit * step < bytes.size(); ++bit) {
    number = number << 1 | (bytes[bit * step] > 128 ? 1U : 0U);
  }
  return number;
}

}  // namespace mirn
