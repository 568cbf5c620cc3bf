#include "virtual/wire.h"

#include <numeric>

namespace mirn {
namespace {

constexpr uint8_t kHead = 0xAA;
constexpr uint8_t kTail = 0xBB;
constexpr uint8_t kEscape = 0xCC;

// Where things stand in the unescaped content behind the head.
constexpr size_t kLengthAt = 0;
constexpr size_t kIndexAt = 2;
constexpr size_t kChecksumAt = 4;
constexpr size_t kCommandAt = 6;
constexpr size_t kPayloadAt = 7;
// The length field counts the payload and six more: index, checksum, command, tail.
constexpr size_t kUncountedBytes = 6;

uint16_t read16(const std::vector<uint8_t>& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] + 256 * bytes[at + 1]);
}

}  // namespace

bool WireParser::take(uint8_t byte) {
  if (byte == kHead) {
    if (inside_) {
      fail();
    }
    inside_ = true;
    frame_.wire.assign(1, byte);
    return false;
  }
  if (!inside_) {
    ++counters_.stray_bytes;
    return false;
  }
  frame_.wire.push_back(byte);
  if (escape_) {
    escape_ = false;
    if (byte != 1 && byte != 2) {
      fail();
      return false;
    }
    content_.push_back(byte == 1 ? kEscape : kHead);
  } else if (byte == kEscape) {
    escape_ = true;
    return false;
  } else if (content_.size() > kIndexAt && content_.size() == read16(content_, kLengthAt) + 1U) {
    return finish(byte);
  } else {
    content_.push_back(byte);
  }
  return judgeLength();
}

// Always false, so that take() can end with it: no frame is complete without its tail.
bool WireParser::judgeLength() {
  if (content_.size() == kIndexAt) {
    const size_t length = read16(content_, kLengthAt);
    if (length < kUncountedBytes || length > kMaxPayload + kUncountedBytes) {
      fail();
    }
  } else if (content_.size() > kIndexAt && content_.size() > read16(content_, kLengthAt) + 1U) {
    fail();  // an escaped byte in the tail's place
  }
  return false;
}

bool WireParser::finish(uint8_t tail) {
  const unsigned sum = std::accumulate(content_.begin() + kCommandAt, content_.end(), unsigned{kTail});
  if (tail != kTail || (sum & 0xFFFFU) != read16(content_, kChecksumAt)) {
    fail();
    return false;
  }
  frame_.command = content_[kCommandAt];
  frame_.packet_index = read16(content_, kIndexAt);
  frame_.payload.assign(content_.begin() + kPayloadAt, content_.end());
  inside_ = false;
  content_.clear();
  return true;
}

void WireParser::fail() {
  ++counters_.bad_frames;
  inside_ = false;
  escape_ = false;
  content_.clear();
}

void WireParser::reset() {
  if (inside_) {
    fail();
  }
}

std::vector<uint8_t> buildWireFrame(uint8_t command, uint16_t packet_index, std::span<const uint8_t> payload,
                                    uint16_t checksum_error) {
  const size_t length = payload.size() + kUncountedBytes;
  const unsigned sum = std::accumulate(payload.begin(), payload.end(), unsigned{command} + kTail);
  const unsigned checksum = (sum & 0xFFFFU) ^ checksum_error;

  std::vector<uint8_t> content;
  content.reserve(kPayloadAt + payload.size());
  for (const size_t field : {length, size_t{packet_index}, size_t{checksum}}) {
    content.push_back(static_cast<uint8_t>(field % 256));
    content.push_back(static_cast<uint8_t>(field / 256 % 256));
  }
  content.push_back(command);
  content.insert(content.end(), payload.begin(), payload.end());

  std::vector<uint8_t> wire{kHead};
  wire.reserve(2 * content.size() + 2);
  for (const uint8_t byte : content) {
    if (byte == kHead) {
      wire.insert(wire.end(), {kEscape, 2});
    } else if (byte == kEscape) {
      wire.insert(wire.end(), {kEscape, 1});
    } else {
      wire.push_back(byte);
    }
  }
  wire.push_back(kTail);
  return wire;
}

}  // namespace mirn
