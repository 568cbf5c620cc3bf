// Writing Intel HEX in tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace mirn {

// One record without its line end; the checksum is right.
inline std::string hexRecord(uint8_t type, uint16_t address, std::span<const uint8_t> data) {
  std::string record = ":";
  unsigned sum = 0;
  const auto add = [&record, &sum](unsigned byte) {
    record += "0123456789ABCDEF"[byte >> 4 & 15];
    record += "0123456789ABCDEF"[byte & 15];
    sum += byte;
  };
  add(static_cast<unsigned>(data.size()));
  add(address >> 8);
  add(address & 0xFF);
  add(type);
  for (const uint8_t byte : data) add(byte);
  add((0x100 - sum % 0x100) % 0x100);
  return record;
}

inline std::string hexEnd() {
  return hexRecord(1, 0, {});
}

// A whole file of `image`, in records of at most `per_record` bytes from address 0 on, with linear base addresses.
inline std::string hexFile(std::span<const uint8_t> image, size_t per_record, const std::string& ending) {
  std::string text;
  size_t at = 0;
  while (at < image.size()) {
    if (at % 0x10000 == 0 && at > 0) {
      const uint8_t base[2] = {static_cast<uint8_t>(at >> 24), static_cast<uint8_t>(at >> 16)};
      text += hexRecord(4, 0, base) + ending;
    }
    const size_t to_border = 0x10000 - at % 0x10000;
    const size_t length = std::min({per_record, image.size() - at, to_border});
    text += hexRecord(0, static_cast<uint16_t>(at), image.subspan(at, length)) + ending;
    at += length;
  }
  return text + hexEnd() + ending;
}

// `size` bytes without a pattern that a shift could hide.
inline std::vector<uint8_t> testImage(size_t size) {
  std::vector<uint8_t> image(size);
  uint32_t state = 12345;
  for (uint8_t& byte : image) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return image;
}

}  // namespace mirn
