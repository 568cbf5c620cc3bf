// Devices that do not answer, answer late, or leave in the middle: every command comes back with its documented value,
// and a new connection works again.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "plugin/mirn_host.h"
#include "tests/integration/channel/channel_world.h"
#include "virtual/virtual_clock.h"

namespace mirn::test {
namespace {

FaultPlan planOf(const std::string& text) {
  FaultPlan plan;
  std::string error;
  EXPECT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
  return plan;
}

TEST(ProbeFails, TheProxyIsGoneAndSoIsItsHandle) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  for (const char* faults : {"drop@*", "lose@*", "read-error@*", "write-error@*", "corrupt@*/c9"}) {
    world.mirn().setFaultPlan(planOf(faults));
    testing::internal::CaptureStdout();
    EXPECT_EQ(world.reply("initKmProxy"), success(false)) << faults;
    EXPECT_NE(testing::internal::GetCapturedStdout().find("get dev info failed\n"), std::string::npos) << faults;
    EXPECT_EQ(world.setup().hid().openHandles(), 0U) << faults;
    EXPECT_EQ(world.reply("setMirnDevInfo", ValueMap{{"name", "n"}}), success(0));
    EXPECT_EQ(world.reply("getUpgradeProgress"), success(ValueList{}));
  }
  world.mirn().setFaultPlan({});
  EXPECT_EQ(world.reply("initKmProxy"), success(true));
  EXPECT_EQ(world.setup().hid().openHandles(), 1U);
}

TEST(ProbeFails, ALaterQueryForInformationTriesAgain) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  world.mirn().setFaultPlan(planOf("drop@*"));
  EXPECT_EQ(world.reply("getMirnDevInfo"), success(ValueList{}));
  world.mirn().setFaultPlan({});
  EXPECT_EQ(world.value("getMirnDevInfo").asList()->size(), 4U);
}

TEST(DeviceInformation, AFailedAnswerOfALiveConnectionIsAnEmptyList) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  world.mirn().setFaultPlan(planOf("drop@1"));
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.reply("getMirnDevInfo"), success(ValueList{}));
  EXPECT_NE(testing::internal::GetCapturedStdout().find("get dev info failed 2\n"), std::string::npos);
  // The connection is kept.
  EXPECT_EQ(world.value("getMirnDevInfo").asList()->size(), 4U);
}

// The device leaves at each step of each command's first exchange.
class DeviceLeaves : public testing::TestWithParam<const char*> {};

TEST_P(DeviceLeaves, EveryCommandAnswersAndANewConnectionWorks) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  const std::string path = testing::TempDir() + "leaves" + std::to_string(getpid());
  std::ofstream(path) << std::string(5000, 'x');
  const std::vector<std::pair<const char*, Value>> commands = {
      {"initKmProxy", {}},
      {"getMirnDevInfo", {}},
      {"setMirnDevInfo", ValueMap{{"name", "n"}}},
      {"setLedStatus", ValueMap{{"ledStatus", 1}}},
      {"keyDown", ValueMap{{"key", 65}}},
      {"keyUp", ValueMap{}},
      {"mouseMove", ValueMap{{"x", 1}, {"y", 1}}},
      {"mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}}},
      {"mouseWheel", ValueMap{{"x", 1}, {"y", 1}, {"delta", 1}}},
      {"reqUpgradeFirmware", ValueMap{{"path", path}}},
      {"open", {}},
      {"setVideoQuality", ValueMap{{"quality", "720P"}}},
      {"normalColor", {}},
      {"getSize", {}},
      {"getDeviceList", {}},
      {"getUpgradeProgress", {}},
      {"release", {}},
  };
  for (const auto& [method, arguments] : commands) {
    SCOPED_TRACE(method);
    // In this order: what the sending thread still does must not pull the device out again.
    world.mirn().setFaultPlan({});
    world.setup().replug();
    ASSERT_EQ(world.reply("initKmProxy"), success(true));
    world.mirn().setFaultPlan(planOf(GetParam()));
    for (int again = 0; again < 3; ++again) EXPECT_NE(world.reply(method, arguments), "not-implemented");
    world.reply("release");
    if (!world.mirn().plugged()) world.setup().unplug();
    // Nothing of the old connection works any more; nothing breaks either.
    world.reply("keyDown", ValueMap{{"key", 65}});
    EXPECT_EQ(world.reply("setMirnDevInfo", ValueMap{{"name", "n"}}), success(0));
  }
  std::filesystem::remove(path);
}

INSTANTIATE_TEST_SUITE_P(Steps, DeviceLeaves,
                         testing::Values("unplug@1", "unplug-after@1", "unplug@2", "write-error@1+"));

TEST(LateAnswers, AreWaitedForWithinTheirTime) {
  ChannelWorld world;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  // The LED has 500 ms.
  world.mirn().setFaultPlan(planOf("delay=150@*"));
  const auto begin = std::chrono::steady_clock::now();
  world.reply("setLedStatus", ValueMap{{"ledStatus", 9}});
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
  EXPECT_EQ(world.mirn().led().status, 9);
  EXPECT_EQ(hostLedStatus(), 9);
}

TEST(RefusedChunks, AreNotCountedAsProgress) {
  ChannelWorld world;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  const std::string path = testing::TempDir() + "refused" + std::to_string(getpid());
  std::ofstream(path) << std::string(4096, 'x');
  const HostLinkStatistics before = hostLinkStatistics();
  world.mirn().setFaultPlan(planOf("refuse=7@2/c7"));
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.reply("reqUpgradeFirmware", ValueMap{{"path", path}}), success(1));
  EXPECT_TRUE(world.eventually([&] {
    const HostLinkStatistics now = hostLinkStatistics();
    return now.firmwareSent + now.firmwareFailed - before.firmwareSent - before.firmwareFailed == 4;
  }));
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("mirn upgrade progress, err_no=0, cur_id=0, total=4\r\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("mirn upgrade progress, err_no=-1, cur_id=1, total=4\r\n"), std::string::npos) << printed;
  EXPECT_EQ(hostLinkStatistics().firmwareFailed - before.firmwareFailed,
            1U + (world.mirn().firmware().completed == 1 ? 0 : 1))
      << printed;
  std::filesystem::remove(path);
}

TEST(CameraLeaves, TheSessionEndsAndANewOneOpens) {
  ChannelWorld world;
  const int64_t texture = std::get<int64_t>(world.value("createTexture"));
  ASSERT_EQ(world.reply("open"), success(true));
  ASSERT_TRUE(world.eventually([&] { return world.engine().latestPicture(texture) != nullptr; }));
  world.unplug();
  EXPECT_TRUE(world.eventually([] { return !hostSessionStatistics().running; }));
  EXPECT_NE(hostSessionStatistics().stopCode, 0);
  EXPECT_EQ(world.reply("setVideoQuality", ValueMap{{"quality", "720P"}}).substr(0, 2), "00");
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_EQ(world.reply("open"), success(false));
  world.replug();
  EXPECT_EQ(world.reply("open"), success(true));
  const uint64_t taken = world.engine().textureStatistics(texture).taken;
  EXPECT_TRUE(world.eventually([&] { return world.engine().textureStatistics(texture).taken > taken; }));
}

TEST(CameraLocked, AnUpgradeThatCannotLockItAnswersMinusFour) {
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
