// The encoder: one pass that sums, one that writes.
#include <bit>
#include <cstring>

#include "device/byte_block.h"
#include "device/protocol.h"

namespace mirn {
namespace {

static_assert(kEscapedHead == kEscapedEscape + 1, "storeAllEscaped counts on it");
constexpr uint32_t kEveryByte = 0xFFFF;

uint8_t* writeEscaped(uint8_t byte, uint8_t* out) {
  if (byte == kFrameHead || byte == kFrameEscape) [[unlikely]] {
    *out++ = kFrameEscape;
    *out++ = byte == kFrameHead ? kEscapedHead : kEscapedEscape;
    return out;
  }
  *out++ = byte;
  return out;
}

bool needsEscape(uint64_t word) {
  return hasByte(word, kFrameHead) || hasByte(word, kFrameEscape);
}

void storeLittleEndian(uint64_t word, uint8_t* out) {
  for (size_t i = 0; i < sizeof(word); ++i) {
    out[i] = static_cast<uint8_t>(word >> (8 * i));
  }
}

// Length, index, checksum and command: seven bytes, of which almost never one needs an escape. The output has room for
// the eighth byte that is written then.
uint8_t* writeFields(uint16_t length, uint16_t packet_index, uint16_t checksum, uint8_t command, uint8_t* out) {
  const uint64_t fields =
      uint64_t{length} | uint64_t{packet_index} << 16 | uint64_t{checksum} << 32 | uint64_t{command} << 48;
  constexpr size_t kFieldBytes = 7;
  if (!needsEscape(fields)) {
    storeLittleEndian(fields, out);
    return out + kFieldBytes;
  }
  for (size_t i = 0; i < kFieldBytes; ++i) {
    out = writeEscaped(static_cast<uint8_t>(fields >> (8 * i)), out);
  }
  return out;
}

// One block of which the bytes in `escapes` need it. Each step copies sixteen bytes and keeps the run in front of the
// next escape, so sixteen bytes of payload must stand behind the block, and the output has room for them (it holds two
// bytes for each byte of payload).
uint8_t* writeMixedBlock(const uint8_t* block, uint32_t escapes, uint8_t* out) {
  size_t from = 0;
  while (escapes != 0) {
    const auto at = static_cast<size_t>(std::countr_zero(escapes));
    storeBlock(out, loadBlock(block + from));
    out += at - from;
    *out++ = kFrameEscape;
    *out++ = block[at] == kFrameHead ? kEscapedHead : kEscapedEscape;
    from = at + 1;
    escapes &= escapes - 1;
  }
  storeBlock(out, loadBlock(block + from));
  return out + (kBlockBytes - from);
}

uint8_t* writeEscapedPayload(const uint8_t* payload, size_t size, uint8_t* out) {
  size_t left = size;
  while (left >= kBlockBytes) {
    const ByteBlock block = loadBlock(payload);
    const uint32_t escapes = findEither(block, kFrameHead, kFrameEscape);
    if (escapes == 0) {
      storeBlock(out, block);
      out += kBlockBytes;
    } else if (escapes == kEveryByte) {
      storeAllEscaped(out, block, kFrameEscape, kFrameHead, kEscapedEscape);
      out += 2 * kBlockBytes;
    } else if (left >= 2 * kBlockBytes) {
      out = writeMixedBlock(payload, escapes, out);
    } else {
      break;
    }
    payload += kBlockBytes;
    left -= kBlockBytes;
  }
  uint64_t word = 0;
  if (left >= sizeof(word)) {
    std::memcpy(&word, payload, sizeof(word));
    if (!needsEscape(word)) {
      std::memcpy(out, &word, sizeof(word));
      out += sizeof(word);
      payload += sizeof(word);
      left -= sizeof(word);
    }
  }
  for (; left != 0; --left) {
    out = writeEscaped(*payload++, out);
  }
  return out;
}

}  // namespace

int protocol_pack(uint8_t command, const uint8_t* payload, size_t payload_len, uint16_t packet_index, uint8_t* out) {
  if (payload == nullptr && payload_len != 0) {
    return -1;
  }
  const auto length = static_cast<uint16_t>(payload_len + kFrameOverhead);
  const auto checksum = static_cast<uint16_t>(command + sumBytes(payload, payload_len) + kFrameTail);

  uint8_t* at = out;
  *at++ = kFrameHead;
  at = writeFields(length, packet_index, checksum, command, at);
  // The wrapped length decides: a payload of 65,530 bytes is announced as none and sent as none.
  if (length > kFrameOverhead) {
    at = writeEscapedPayload(payload, payload_len, at);
  }
  *at++ = kFrameTail;
  return static_cast<int>(at - out);
}

}  // namespace mirn
