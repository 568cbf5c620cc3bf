#include "platform/jpeg_header.h"

namespace mirn {
namespace {

constexpr uint8_t kMarker = 0xff;
constexpr uint8_t kLastSequentialFrame = 0xc1;
constexpr uint8_t kLastFrame = 0xcf;
constexpr uint8_t kHuffmanTables = 0xc4;
constexpr uint8_t kArithmeticConditions = 0xcc;
constexpr uint8_t kStandaloneFirst = 0xd0;  // restarts, start and end: no length follows
constexpr uint8_t kStandaloneLast = 0xd9;
constexpr uint8_t kScan = 0xda;
constexpr uint8_t kQuantisation = 0xdb;

// A segment's content. Tables stand in it one after the other, each behind a byte of class and index.
struct Segment {
  const uint8_t* bytes;
  size_t size;
};

uint32_t quantisationBits(const Segment& segment) {
  uint32_t bits = 0;
  for (size_t at = 0; at < segment.size;) {
    const uint8_t kind = segment.bytes[at];
    bits |= 1U << (kind & 3);
    at += 1 + (kind >> 4 != 0 ? 128 : 64);
  }
  return bits;
}

uint32_t huffmanBits(const Segment& segment) {
  constexpr size_t kCounts = 16;
  uint32_t bits = 0;
  for (size_t at = 0; at + kCounts < segment.size;) {
    const uint8_t kind = segment.bytes[at];
    bits |= 1U << ((kind & 3) + ((kind & 0x10) != 0 ? 8 : 4));
    size_t symbols = 0;
    for (size_t i = 1; i <= kCounts; ++i) {
      symbols += segment.bytes[at + i];
    }
    at += 1 + kCounts + symbols;
  }
  return bits;
}

bool isOtherFrame(uint8_t code) {
  return code > kLastSequentialFrame && code <= kLastFrame && code != kHuffmanTables && code != kArithmeticConditions;
}

}  // namespace

JpegTables jpegTables(const uint8_t* bytes, size_t size) {
  JpegTables tables;
  size_t at = 0;
  while (at + 1 < size) {
    if (bytes[at] != kMarker || bytes[at + 1] == kMarker || bytes[at + 1] == 0) {
      ++at;  // fill, or bytes that the decoder skips too
      continue;
    }
    const uint8_t code = bytes[at + 1];
    at += 2;
    if (code == kScan) {
      break;
    }
    if (code >= kStandaloneFirst && code <= kStandaloneLast) {
      continue;
    }
    if (at + 2 > size) {
      break;
    }
    const size_t length = static_cast<size_t>(bytes[at]) << 8 | bytes[at + 1];
    if (length < 2 || at + length > size) {
      break;
    }
    const Segment segment = {bytes + at + 2, length - 2};
    if (code == kQuantisation) {
      tables.defined |= quantisationBits(segment);
    } else if (code == kHuffmanTables) {
      tables.defined |= huffmanBits(segment);
    } else {
      tables.more = tables.more || isOtherFrame(code);
    }
    at += length;
  }
  return tables;
}

}  // namespace mirn
