// Typing a text through key presses: which keys make a character on the target's layout, and what can't be typed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

struct LayoutKey {
  uint8_t virtual_key = 0;
  bool shift = false;
};

// A target layout: the character's key, or nothing.
struct KeyboardLayout {
  const char* id;     // "us"
  const char* label;  // "English (US)"
  std::optional<LayoutKey> (*keyOf)(char32_t character);
};

// The layouts that can be chosen, US first.
std::span<const KeyboardLayout> keyboardLayouts();
const KeyboardLayout* keyboardLayout(std::string_view id);

// One key event.
struct KeyStep {
  uint8_t virtual_key = 0;
  bool down = false;

  bool operator==(const KeyStep&) const = default;
};

// A character that has no key, with how often it stands in the text and where it first does (1-based).
struct Untypable {
  std::string shown;  // the character, or "U+0007", or "byte 0xFF"
  size_t count = 0;
  size_t line = 0;
  size_t column = 0;
};

struct TypingPlan {
  std::vector<KeyStep> steps;
  // ends[i] = number of steps after which the i-th typable character is whole.
  std::vector<size_t> ends;
  std::vector<Untypable> untypable;  // in the order of their first place

  size_t characters() const { return ends.size(); }
  // Characters that are whole after `steps_done` steps.
  size_t charactersDone(size_t steps_done) const;
};

// CR LF and a lone CR are one Enter. Shift is pressed once for a run of characters that want it. Characters that can't
// be typed are left out of the steps.
TypingPlan planTyping(std::string_view text, const KeyboardLayout& layout);

// "3 characters can't be typed: 'é' (2, first at line 1, column 4), ..." or empty.
std::string untypableSummary(const TypingPlan& plan);

}  // namespace mirn
