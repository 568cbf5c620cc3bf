#include "host/main_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/main_queue.h"

namespace mirn {
namespace {

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

TEST(MainLoop, RunsUntilTheConditionHolds) {
  int turns = 0;
  mainQueue().post([&turns] { ++turns; });
  EXPECT_TRUE(runLoopUntil([&turns] { return turns == 1; }, 10s));
}

TEST(MainLoop, GivesUpAfterItsTime) {
  const auto began = std::chrono::steady_clock::now();
  EXPECT_FALSE(runLoopUntil([] { return false; }, 20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - began, 20ms);
}

TEST(MainLoop, LooksAgainAsRarelyAsItIsAsked) {
  int looks = 0;
  auto never = [&looks] {
    ++looks;
    return false;
  };
  EXPECT_FALSE(runLoopUntil(never, 200ms, 50ms));
  EXPECT_GE(looks, 2) << "at the beginning and at the end";
  EXPECT_LE(looks, 200 / 50 + 3) << "nothing else wakes the loop";
}

TEST(MainLoop, SeesWhatAnotherThreadHasDone) {
  std::atomic<bool> done{false};
  std::thread other([&done] { done = true; });
  EXPECT_TRUE(runLoopUntil([&done] { return done.load(); }, 10s));
  other.join();
}

TEST(MainLoop, AQuitBeforeTheRunIsNotLost) {
  quitLoop();
  runLoop();
  std::thread other(quitLoop);
  runLoop();
  other.join();
}

TEST(MainLoop, DrainingServesWhatIsReadyAndReturns) {
  int served = 0;
  for (int i = 0; i < 5; ++i) {
    mainQueue().post([&served] { ++served; });
  }
  drainLoop();
  EXPECT_EQ(served, 5);
  drainLoop();
}

}  // namespace
}  // namespace mirn
