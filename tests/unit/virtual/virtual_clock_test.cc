#include "virtual/virtual_clock.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>
#include <vector>

namespace mirn {
namespace {

using namespace std::chrono_literals;

TEST(VirtualClock, StandsStillUntilSomebodyWaits) {
  VirtualClock clock(5s);
  EXPECT_EQ(clock.now(), 5s);
  EXPECT_EQ(clock.now(), 5s);
  EXPECT_EQ(clock.waits(), 0U);
}

TEST(VirtualClock, ASleepTakesItsTimeAtOnce) {
  VirtualClock clock(0s);
  const auto start = std::chrono::steady_clock::now();
  clock.sleepFor(1000h);
  EXPECT_EQ(clock.now(), 1000h);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(clock.waits(), 1U);
}

TEST(VirtualClock, ASleepOfNothingOrLessIsNoWait) {
  VirtualClock clock(1s);
  clock.sleepFor(0ns);
  clock.sleepFor(-5s);
  EXPECT_EQ(clock.now(), 1s);
  EXPECT_EQ(clock.waits(), 0U);
}

TEST(VirtualClock, TheLongestSleepEndsAtTheEndOfTime) {
  VirtualClock clock(1s);
  clock.sleepFor(Clock::Duration::max());
  clock.sleepFor(Clock::Duration::max());
  EXPECT_EQ(clock.now(), Clock::Duration::max());
}

TEST(VirtualClock, AWaitMovesTimeToItsDeadlineAndNeverBack) {
  VirtualClock clock(10s);
  Mutex mutex;
  std::condition_variable_any condition;
  const MutexGuard guard(mutex);
  clock.waitUntil(condition, mutex, 12s);
  EXPECT_EQ(clock.now(), 12s);
  clock.waitUntil(condition, mutex, 11s);
  EXPECT_EQ(clock.now(), 12s);
  clock.advanceTo(3s);
  EXPECT_EQ(clock.now(), 12s);
}

TEST(VirtualClock, ManySleepersNeverMoveItBack) {
  VirtualClock clock(0s);
  std::vector<std::thread> sleepers;
  for (int i = 0; i < 4; ++i) {
    sleepers.emplace_back([&clock, i] {
      Clock::Duration last = clock.now();
      for (int round = 0; round < 5000; ++round) {
        clock.sleepFor(1ms * (i + 1));
        const Clock::Duration now = clock.now();
        EXPECT_GE(now, last + 1ms);
        last = now;
      }
    });
  }
  for (std::thread& sleeper : sleepers) {
    sleeper.join();
  }
  EXPECT_EQ(clock.waits(), 20000U);
}

TEST(ScopedVirtualClock, IsTheClockForItsScope) {
  {
    const ScopedVirtualClock scoped;
    clock().sleepFor(100h);
    EXPECT_GE(clock().now(), 100h);
  }
  EXPECT_EQ(&clock(), &realClock());
}

}  // namespace
}  // namespace mirn
