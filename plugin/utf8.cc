#include "plugin/utf8.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace mirn {
namespace {

// A lead byte range, how many bytes follow, and the range of the first of them (Unicode 15, table 3-7). The others
// are 80..BF.
struct Lead {
  uint8_t first;
  uint8_t last;
  uint8_t following;
  uint8_t low;
  uint8_t high;
};

constexpr std::array<Lead, 9> kLeads = {{
    {0x00, 0x7F, 0, 0, 0},
    {0xC2, 0xDF, 1, 0x80, 0xBF},
    {0xE0, 0xE0, 2, 0xA0, 0xBF},
    {0xE1, 0xEC, 2, 0x80, 0xBF},
    {0xED, 0xED, 2, 0x80, 0x9F},
    {0xEE, 0xEF, 2, 0x80, 0xBF},
    {0xF0, 0xF0, 3, 0x90, 0xBF},
    {0xF1, 0xF3, 3, 0x80, 0xBF},
    {0xF4, 0xF4, 3, 0x80, 0x8F},
}};

// Bytes of the sequence at the head of `text`, 0 when it is none.
size_t sequenceLength(std::string_view text) {
  const auto at = [&text](size_t index) { return static_cast<uint8_t>(text[index]); };
  for (const Lead& lead : kLeads) {
    if (at(0) < lead.first || at(0) > lead.last) continue;
    if (text.size() <= lead.following) return 0;
    if (lead.following > 0 && (at(1) < lead.low || at(1) > lead.high)) return 0;
    for (size_t i = 2; i <= lead.following; ++i) {
      if (at(i) < 0x80 || at(i) > 0xBF) return 0;
    }
    return lead.following + size_t{1};
  }
  return 0;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = sequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace mirn
