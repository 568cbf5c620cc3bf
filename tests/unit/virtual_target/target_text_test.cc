#include "virtual/target_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace mirn {
namespace {

constexpr uint8_t kEnter = 0x28;
constexpr uint8_t kBackspace = 0x2A;
constexpr uint8_t kTab = 0x2B;
constexpr uint8_t kHome = 0x4A;
constexpr uint8_t kDelete = 0x4C;
constexpr uint8_t kEnd = 0x4D;
constexpr uint8_t kRight = 0x4F;
constexpr uint8_t kLeft = 0x50;
constexpr uint8_t kUp = 0x52;
constexpr uint8_t kLeftShift = 0x02;
constexpr uint8_t kRightShift = 0x20;

std::string typed(const std::vector<uint8_t>& usages, uint8_t modifiers = 0) {
  TargetText text;
  for (const uint8_t usage : usages) {
    text.press(usage, modifiers, false);
  }
  return text.text();
}

TEST(TargetKeys, LettersFollowShiftAndCapsLock) {
  EXPECT_EQ(typedCharacter(0x04, 0, false), 'a');
  EXPECT_EQ(typedCharacter(0x1D, 0, false), 'z');
  EXPECT_EQ(typedCharacter(0x04, kLeftShift, false), 'A');
  EXPECT_EQ(typedCharacter(0x04, kRightShift, false), 'A');
  EXPECT_EQ(typedCharacter(0x04, 0, true), 'A');
  EXPECT_EQ(typedCharacter(0x04, kLeftShift, true), 'a');
}

TEST(TargetKeys, DigitsAndSignsIgnoreCapsLock) {
  EXPECT_EQ(typedCharacter(0x1E, 0, true), '1');
  EXPECT_EQ(typedCharacter(0x1E, kLeftShift, false), '!');
  EXPECT_EQ(typedCharacter(0x27, 0, false), '0');
  EXPECT_EQ(typedCharacter(0x27, kLeftShift, false), ')');
  EXPECT_EQ(typedCharacter(0x38, kLeftShift, false), '?');
  EXPECT_EQ(typedCharacter(0x31, 0, false), '\\');
}

TEST(TargetKeys, ChordsAndUnknownUsagesTypeNothing) {
  EXPECT_EQ(typedCharacter(0x04, 0x01, false), 0);
  EXPECT_EQ(typedCharacter(0x04, 0x40, false), 0);
  EXPECT_EQ(typedCharacter(0x04, 0x08, false), 0);
  EXPECT_EQ(typedCharacter(0x3A, 0, false), 0) << "F1";
  EXPECT_EQ(typedCharacter(0xFF, 0, false), 0);
}

TEST(TargetText, TypesAndErases) {
  EXPECT_EQ(typed({0x0B, 0x0C}), "hi");
  EXPECT_EQ(typed({0x0B, 0x0C, kBackspace}), "h");
  EXPECT_EQ(typed({kBackspace, kBackspace}), "");
  EXPECT_EQ(typed({0x04, kEnter, 0x05}), "a\nb");
  EXPECT_EQ(typed({0x04, kEnter, kBackspace, 0x05}), "ab");
  EXPECT_EQ(typed({0x04, kTab, 0x05}), "a   b");
}

TEST(TargetText, CaretMovesAndTextGoesWhereItStands) {
  EXPECT_EQ(typed({0x04, 0x05, kLeft, 0x06}), "acb");
  EXPECT_EQ(typed({0x04, 0x05, kHome, 0x06, kEnd, 0x07}), "cabd");
  EXPECT_EQ(typed({0x04, 0x05, kHome, kDelete}), "b");
  EXPECT_EQ(typed({0x04, kEnter, 0x05, kUp, kEnd, 0x06}), "ac\nb");
  EXPECT_EQ(typed({0x04, kEnter, 0x05, kLeft, kLeft, kDelete}), "ab");
  EXPECT_EQ(typed({0x04, kEnter, 0x05, kUp, kRight, 0x06}), "a\ncb");
}

TEST(TargetText, WrapsAtItsWidthAndForgetsTheOldestLines) {
  TargetText text;
  for (size_t i = 0; i < TargetText::kColumns + 1; ++i) {
    text.press(0x04, 0, false);
  }
  EXPECT_EQ(text.lines().size(), 2U);
  EXPECT_EQ(text.lines()[1], "a");
  for (size_t i = 0; i < TargetText::kMaxLines * 2; ++i) {
    text.press(kEnter, 0, false);
  }
  EXPECT_EQ(text.lines().size(), TargetText::kMaxLines);
  EXPECT_EQ(text.caretLine(), TargetText::kMaxLines - 1);
}

// Every key at every place: lines stay within their width, the caret inside its line.
TEST(TargetText, AnyKeysKeepTheEditorWhole) {
  TargetText text;
  uint32_t random = 12345;
  for (int i = 0; i < 50000; ++i) {
    random = random * 1664525U + 1013904223U;
    const auto usage = static_cast<uint8_t>(random >> 24);
    text.press(usage % 4 == 0 ? 0x04 : usage, 0, (random & 0x100U) != 0);
    ASSERT_LT(text.caretLine(), text.lines().size());
    ASSERT_LE(text.caretColumn(), text.lines()[text.caretLine()].size());
    ASSERT_LE(text.lines()[text.caretLine()].size(), TargetText::kColumns);
    ASSERT_LE(text.lines().size(), TargetText::kMaxLines);
  }
}

}  // namespace
}  // namespace mirn
