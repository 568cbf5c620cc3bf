#include "platform/clock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace mirn {
namespace {

using namespace std::chrono_literals;

class StandingClock : public Clock {
 public:
  Duration now() override { return 42s; }
  void sleepFor(Duration duration) override { slept += duration; }
  void waitUntil(std::condition_variable_any& /*condition*/, Mutex& /*mutex*/, Duration /*deadline*/) override
      MIRN_REQUIRES(mutex) {}
  Duration slept{};
};

TEST(Clock, TheRealOneIsTheDefault) {
  EXPECT_EQ(&clock(), &realClock());
}

TEST(Clock, AnotherOneStandsInUntilItIsTakenAway) {
  StandingClock standing;
  setClock(&standing);
  EXPECT_EQ(clock().now(), 42s);
  clock().sleepFor(3s);
  EXPECT_EQ(standing.slept, 3s);
  setClock(nullptr);
  EXPECT_EQ(&clock(), &realClock());
}

TEST(Clock, TheRealOneSleepsAtLeastAsLongAsAsked) {
  const auto start = realClock().now();
  realClock().sleepFor(5ms);
  EXPECT_GE(realClock().now() - start, 5ms);
  realClock().sleepFor(-1s);
}

TEST(Clock, AWaitEndsAtItsDeadline) {
  Mutex mutex;
  std::condition_variable_any condition;
  const MutexGuard guard(mutex);
  const auto deadline = realClock().now() + 5ms;
  while (realClock().now() < deadline) {
    realClock().waitUntil(condition, mutex, deadline);
  }
  EXPECT_GE(realClock().now(), deadline);
  realClock().waitUntil(condition, mutex, deadline - 1s);
}

TEST(Clock, AWaitEndsWithItsNotification) {
  Mutex mutex;
  std::condition_variable_any condition;
  bool ready = false;
  std::thread notifier([&] {
    const MutexGuard guard(mutex);
    ready = true;
    condition.notify_all();
  });
  const auto start = realClock().now();
  {
    const MutexGuard guard(mutex);
    while (!ready) {
      realClock().waitUntil(condition, mutex, start + 600s);
    }
  }
  EXPECT_LT(realClock().now(), start + 600s);
  notifier.join();
}

}  // namespace
}  // namespace mirn
