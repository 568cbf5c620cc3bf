// Integers in the two byte orders of this room: USB is little-endian, USB/IP big-endian.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace mirn {

// Appends little-endian fields.
class LittleEndianWriter {
 public:
  LittleEndianWriter& u8(uint32_t value) {
    bytes_.push_back(static_cast<uint8_t>(value));
    return *this;
  }
  LittleEndianWriter& u16(uint32_t value) { return u8(value & 0xff).u8(value >> 8 & 0xff); }
  LittleEndianWriter& u32(uint32_t value) { return u16(value & 0xffff).u16(value >> 16); }
  LittleEndianWriter& raw(std::span<const uint8_t> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  size_t size() const { return bytes_.size(); }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

// `bytes` has at least 4 (2) bytes at `at`.
inline uint32_t readLittle32(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
         static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}
inline uint32_t readBig32(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint32_t>(bytes[at]) << 24 | static_cast<uint32_t>(bytes[at + 1]) << 16 |
         static_cast<uint32_t>(bytes[at + 2]) << 8 | static_cast<uint32_t>(bytes[at + 3]);
}
inline void writeBig32(std::span<uint8_t> bytes, size_t at, uint32_t value) {
  bytes[at] = static_cast<uint8_t>(value >> 24);
  bytes[at + 1] = static_cast<uint8_t>(value >> 16);
  bytes[at + 2] = static_cast<uint8_t>(value >> 8);
  bytes[at + 3] = static_cast<uint8_t>(value);
}

}  // namespace mirn
