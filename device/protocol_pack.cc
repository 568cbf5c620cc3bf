// The encoder: one pass that sums, one that writes.
#include <bit>

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

uint8_t* writeEscaped16(uint16_t value, uint8_t* out) {
  out = writeEscaped(static_cast<uint8_t>(value & 0xFF), out);
  return writeEscaped(static_cast<uint8_t>(value >> 8), out);
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
  at = writeEscaped16(length, at);
  at = writeEscaped16(packet_index, at);
  at = writeEscaped16(checksum, at);
  at = writeEscaped(command, at);
  // The wrapped length decides: a payload of 65,530 bytes is announced as none and sent as none.
  if (length > kFrameOverhead) {
    at = writeEscapedPayload(payload, payload_len, at);
  }
  *at++ = kFrameTail;
  return static_cast<int>(at - out);
}

}  // namespace mirn
