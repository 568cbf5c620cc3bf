// The names of V4L2 capture devices as they reach an application, from a kernel in the process.
#include <gtest/gtest.h>

#include "platform/linux/v4l2_capture_system.h"
#include "plugin/mirn_host.h"
#include "tests/integration/channel/channel_world.h"
#include "tests/support/video/fake_v4l2.h"

namespace mirn::test {
namespace {

class DeviceNames : public testing::TestWithParam<bool> {
 protected:
  DeviceNames() {
    const std::pair<const char*, std::string> cards[] = {{"1-1", "Plain"},
                                                         {"1-2", std::string(30, 'x') + "\xC3\xA9"},  // cut after \xC3
                                                         {"1-3", "caf\xE9!"}};
    for (const auto& [topology, card] : cards) {
      const std::string path = std::string("/dev/video") + topology;
      calls_->node(path).card = card;
      catalog_->nodes.push_back(nodeInfo(path, "", topology));
    }
    EXPECT_TRUE(hostInstallCaptureSystem(&system_));
  }
  ~DeviceNames() override { EXPECT_TRUE(hostInstallCaptureSystem(&world_.setup().capture())); }

  static WorldOptions options(bool second) {
    WorldOptions options;
    options.second_plugin = second;
    return options;
  }

  ChannelWorld world_{options(GetParam())};
  std::shared_ptr<FakeV4l2> calls_ = std::make_shared<FakeV4l2>();
  std::shared_ptr<FakeCatalog> catalog_ = std::make_shared<FakeCatalog>();
  V4l2CaptureSystem system_{catalog_, calls_};
};
INSTANTIATE_TEST_SUITE_P(MainPlugin, DeviceNames, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(SecondPlugin, DeviceNames, testing::Values(true));

TEST_P(DeviceNames, AreTextsThatEveryApplicationCanRead) {
  EXPECT_EQ(world_.reply("getDeviceList"), success(ValueList{"Plain", std::string(30, 'x'), "caf\xEF\xBF\xBD!"}));
}

}  // namespace
}  // namespace mirn::test
