// The device leaves in the middle of each command: each comes back with its documented value, and after replugging a
// new connection, or a new session, works.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>
#include <thread>

#include "plugin/flutter_mirn_plugin.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/mirn_host.h"
#include "tests/integration/channel/fault_rows.h"
#include "virtual/virtual_clock.h"

namespace mirn::test {
namespace {

using testing::AnyOf;

// Presence follows the plug when the watching thread has heard of it.
void awaitPresence(ChannelWorld& world, const FaultRow& row, bool present) {
  if (std::string_view(row.method) != "isVidPidExist") return;
  EXPECT_TRUE(world.eventually([&] { return world.reply(row.method) == success(present); }));
}

// The first query starts the watching thread. What happens while that one starts is never reported, which is meant: it
// watches when it has noticed a departure.
void startWatching(ChannelWorld& world) {
  EXPECT_TRUE(world.eventually([&] {
    world.replug();
    world.unplug();
    return world.reply("isVidPidExist") == success(false);
  }));
  world.replug();
}

// A hand pulls the plug on another thread while the command is asked again and again; then it is gone for good.
void leaveMeanwhile(ChannelWorld& world, const FaultRow& row) {
  std::atomic<bool> left{false};
  std::thread hand([&] {
    world.unplug();
    left = true;
  });
  do {
    EXPECT_TRUE(answers(world, row.method, row.arguments, AnyOf(row.answered, row.silent, row.gone)));
  } while (!left);
  hand.join();
  awaitPresence(world, row, false);
  EXPECT_TRUE(answers(world, row.method, row.arguments, row.gone));
}

template <typename Commands>
void expectEveryCommandIn(const std::vector<FaultRow>& rows, const Commands& commands) {
  std::set<std::string_view> methods;
  for (const FaultRow& row : rows) methods.insert(row.method);
  for (const auto& command : commands) EXPECT_TRUE(methods.contains(command.name)) << command.name;
  EXPECT_EQ(methods.size(), commands.size());
}

TEST(DeviceLeavesRows, HoldEveryCommand) {
  ChannelWorld world;
  expectEveryCommandIn(mainFaultRows(world, ""), mainCommands());
  expectEveryCommandIn(secondFaultRows(), frameCommands());
}

class DeviceLeaves : public testing::TestWithParam<const char*> {
 protected:
  DeviceLeaves() : image_(testing::TempDir() + "leaves" + std::to_string(getpid())) {
    std::ofstream(image_) << std::string(5000, 'x');
  }
  ~DeviceLeaves() override { std::filesystem::remove(image_); }

  // The fault hits the command's first exchange; otherwise its second one.
  static bool atOnce() { return std::string_view(GetParam()).find("@2") == std::string_view::npos; }

  const std::string image_;
};

TEST_P(DeviceLeaves, EveryCommandAnswersAndANewConnectionWorks) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  startWatching(world);
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  for (const FaultRow& row : mainFaultRows(world, image_)) {
    SCOPED_TRACE(row.method);
    ASSERT_EQ(world.reply("initKmProxy"), success(true));
    if (row.session) {
      ASSERT_EQ(world.reply("open"), success(true));
    }
    awaitPresence(world, row, true);
    world.mirn().setFaultPlan(planOf(GetParam()));
    EXPECT_TRUE(answers(world, row.method, row.arguments,
                        atOnce() ? row.silent : ReplyMatcher(AnyOf(row.answered, row.silent))));
    for (int again = 0; again < 2; ++again) EXPECT_TRUE(answers(world, row.method, row.arguments, row.silent));
    leaveMeanwhile(world, row);
    // Nothing of the old connection works any more; nothing breaks either.
    EXPECT_EQ(world.reply("keyDown", ValueMap{{"key", 65}}), success());
    EXPECT_EQ(world.reply("setMirnDevInfo", ValueMap{{"name", "n"}}), success(0));
    EXPECT_EQ(world.reply("release"), success());
    // In this order: what the sending thread still does must not pull the device out again.
    world.mirn().setFaultPlan({});
    world.replug();
    expectANewConnectionWorks(world);
  }
}

INSTANTIATE_TEST_SUITE_P(Steps, DeviceLeaves,
                         testing::Values("unplug@1", "unplug-after@1", "unplug@2", "write-error@1+"));

TEST(CameraLeaves, EveryCommandOfTheSecondPluginAnswersAndANewSessionGrabsFrames) {
  WorldOptions options;
  options.second_plugin = true;
  ChannelWorld world(options);
  const auto open = [&] {
    ASSERT_EQ(world.reply("open", ValueList{0}), success(true));
    EXPECT_TRUE(world.eventually([&] { return world.reply("captureFrame").starts_with("00"); }));
  };
  for (const FaultRow& row : secondFaultRows()) {
    SCOPED_TRACE(row.method);
    if (row.session) open();
    EXPECT_TRUE(answers(world, row.method, row.arguments, row.answered));
    leaveMeanwhile(world, row);
    EXPECT_EQ(world.reply("release"), success());
    world.replug();
    const uint64_t frames = world.setup().camera().counters().frames;
    open();
    EXPECT_TRUE(world.eventually([&] { return world.setup().camera().counters().frames > frames + 2; }));
    EXPECT_EQ(world.reply("release"), success());
  }
}

TEST(CameraLeaves, TheSessionEndsAndANewOneOpens) {
  ChannelWorld world;
  const int64_t texture = std::get<int64_t>(world.value("createTexture"));
  ASSERT_EQ(world.reply("open"), success(true));
  ASSERT_TRUE(world.eventually([&] { return world.engine().latestPicture(texture) != nullptr; }));
  world.unplug();
  EXPECT_TRUE(world.eventually([] { return !hostSessionStatistics().running; }));
  EXPECT_NE(hostSessionStatistics().stopCode, 0);
  EXPECT_EQ(world.reply("setVideoQuality", ValueMap{{"quality", "720P"}}), success(false));
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_EQ(world.reply("open"), success(false));
  world.replug();
  EXPECT_EQ(world.reply("open"), success(true));
  const uint64_t taken = world.engine().textureStatistics(texture).taken;
  EXPECT_TRUE(world.eventually([&] { return world.engine().textureStatistics(texture).taken > taken; }));
}

TEST(CameraLeaves, AnUpgradeThatCannotLockItAnswersMinusFour) {
  ChannelWorld world;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  ASSERT_EQ(world.reply("open"), success(true));
  world.unplug();
  EXPECT_TRUE(world.eventually([] { return !hostSessionStatistics().running; }));
  EXPECT_EQ(world.reply("reqUpgradeFirmware", ValueMap{{"path", "/nowhere"}}), success(-4));
  // With no camera in use there is nothing to lock.
  world.reply("release");
  EXPECT_EQ(world.reply("reqUpgradeFirmware", ValueMap{{"path", "/nowhere"}}), success(0));
}

}  // namespace
}  // namespace mirn::test
