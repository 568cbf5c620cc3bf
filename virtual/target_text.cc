#include "virtual/target_text.h"

#include <algorithm>
#include <utility>

namespace mirn {
namespace {

constexpr uint8_t kUsageEnter = 0x28;
constexpr uint8_t kUsageBackspace = 0x2A;
constexpr uint8_t kUsageTab = 0x2B;
constexpr uint8_t kUsageHome = 0x4A;
constexpr uint8_t kUsageDelete = 0x4C;
constexpr uint8_t kUsageEnd = 0x4D;
constexpr uint8_t kUsageRight = 0x4F;
constexpr uint8_t kUsageLeft = 0x50;
constexpr uint8_t kUsageDown = 0x51;
constexpr uint8_t kUsageUp = 0x52;
constexpr uint8_t kUsageKeypadEnter = 0x58;
constexpr size_t kTabWidth = 4;

struct KeyFace {
  uint8_t usage;
  char plain;
  char shifted;
};

// Every key of the US layout that types and is no letter (HID usage tables, page 0x07).
constexpr KeyFace kFaces[] = {
    {0x1E, '1', '!'}, {0x1F, '2', '@'}, {0x20, '3', '#'}, {0x21, '4', '$'},  {0x22, '5', '%'}, {0x23, '6', '^'},
    {0x24, '7', '&'}, {0x25, '8', '*'}, {0x26, '9', '('}, {0x27, '0', ')'},  {0x2C, ' ', ' '}, {0x2D, '-', '_'},
    {0x2E, '=', '+'}, {0x2F, '[', '{'}, {0x30, ']', '}'}, {0x31, '\\', '|'}, {0x33, ';', ':'}, {0x34, '\'', '"'},
    {0x35, '`', '~'}, {0x36, ',', '<'}, {0x37, '.', '>'}, {0x38, '/', '?'},  {0x54, '/', '/'}, {0x55, '*', '*'},
    {0x56, '-', '-'}, {0x57, '+', '+'}, {0x59, '1', '1'}, {0x5A, '2', '2'},  {0x5B, '3', '3'}, {0x5C, '4', '4'},
    {0x5D, '5', '5'}, {0x5E, '6', '6'}, {0x5F, '7', '7'}, {0x60, '8', '8'},  {0x61, '9', '9'}, {0x62, '0', '0'},
    {0x63, '.', '.'},
};

constexpr uint8_t kUsageA = 0x04;
constexpr uint8_t kUsageZ = 0x1D;

}  // namespace

char typedCharacter(uint8_t usage, uint8_t modifiers, bool caps_lock) {
  if ((modifiers & (kTargetCtrl | kTargetAlt | kTargetGui)) != 0) {
    return 0;
  }
  const bool shift = (modifiers & kTargetShift) != 0;
  if (usage >= kUsageA && usage <= kUsageZ) {
    return static_cast<char>((shift != caps_lock ? 'A' : 'a') + (usage - kUsageA));
  }
  for (const KeyFace& face : kFaces) {
    if (face.usage == usage) {
      return shift ? face.shifted : face.plain;
    }
  }
  return 0;
}

bool TargetText::press(uint8_t usage, uint8_t modifiers, bool caps_lock) {
  if (const char character = typedCharacter(usage, modifiers, caps_lock); character != 0) {
    insert(character);
    return true;
  }
  if ((modifiers & (kTargetCtrl | kTargetAlt | kTargetGui)) != 0) {
    return false;
  }
  switch (usage) {
    case kUsageEnter:
    case kUsageKeypadEnter:
      breakLine();
      return true;
    case kUsageTab:
      do {
        insert(' ');
      } while (column_ % kTabWidth != 0);
      return true;
    case kUsageBackspace:
      return eraseBefore();
    case kUsageDelete:
      return eraseAfter();
    default:
      return moveCaret(usage);
  }
}

std::string TargetText::text() const {
  std::string all;
  for (size_t i = 0; i < lines_.size(); ++i) {
    if (i > 0) {
      all += '\n';
    }
    all += lines_[i];
  }
  return all;
}

void TargetText::insert(char character) {
  if (column_ >= kColumns) {
    breakLine();
  }
  std::string& line = lines_[line_];
  line.insert(line.begin() + static_cast<std::ptrdiff_t>(column_), character);
  ++column_;
  if (line.size() > kColumns) {
    // Typed in the middle of a full line: what sticks out begins the next one.
    std::string rest = line.substr(kColumns);
    line.resize(kColumns);
    lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(line_) + 1, std::move(rest));
    if (lines_.size() > kMaxLines) {
      lines_.erase(lines_.begin());
      line_ -= line_ > 0 ? 1 : 0;
      column_ = std::min(column_, lines_[line_].size());
    }
  }
}

void TargetText::breakLine() {
  std::string rest = lines_[line_].substr(column_);
  lines_[line_].resize(column_);
  lines_.insert(lines_.begin() + static_cast<std::ptrdiff_t>(line_) + 1, std::move(rest));
  ++line_;
  column_ = 0;
  if (lines_.size() > kMaxLines) {
    lines_.erase(lines_.begin());
    --line_;
  }
}

bool TargetText::eraseBefore() {
  if (column_ > 0) {
    --column_;
    lines_[line_].erase(column_, 1);
    return true;
  }
  if (line_ == 0) {
    return false;
  }
  // Joins with the line above as far as that one has room; a full line keeps its rest below.
  --line_;
  column_ = lines_[line_].size();
  std::string joined = lines_[line_] + lines_[line_ + 1];
  if (joined.size() <= kColumns) {
    lines_[line_] = std::move(joined);
    lines_.erase(lines_.begin() + static_cast<std::ptrdiff_t>(line_) + 1);
  } else {
    lines_[line_ + 1] = joined.substr(kColumns);
    joined.resize(kColumns);
    lines_[line_] = std::move(joined);
  }
  return true;
}

bool TargetText::eraseAfter() {
  if (column_ < lines_[line_].size()) {
    lines_[line_].erase(column_, 1);
    return true;
  }
  if (line_ + 1 >= lines_.size()) {
    return false;
  }
  ++line_;
  column_ = 0;
  return eraseBefore();
}

bool TargetText::moveCaret(uint8_t usage) {
  const size_t old_line = line_;
  const size_t old_column = column_;
  switch (usage) {
    case kUsageHome:
      column_ = 0;
      break;
    case kUsageEnd:
      column_ = lines_[line_].size();
      break;
    case kUsageLeft:
      if (column_ > 0) {
        --column_;
      } else if (line_ > 0) {
        column_ = lines_[--line_].size();
      }
      break;
    case kUsageRight:
      if (column_ < lines_[line_].size()) {
        ++column_;
      } else if (line_ + 1 < lines_.size()) {
        ++line_;
        column_ = 0;
      }
      break;
    case kUsageUp:
      line_ -= line_ > 0 ? 1 : 0;
      break;
    case kUsageDown:
      line_ += line_ + 1 < lines_.size() ? 1 : 0;
      break;
    default:
      break;
  }
  column_ = std::min(column_, lines_[line_].size());
  return line_ != old_line || column_ != old_column;
}

}  // namespace mirn
