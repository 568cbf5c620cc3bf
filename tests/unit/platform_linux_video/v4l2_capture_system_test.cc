#include "platform/linux/v4l2_capture_system.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/video/fake_v4l2.h"
#include "tests/support/video/log_capture.h"

namespace mirn {
namespace {

using test::nodeInfo;

class V4l2CaptureSystemTest : public testing::Test {
 protected:
  void plug(const std::string& path, const std::string& topology, int index = 0) {
    calls_->node(path);
    catalog_->nodes.push_back(nodeInfo(path, "Nuvra Mirn", topology, index));
  }

  test::LogCapture log_;
  std::shared_ptr<test::FakeV4l2> calls_ = std::make_shared<test::FakeV4l2>();
  std::shared_ptr<test::FakeCatalog> catalog_ = std::make_shared<test::FakeCatalog>();
  V4l2CaptureSystem system_{catalog_, calls_};
};

TEST_F(V4l2CaptureSystemTest, AMetadataNodeIsNoDevice) {
  plug("/dev/video0", "1-1");
  plug("/dev/video1", "1-1", 1);
  calls_->node("/dev/video1").capabilities = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
  const auto devices = system_.devices();
  ASSERT_EQ(devices.size(), 1U);
  EXPECT_EQ(devices[0]->nodeName(), "/dev/video0");
  EXPECT_EQ(calls_->openDescriptors(), 0U);
}

TEST_F(V4l2CaptureSystemTest, AHeldDeviceIsTheSameObjectForEverybody) {
  plug("/dev/video0", "1-1");
  const auto first = system_.devices()[0];
  EXPECT_EQ(system_.devices()[0], first);
  EXPECT_EQ(first->formats(), system_.devices()[0]->formats());
}

TEST_F(V4l2CaptureSystemTest, TwoOfTheSameNameKeepTheCataloguesOrder) {
  plug("/dev/video4", "1-2");
  plug("/dev/video0", "1-10");
  const auto devices = system_.devices();
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_EQ(devices[0]->topologyPath(), "1-2");
  EXPECT_EQ(devices[1]->topologyPath(), "1-10");
}

TEST_F(V4l2CaptureSystemTest, WhatMayNotBeOpenedIsListedSoThatOpeningCanSayWhy) {
  plug("/dev/video0", "1-1");
  plug("/dev/video1", "1-1", 1);
  calls_->node("/dev/video0").openError = EACCES;
  calls_->node("/dev/video1").openError = EACCES;
  const auto devices = system_.devices();
  ASSERT_EQ(devices.size(), 1U);
  EXPECT_EQ(devices[0]->localizedName(), "Nuvra Mirn");
  EXPECT_TRUE(devices[0]->formats().empty());
  CaptureError error;
  EXPECT_EQ(system_.createDeviceInput(devices[0], &error), nullptr);
  EXPECT_EQ(error.code, EACCES);
}

TEST_F(V4l2CaptureSystemTest, AfterReplugItIsAnotherObjectAndOpensAgain) {
  plug("/dev/video0", "1-1");
  const auto before = system_.devices()[0];
  auto input = system_.createDeviceInput(before, nullptr);
  ASSERT_TRUE(input);
  calls_->unplug("/dev/video0");
  EXPECT_TRUE(system_.devices().empty());
  // Back, at the same place, under another number: the old node is still held open.
  catalog_->nodes.clear();
  plug("/dev/video2", "1-1");
  const auto after = system_.devices();
  ASSERT_EQ(after.size(), 1U);
  EXPECT_NE(after[0], before);
  EXPECT_TRUE(system_.createDeviceInput(after[0], nullptr));
}

TEST_F(V4l2CaptureSystemTest, AfterReplugUnderTheSameNumberItIsAnotherObjectToo) {
  plug("/dev/video0", "1-1");
  const auto before = system_.devices()[0];
  auto input = system_.createDeviceInput(before, nullptr);
  calls_->unplug("/dev/video0");
  EXPECT_FALSE(before->isConnected());
  calls_->node("/dev/video0").gone = false;
  input.reset();
  catalog_->nodes[0].key += "again";
  ASSERT_EQ(system_.devices().size(), 1U);
  EXPECT_NE(system_.devices()[0], before);
}

TEST_F(V4l2CaptureSystemTest, ANodeThatIsGoneBetweenListAndLookIsLeftOut) {
  plug("/dev/video0", "1-1");
  calls_->unplug("/dev/video0");
  EXPECT_TRUE(system_.devices().empty());
}

TEST_F(V4l2CaptureSystemTest, ThisMachinesDevicesCanBeListed) {
  const auto first = defaultCaptureSystem().devices();
  const auto second = defaultCaptureSystem().devices();
  EXPECT_EQ(first, second);
}

}  // namespace
}  // namespace mirn
