// Devices that do not answer or answer wrongly.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "plugin/mirn_host.h"
#include "tests/integration/channel/fault_rows.h"
#include "virtual/virtual_clock.h"

namespace mirn::test {
namespace {

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

}  // namespace
}  // namespace mirn::test
