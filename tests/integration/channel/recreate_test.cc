// A thousand connections, one after the other.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <numeric>
#include <vector>

#include "tests/integration/channel/channel_world.h"

namespace mirn::test {
namespace {

#ifdef MIRN_SANITIZED
constexpr int kRounds = 100;
#else
constexpr int kRounds = 1000;
#endif

size_t entriesOf(const char* directory) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

struct Usage {
  size_t threads = entriesOf("/proc/self/task");
  size_t descriptors = entriesOf("/proc/self/fd");
  size_t bytes = mallinfo2().uordblks;
};

// The rounds in ten equal parts. Nothing may remain of handles and threads. Of the heap: what each round leaks shows in
// every part, and what seldom leaks shows in the second half; threads and queues that are not yet as they were before
// show now and then, in one part or the other.
void expectNothingStays(const std::function<void(int rounds)>& run) {
  constexpr int kParts = 10;
  std::vector<Usage> usage(1);
  for (int part = 0; part < kParts; ++part) {
    run(kRounds / kParts);
    usage.emplace_back();
    EXPECT_EQ(usage.back().threads, usage.front().threads);
    EXPECT_EQ(usage.back().descriptors, usage.front().descriptors);
  }
#ifndef MIRN_SANITIZED
  std::vector<int64_t> growth;
  for (int part = 0; part < kParts; ++part) {
    growth.push_back(static_cast<int64_t>(usage[part + 1].bytes) - static_cast<int64_t>(usage[part].bytes));
  }
  EXPECT_LT(*std::ranges::min_element(growth), kRounds / kParts) << "a byte in each round";
  const int64_t second_half = std::accumulate(growth.begin() + kParts / 2, growth.end(), int64_t{0});
  EXPECT_LT(second_half, 8 * 1024) << testing::PrintToString(growth);
#endif
}

void connectAndType(ChannelWorld& world, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    ASSERT_EQ(world.reply("initKmProxy"), success(true)) << round;
    ASSERT_EQ(world.setup().hid().openHandles(), 1U) << round;
    world.reply("keyDown", ValueMap{{"key", 65 + round % 26}});
    world.reply("mouseMove", ValueMap{{"x", round}, {"y", round}});
    if (round % 10 == 0) world.reply("mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}});
    world.mirn().clearReceived();
  }
}

TEST(Reconnecting, LeavesNoHandleNoThreadAndNoByteBehind) {
  WorldOptions options;
  options.mirn.history_limit = 16;
  ChannelWorld world(options);
  // The first rounds fill what is made once: buffers, the log, the allocator's own lists.
  connectAndType(world, 50);
  expectNothingStays([&world](int rounds) { connectAndType(world, rounds); });
}

TEST(Reconnecting, LeavesNothingBehindWhenTheProbeFails) {
  ChannelWorld world;
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("write-error@*", &plan, &error)) << error;
  world.mirn().setFaultPlan(plan);
  const auto fail = [&world](int rounds) {
    for (int round = 0; round < rounds; ++round) ASSERT_EQ(world.reply("initKmProxy"), success(false));
  };
  fail(20);
  expectNothingStays(fail);
  EXPECT_EQ(world.setup().hid().openHandles(), 0U);
}

}  // namespace
}  // namespace mirn::test
