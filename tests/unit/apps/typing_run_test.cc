#include "apps/common/typing_run.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/apps/recording_sink.h"

namespace mirn {
namespace {

using State = TypingRun::State;

TypingPlan planOf(const std::string& text) {
  return planTyping(text, *keyboardLayout("us"));
}

TEST(TypingRun, NeverMoreInFlightThanAllowed) {
  RecordingSink sink;
  TypingRun run(planOf(std::string(100, 'a')), sink, 1000, 3);
  uint64_t answered = 1000;
  TypingRun::Time now{};
  EXPECT_EQ(run.advance(answered, 3, now), State::kTyping);
  EXPECT_EQ(sink.events.size(), TypingRun::kInFlight);
  while (run.state() == State::kTyping) {
    ++answered;
    run.advance(answered, 3, now);
    ASSERT_LE(sink.events.size(), answered - 1000 + TypingRun::kInFlight);
  }
  EXPECT_EQ(run.state(), State::kDone);
  EXPECT_EQ(sink.events.size(), 200U);
  EXPECT_EQ(run.charactersDone(), 100U);
}

TEST(TypingRun, CancelReleasesAndSendsNoMore) {
  RecordingSink sink;
  TypingRun run(planOf("hello"), sink, 0, 0);
  run.advance(0, 0, {});
  run.advance(3, 0, {});
  run.cancel();
  EXPECT_EQ(sink.events.back(), "up 0");
  size_t sent = sink.events.size();
  EXPECT_EQ(run.advance(8, 0, {}), State::kCancelled);
  EXPECT_EQ(sink.events.size(), sent);
  EXPECT_EQ(run.charactersDone(), 1U);
}

TEST(TypingRun, ARefusedKeyStopsTheRun) {
  RecordingSink sink;
  TypingRun run(planOf("hello"), sink, 0, 0);
  run.advance(0, 0, {});
  EXPECT_EQ(run.advance(4, 1, {}), State::kFailed);
  EXPECT_EQ(sink.events.back(), "up 0");
  EXPECT_THAT(run.failure(), testing::HasSubstr("after 2 of 5 characters"));
}

// Shift is held over the whole text: without it the rest would be lower case.
TEST(TypingRun, LettingAllKeysGoInACapitalsRunStopsItAloud) {
  RecordingSink sink;
  TypingRun run(planOf("HELLO, YOU THERE"), sink, 0, 0);
  run.advance(0, 0, {});
  run.advance(5, 0, {});
  size_t sent = sink.events.size();
  run.interrupt();
  EXPECT_EQ(run.state(), State::kFailed);
  EXPECT_EQ(sink.events.size(), sent + 1);
  EXPECT_EQ(sink.events.back(), "up 0");
  EXPECT_EQ(run.failure(), "All keys were let go in the middle; typing stopped after 2 of 16 characters.");
  // The answers to the releases don't count as characters, and no more is sent.
  EXPECT_EQ(run.advance(100, 0, {}), State::kFailed);
  EXPECT_EQ(run.charactersDone(), 2U);
  EXPECT_EQ(sink.events.size(), sent + 1);
}

TEST(TypingRun, WhatIsOverCantBeInterrupted) {
  RecordingSink sink;
  TypingRun done(planOf("a"), sink, 0, 0);
  done.advance(0, 0, {});
  EXPECT_EQ(done.advance(2, 0, {}), State::kDone);
  done.interrupt();
  EXPECT_EQ(done.state(), State::kDone);
  TypingRun cancelled(planOf("a"), sink, 0, 0);
  cancelled.cancel();
  cancelled.interrupt();
  EXPECT_EQ(cancelled.state(), State::kCancelled);
}

TEST(TypingRun, ASilentDeviceStopsTheRun) {
  RecordingSink sink;
  TypingRun run(planOf("hello"), sink, 0, 0);
  TypingRun::Time now{};
  run.advance(0, 0, now);
  EXPECT_EQ(run.advance(0, 0, now + TypingRun::kPatience), State::kTyping);
  EXPECT_EQ(run.advance(0, 0, now + TypingRun::kPatience + std::chrono::milliseconds(1)), State::kFailed);
  EXPECT_THAT(run.failure(), testing::HasSubstr("stopped answering"));
}

TEST(TypingRun, AnEmptyTextIsDoneAtOnce) {
  RecordingSink sink;
  TypingRun run(planOf(""), sink, 5, 0);
  EXPECT_EQ(run.advance(5, 0, {}), State::kDone);
  EXPECT_TRUE(sink.events.empty());
}

}  // namespace
}  // namespace mirn
