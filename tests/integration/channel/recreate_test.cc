// A thousand connections, one after the other.
#include <gtest/gtest.h>
#include <malloc.h>

#include <filesystem>

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
  const Usage before;
  connectAndType(world, kRounds);
  const Usage after;
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_EQ(after.descriptors, before.descriptors);
#ifndef MIRN_SANITIZED
  // A proxy has several kilobytes: one leaked in a hundred rounds would show.
  EXPECT_LE(after.bytes, before.bytes + 16 * 1024) << "of " << kRounds << " rounds";
#endif
}

TEST(Reconnecting, LeavesNothingBehindWhenTheProbeFails) {
  ChannelWorld world;
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("write-error@*", &plan, &error)) << error;
  world.mirn().setFaultPlan(plan);
  for (int round = 0; round < 20; ++round) ASSERT_EQ(world.reply("initKmProxy"), success(false));
  const Usage before;
  for (int round = 0; round < kRounds; ++round) ASSERT_EQ(world.reply("initKmProxy"), success(false));
  const Usage after;
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(world.setup().hid().openHandles(), 0U);
#ifndef MIRN_SANITIZED
  EXPECT_LE(after.bytes, before.bytes + 16 * 1024);
#endif
}

}  // namespace
}  // namespace mirn::test
