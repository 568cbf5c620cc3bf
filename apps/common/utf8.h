// Reading UTF-8 one character at a time, and the device's limit on names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

// One character; `valid` false stands for one byte that is no UTF-8, with the byte as its code.
struct Utf8Character {
  char32_t code = 0;
  bool valid = true;
};

// Overlong forms, surrogates and codes above 0x10FFFF are not valid.
std::vector<Utf8Character> utf8Characters(std::string_view text);

// The bytes of one character; U+FFFD for a code that has none.
std::string utf8Of(char32_t code);

// A device name: at most 20 bytes of UTF-8 without control characters.
constexpr size_t kDeviceNameBytes = 20;

struct NameCheck {
  bool ok = false;
  size_t bytes = 0;
  std::string reason;  // one line; empty when ok
};
NameCheck checkDeviceName(std::string_view name);

}  // namespace mirn
