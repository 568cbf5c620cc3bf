#include "virtual/frame_strip.h"

#include <algorithm>
#include <span>

namespace mirn {
namespace {

constexpr uint8_t kMagic = 0xB2;
constexpr size_t kContentBytes = 9;  // the magic, the frame number, the digest
constexpr int kThreshold = 128;      // cells are black or white; the middle serves full and video range

// CRC-16 with the CCITT polynomial 0x1021, start 0xFFFF.
uint16_t crc16(std::span<const uint8_t> bytes) {
  uint32_t crc = 0xFFFF;
  for (const uint8_t byte : bytes) {
    crc ^= static_cast<uint32_t>(byte) << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x8000U) != 0 ? (crc << 1) ^ 0x1021U : crc << 1;
    }
    crc &= 0xFFFFU;
  }
  return static_cast<uint16_t>(crc);
}

void putBig32(uint8_t* bytes, uint32_t value) {
  for (int i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
  }
}

uint32_t takeBig32(const uint8_t* bytes) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) {
    value = (value << 8) | bytes[i];
  }
  return value;
}

// The mean of the middle half of one cell: its edges are what scaling and compression blur.
int cellBrightness(const StripPicture& picture, double left, double top, double cell) {
  const int x0 = std::clamp(static_cast<int>(left + cell / 4), 0, picture.width - 1);
  const int y0 = std::clamp(static_cast<int>(top + cell / 4), 0, picture.height - 1);
  const int x1 = std::clamp(static_cast<int>(left + cell * 3 / 4), x0 + 1, picture.width);
  const int y1 = std::clamp(static_cast<int>(top + cell * 3 / 4), y0 + 1, picture.height);
  int64_t sum = 0;
  for (int y = y0; y < y1; ++y) {
    const uint8_t* row = picture.samples + static_cast<size_t>(y) * picture.stride;
    for (int x = x0; x < x1; ++x) {
      sum += row[static_cast<size_t>(x) * picture.step];
    }
  }
  return static_cast<int>(sum / (static_cast<int64_t>(x1 - x0) * (y1 - y0)));
}

}  // namespace

StripBits encodeStrip(const StripContent& content) {
  std::array<uint8_t, kContentBytes + 2> bytes{};
  bytes[0] = kMagic;
  putBig32(&bytes[1], content.frame_number);
  putBig32(&bytes[5], content.input_digest);
  const uint16_t crc = crc16(std::span(bytes).first(kContentBytes));
  bytes[kContentBytes] = static_cast<uint8_t>(crc >> 8);
  bytes[kContentBytes + 1] = static_cast<uint8_t>(crc);
  StripBits bits{};
  for (size_t i = 0; i < bits.size(); ++i) {
    bits[i] = ((bytes[i / 8] >> (7 - i % 8)) & 1) != 0;
  }
  return bits;
}

std::optional<StripContent> decodeStrip(const StripBits& bits) {
  std::array<uint8_t, kContentBytes + 2> bytes{};
  for (size_t i = 0; i < bits.size(); ++i) {
    bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] << 1 | (bits[i] ? 1 : 0));
  }
  const uint16_t crc = static_cast<uint16_t>(bytes[kContentBytes] << 8 | bytes[kContentBytes + 1]);
  if (bytes[0] != kMagic || crc != crc16(std::span(bytes).first(kContentBytes))) {
    return std::nullopt;
  }
  return StripContent{takeBig32(&bytes[1]), takeBig32(&bytes[5])};
}

StripGeometry stripGeometry(int width, int height) {
  const double cell = static_cast<double>(width) / kStripCellsPerWidth;
  return {cell, width - cell * kStripColumns, height - cell * kStripRows};
}

std::optional<StripContent> readStrip(const StripPicture& picture) {
  const StripGeometry place = stripGeometry(picture.width, picture.height);
  if (picture.samples == nullptr || place.cell < 2 || place.top < 0) {
    return std::nullopt;
  }
  StripBits bits{};
  for (size_t i = 0; i < bits.size(); ++i) {
    const size_t column = i % kStripColumns;
    const size_t row = i / kStripColumns;
    const double left = place.left + static_cast<double>(column) * place.cell;
    const double top = place.top + static_cast<double>(row) * place.cell;
    bits[i] = cellBrightness(picture, left, top, place.cell) >= kThreshold;
  }
  return decodeStrip(bits);
}

std::optional<StripContent> readStripBgra(const uint8_t* pixels, int width, int height, size_t stride) {
  if (pixels == nullptr) {
    return std::nullopt;
  }
  return readStrip({pixels + 1, width, height, stride, 4});
}

}  // namespace mirn
