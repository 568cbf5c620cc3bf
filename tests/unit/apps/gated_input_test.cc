#include "apps/common/gated_input.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/apps/recording_sink.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class GatedInputTest : public testing::Test {
 protected:
  // One of each kind; the first press is a key's.
  void everyKind() {
    input_.keyDown(65);
    input_.keyUp(65);
    input_.mouseMove(1, 2);
    input_.mouseButton("lbdown", 3, 4);
    input_.mouseWheel(5, 6, -1);
  }

  bool allowed_ = true;
  bool elsewhere_ = false;
  int told_ = 0;
  RecordingSink sink_;
  GatedInput input_{sink_, [this] { return allowed_; }, [this] { ++told_; }, [this] { return elsewhere_; }};
};

TEST_F(GatedInputTest, PassesEverythingWhileInputIsAllowed) {
  everyKind();
  EXPECT_THAT(sink_.take(), ElementsAre("down 65", "up 65", "move 1,2", "lbdown 3,4", "wheel -1 5,6"));
  EXPECT_EQ(told_, 5);
}

TEST_F(GatedInputTest, PassesNothingWhileInputIsHeldBack) {
  allowed_ = false;
  everyKind();
  EXPECT_THAT(sink_.take(), IsEmpty());
  EXPECT_EQ(told_, 0);
}

TEST_F(GatedInputTest, TellsWhetherSomethingThatCannotBeRepeatedHasJustPassed) {
  using std::chrono::hours;
  using std::chrono::milliseconds;
  EXPECT_FALSE(input_.passedWithin(hours{1})) << "nothing ever passed";
  input_.mouseMove(1, 2);
  input_.releaseEverything(1, 2);
  EXPECT_FALSE(input_.passedWithin(hours{1})) << "a move and a release are no matter";
  allowed_ = false;
  everyKind();
  EXPECT_FALSE(input_.passedWithin(hours{1})) << "held back";
  allowed_ = true;
  input_.mouseWheel(1, 2, 1);
  EXPECT_TRUE(input_.passedWithin(hours{1}));
  EXPECT_FALSE(input_.passedWithin(milliseconds{0})) << "not less than no time ago";
}

TEST_F(GatedInputTest, ReleasesPassAClosedGate) {
  allowed_ = false;
  input_.releaseEverything(7, 8);
  EXPECT_THAT(sink_.take(), ElementsAre("up 0", "lbup 7,8", "rbup 7,8", "mbup 7,8"));
  EXPECT_EQ(told_, 0) << "a release is no input whose echo is timed";
}

TEST_F(GatedInputTest, NothingGoesToAComputerThatIsElsewhereAndGotNothing) {
  allowed_ = false;
  elsewhere_ = true;
  input_.gateChanged(7, 8);
  input_.releaseEverything(7, 8);
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), IsEmpty());
}

TEST_F(GatedInputTest, AHeldKeyIsReleasedOnceWhenItsComputerTurnsOutToBeElsewhere) {
  input_.keyDown(65);
  sink_.take();
  allowed_ = false;
  elsewhere_ = true;
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), ElementsAre("up 0")) << "and no record that carries a position";
  input_.gateChanged(7, 8);
  input_.releaseEverything(7, 8);
  EXPECT_THAT(sink_.take(), IsEmpty());
}

TEST_F(GatedInputTest, WhatIsOwedFollowsOnceBothBelongTogether) {
  elsewhere_ = true;
  input_.gateChanged(1, 2);
  elsewhere_ = false;
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), ElementsAre("up 0", "lbup 7,8", "rbup 7,8", "mbup 7,8"));
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), IsEmpty());
}

TEST_F(GatedInputTest, AGateThatClosesReleasesWhatIsHeld) {
  input_.mouseButton("rbdown", 7, 8);
  sink_.take();
  allowed_ = false;
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), ElementsAre("up 0", "lbup 7,8", "rbup 7,8", "mbup 7,8"));
  allowed_ = true;
  input_.gateChanged(7, 8);
  EXPECT_THAT(sink_.take(), IsEmpty()) << "nothing was pressed since";
}

}  // namespace
}  // namespace mirn
