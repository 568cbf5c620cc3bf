#include "apps/common/text_typing.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

const KeyboardLayout& us() {
  return *keyboardLayout("us");
}

TEST(TextTyping, EveryPrintableAsciiCharacterCanBeTyped) {
  std::string text = "\n\t";
  for (char c = ' '; c <= '~'; ++c) {
    text += c;
  }
  TypingPlan plan = planTyping(text, us());
  EXPECT_THAT(plan.untypable, SizeIs(0));
  EXPECT_EQ(plan.characters(), 97U);
}

TEST(TextTyping, PressesAndReleasesEachKey) {
  EXPECT_THAT(planTyping("aa", us()).steps,
              ElementsAre(KeyStep{65, true}, KeyStep{65, false}, KeyStep{65, true}, KeyStep{65, false}));
}

TEST(TextTyping, ShiftIsHeldOverARunAndReleasedAtTheEnd) {
  EXPECT_THAT(planTyping("aB!", us()).steps,
              ElementsAre(KeyStep{65, true}, KeyStep{65, false}, KeyStep{160, true}, KeyStep{66, true},
                          KeyStep{66, false}, KeyStep{'1', true}, KeyStep{'1', false}, KeyStep{160, false}));
}

TEST(TextTyping, LineEndingsOfEveryKindAreOneEnter) {
  for (const char* text : {"a\nb", "a\r\nb", "a\rb"}) {
    TypingPlan plan = planTyping(text, us());
    EXPECT_EQ(plan.characters(), 3U);
    EXPECT_EQ(plan.steps[2], (KeyStep{13, true}));
  }
  EXPECT_EQ(planTyping("\r\r\n\n", us()).characters(), 3U);
}

TEST(TextTyping, WhatCanNotBeTypedIsListedWithItsFirstPlace) {
  TypingPlan plan = planTyping("x\u00e9\ny\u00e9\x01\xFF", us());
  ASSERT_THAT(plan.untypable, SizeIs(3));
  EXPECT_EQ(plan.untypable[0].shown, "\u00e9");
  EXPECT_EQ(plan.untypable[0].count, 2U);
  EXPECT_EQ(plan.untypable[0].line, 1U);
  EXPECT_EQ(plan.untypable[0].column, 2U);
  EXPECT_EQ(plan.untypable[1].shown, "U+0001");
  EXPECT_EQ(plan.untypable[1].line, 2U);
  EXPECT_EQ(plan.untypable[1].column, 3U);
  EXPECT_EQ(plan.untypable[2].shown, "byte 0xFF");
  EXPECT_EQ(plan.characters(), 3U);
  EXPECT_EQ(untypableSummary(plan),
            "4 characters can't be typed: \u00e9 (2 times, first at line 1, column 2), U+0001 (at line 2, column 3), "
            "byte 0xFF (at line 2, column 4)");
  EXPECT_EQ(untypableSummary(planTyping("abc", us())), "");
}

TEST(TextTyping, ProgressCountsWholeCharacters) {
  TypingPlan plan = planTyping("aB", us());
  EXPECT_EQ(plan.charactersDone(0), 0U);
  EXPECT_EQ(plan.charactersDone(1), 0U);
  EXPECT_EQ(plan.charactersDone(2), 1U);
  EXPECT_EQ(plan.charactersDone(4), 1U);
  EXPECT_EQ(plan.charactersDone(5), 2U);
  EXPECT_EQ(plan.charactersDone(6), 2U);
}

TEST(TextTyping, AnUnknownLayoutIsNone) {
  EXPECT_EQ(keyboardLayout("xx"), nullptr);
}

}  // namespace
}  // namespace mirn
