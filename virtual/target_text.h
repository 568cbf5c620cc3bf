// What the target's keyboard driver makes of HID usages (US layout), and the text that its editor holds. Written from
// the HID usage tables alone; it shares nothing with the library's own key tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mirn {

// HID boot-keyboard modifier bits.
inline constexpr uint8_t kTargetCtrl = 0x11;   // left 0x01, right 0x10
inline constexpr uint8_t kTargetShift = 0x22;  // left 0x02, right 0x20
inline constexpr uint8_t kTargetAlt = 0x44;    // left 0x04, right 0x40
inline constexpr uint8_t kTargetGui = 0x88;    // left 0x08, right 0x80

inline constexpr uint8_t kUsageCapsLock = 0x39;

// The character that a key press types, 0 for none. Ctrl, Alt and Gui chords type nothing.
char typedCharacter(uint8_t usage, uint8_t modifiers, bool caps_lock);

// An editor of fixed width: text, caret, lines that wrap hard at the width; the oldest lines go when there are too
// many. Reentrant.
class TargetText {
 public:
  static constexpr size_t kColumns = 58;
  static constexpr size_t kMaxLines = 200;

  // One key press: text keys, Enter, Backspace, Tab (to the next multiple of four), Delete, arrows, Home, End.
  // Returns whether the text or the caret changed.
  bool press(uint8_t usage, uint8_t modifiers, bool caps_lock);

  const std::vector<std::string>& lines() const { return lines_; }
  size_t caretLine() const { return line_; }
  size_t caretColumn() const { return column_; }
  std::string text() const;

 private:
  void insert(char character);
  void breakLine();
  bool eraseBefore();
  bool eraseAfter();
  bool moveCaret(uint8_t usage);

  std::vector<std::string> lines_{""};
  size_t line_ = 0;
  size_t column_ = 0;
};

}  // namespace mirn
