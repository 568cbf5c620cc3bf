#include "apps/common/text_typing.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include "apps/common/utf8.h"

namespace mirn {
namespace {

constexpr uint8_t kShift = 160;

struct UsCharacter {
  char character;
  LayoutKey key;
};

// The characters of a US keyboard that follow no rule.
constexpr UsCharacter kUsCharacters[] = {
    {'\n', {13, false}}, {'\t', {9, false}},  {' ', {32, false}},  {'!', {'1', true}},   {'@', {'2', true}},
    {'#', {'3', true}},  {'$', {'4', true}},  {'%', {'5', true}},  {'^', {'6', true}},   {'&', {'7', true}},
    {'*', {'8', true}},  {'(', {'9', true}},  {')', {'0', true}},  {';', {186, false}},  {':', {186, true}},
    {'=', {187, false}}, {'+', {187, true}},  {',', {188, false}}, {'<', {188, true}},   {'-', {189, false}},
    {'_', {189, true}},  {'.', {190, false}}, {'>', {190, true}},  {'/', {191, false}},  {'?', {191, true}},
    {'`', {192, false}}, {'~', {192, true}},  {'[', {219, false}}, {'{', {219, true}},   {'\\', {220, false}},
    {'|', {220, true}},  {']', {221, false}}, {'}', {221, true}},  {'\'', {222, false}}, {'"', {222, true}},
};

std::optional<LayoutKey> usKeyOf(char32_t character) {
  if (character >= 'a' && character <= 'z') {
    return LayoutKey{static_cast<uint8_t>(character - 'a' + 'A'), false};
  }
  if (character >= 'A' && character <= 'Z') {
    return LayoutKey{static_cast<uint8_t>(character), true};
  }
  if (character >= '0' && character <= '9') {
    return LayoutKey{static_cast<uint8_t>(character), false};
  }
  for (const UsCharacter& entry : kUsCharacters) {
    if (static_cast<char32_t>(entry.character) == character) {
      return entry.key;
    }
  }
  return std::nullopt;
}

constexpr KeyboardLayout kLayouts[] = {{"us", "English (US)", &usKeyOf}};

// Builds the steps, holding Shift over runs.
class StepWriter {
 public:
  explicit StepWriter(TypingPlan& plan) : plan_(plan) {}

  void type(LayoutKey key) {
    hold(key.shift);
    plan_.steps.push_back({key.virtual_key, true});
    plan_.steps.push_back({key.virtual_key, false});
    plan_.ends.push_back(plan_.steps.size());
  }
  void hold(bool shift) {
    if (shift != shifted_) {
      plan_.steps.push_back({kShift, shift});
      shifted_ = shift;
    }
  }

 private:
  TypingPlan& plan_;
  bool shifted_ = false;
};

std::string shownText(const Utf8Character& character) {
  std::array<char, 16> text{};
  if (!character.valid) {
    std::snprintf(text.data(), text.size(), "byte 0x%02X", static_cast<unsigned>(character.code));
    return text.data();
  }
  if (character.code < 0x20 || (character.code >= 0x7F && character.code < 0xA0)) {
    std::snprintf(text.data(), text.size(), "U+%04X", static_cast<unsigned>(character.code));
    return text.data();
  }
  return utf8Of(character.code);
}

void note(std::vector<Untypable>& list, const Utf8Character& character, size_t line, size_t column) {
  std::string shown = shownText(character);
  auto known = std::find_if(list.begin(), list.end(), [&](const Untypable& entry) { return entry.shown == shown; });
  if (known != list.end()) {
    ++known->count;
    return;
  }
  list.push_back({shown, 1, line, column});
}

}  // namespace

std::span<const KeyboardLayout> keyboardLayouts() {
  return kLayouts;
}

const KeyboardLayout* keyboardLayout(std::string_view id) {
  auto found = std::find_if(std::begin(kLayouts), std::end(kLayouts),
                            [&](const KeyboardLayout& layout) { return id == layout.id; });
  return found != std::end(kLayouts) ? found : nullptr;
}

size_t TypingPlan::charactersDone(size_t steps_done) const {
  return static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), steps_done) - ends.begin());
}

TypingPlan planTyping(std::string_view text, const KeyboardLayout& layout) {
  TypingPlan plan;
  StepWriter writer(plan);
  size_t line = 1;
  size_t column = 0;
  bool after_return = false;
  for (Utf8Character character : utf8Characters(text)) {
    bool line_feed = character.valid && character.code == '\n';
    if (line_feed && after_return) {
      after_return = false;
      continue;
    }
    after_return = character.valid && character.code == '\r';
    if (after_return) {
      character.code = '\n';
    }
    ++column;
    std::optional<LayoutKey> key = character.valid ? layout.keyOf(character.code) : std::nullopt;
    if (key) {
      writer.type(*key);
    } else {
      note(plan.untypable, character, line, column);
    }
    if (character.valid && character.code == '\n') {
      ++line;
      column = 0;
    }
  }
  writer.hold(false);
  return plan;
}

std::string untypableSummary(const TypingPlan& plan) {
  if (plan.untypable.empty()) {
    return "";
  }
  constexpr size_t kMostShown = 12;
  size_t total = 0;
  for (const Untypable& entry : plan.untypable) {
    total += entry.count;
  }
  std::string summary =
      total == 1 ? "1 character can't be typed: " : std::to_string(total) + " characters can't be typed: ";
  for (size_t i = 0; i < plan.untypable.size() && i < kMostShown; ++i) {
    const Untypable& entry = plan.untypable[i];
    summary += (i == 0 ? "" : ", ") + entry.shown + " (" +
               (entry.count > 1 ? std::to_string(entry.count) + " times, first at" : "at") + " line " +
               std::to_string(entry.line) + ", column " + std::to_string(entry.column) + ")";
  }
  if (plan.untypable.size() > kMostShown) {
    summary += ", and " + std::to_string(plan.untypable.size() - kMostShown) + " more kinds";
  }
  return summary;
}

}  // namespace mirn
