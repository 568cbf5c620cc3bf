// The plain conversion once more, character by character.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

namespace mirn {

inline std::optional<std::vector<uint8_t>> plainModel(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto value = [](char c) -> int {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    const char* found = c == '\0' ? nullptr : std::strchr(kDigits, c);
    return found == nullptr ? -1 : static_cast<int>(found - kDigits);
  };
  std::vector<uint8_t> image;
  while (!text.empty()) {
    size_t length = 0;
    while (length < 63 && length < text.size() && (length == 0 || text[length - 1] != '\n')) ++length;
    const std::string_view line = text.substr(0, length);
    text.remove_prefix(length);
    if (length < 9) return {};
    if (line[8] != '0') continue;
    for (size_t i = 9; i + 4 < length; i += 2) {
      const int high = value(line[i]);
      const int low = value(line[i + 1]);
      if (high < 0 || low < 0) return {};
      image.push_back(static_cast<uint8_t>(high * 16 + low));
    }
  }
  return image;
}

}  // namespace mirn
