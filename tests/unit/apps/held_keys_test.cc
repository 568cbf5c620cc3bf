#include "apps/common/held_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/common/chords.h"
#include "tests/unit/apps/recording_sink.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HeldKeysTest : public testing::Test {
 protected:
  RecordingSink sink_;
  HeldKeys keys_{sink_};
};

TEST_F(HeldKeysTest, AutoRepeatSendsOnePressAndOneRelease) {
  keys_.press(38, 65);
  keys_.press(38, 65);
  keys_.press(38, 65);
  keys_.release(38);
  keys_.release(38);
  EXPECT_THAT(sink_.take(), ElementsAre("down 65", "up 65"));
}

TEST_F(HeldKeysTest, TwoPositionsWithOneCodeAreOnePressUntilBothAreUp) {
  keys_.press(36, 13);
  keys_.press(104, 13);
  keys_.release(36);
  EXPECT_THAT(sink_.take(), ElementsAre("down 13"));
  keys_.release(104);
  EXPECT_THAT(sink_.take(), ElementsAre("up 13"));
}

TEST_F(HeldKeysTest, AReleaseWithoutAPressSendsNothing) {
  keys_.release(38);
  EXPECT_THAT(sink_.take(), IsEmpty());
}

TEST_F(HeldKeysTest, DeleteHoldsTheModifiersAgainBecauseTheProxyForgetsThem) {
  keys_.press(50, 160);
  keys_.press(119, 46);
  EXPECT_THAT(sink_.take(), ElementsAre("down 160", "down 46", "down 160"));
  keys_.release(119);
  keys_.release(50);
  EXPECT_THAT(sink_.take(), ElementsAre("up 46", "up 160"));
}

TEST_F(HeldKeysTest, KeypadDecimalDoesToo) {
  keys_.press(37, 162);
  keys_.press(64, 164);
  keys_.press(91, 110);
  EXPECT_THAT(sink_.take(), ElementsAre("down 162", "down 164", "down 110", "down 162", "down 164"));
}

TEST_F(HeldKeysTest, WhatIsForgottenIsNeitherHeldNorReleased) {
  keys_.press(50, 160);
  keys_.press(38, 65);
  sink_.take();
  keys_.forget();
  EXPECT_FALSE(keys_.holdsAny());
  keys_.release(38);
  EXPECT_THAT(sink_.take(), IsEmpty());
  keys_.press(119, 46);
  EXPECT_THAT(sink_.take(), ElementsAre("down 46")) << "no modifier is held again";
}

TEST(Release, EverythingIsKeyZeroAndThreeButtons) {
  RecordingSink sink;
  releaseEverythingOn(sink, 7, 8);
  EXPECT_THAT(sink.take(), ElementsAre("up 0", "lbup 7,8", "rbup 7,8", "mbup 7,8"));
}

TEST(Chords, EveryEntryOfThePalettePlaysAndReleasesInReverse) {
  for (const Chord& chord : chordPalette()) {
    RecordingSink sink;
    ASSERT_TRUE(playChord(sink, chord.keys)) << chord.label;
    ASSERT_EQ(sink.events.size() % 2, 0U);
    size_t half = sink.events.size() / 2;
    for (size_t i = 0; i < half; ++i) {
      EXPECT_EQ("up" + sink.events[i].substr(4), sink.events[sink.events.size() - 1 - i]) << chord.label;
    }
  }
}

TEST(Chords, AnUnknownKeySendsNothing) {
  RecordingSink sink;
  EXPECT_FALSE(playChord(sink, "ctrl+nokey"));
  EXPECT_THAT(sink.events, IsEmpty());
}

}  // namespace
}  // namespace mirn
