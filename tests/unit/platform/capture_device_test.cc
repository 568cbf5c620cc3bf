#include <gtest/gtest.h>

#include <cerrno>

#include "platform/capture.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/log_capture.h"

namespace mirn {
namespace {

using test::FakeCaptureDevice;

TEST(CaptureDeviceTest, TheConfigurationLockCountsAndOpensTheNodeOnce) {
  auto device = std::make_shared<FakeCaptureDevice>("a");
  EXPECT_TRUE(device->lockForConfiguration());
  EXPECT_TRUE(device->lockForConfiguration());
  EXPECT_EQ(device->configurationLocks(), 2);
  EXPECT_EQ(device->opens, 1);
  device->unlockForConfiguration();
  EXPECT_EQ(device->closes, 0);
  device->unlockForConfiguration();
  EXPECT_EQ(device->closes, 1);
  device->unlockForConfiguration();
  EXPECT_EQ(device->configurationLocks(), 0);
}

TEST(CaptureDeviceTest, ALockThatCantBeTakenSaysWhyAndLeavesTheNodeClosed) {
  auto device = std::make_shared<FakeCaptureDevice>("a");
  device->lockError = EBUSY;
  CaptureError error;
  EXPECT_FALSE(device->lockForConfiguration(&error));
  EXPECT_EQ(error.code, EBUSY);
  EXPECT_EQ(device->opens, device->closes);
  device->lockError = 0;
  device->connected = false;
  EXPECT_FALSE(device->lockForConfiguration(&error));
  EXPECT_EQ(error.code, ENODEV);
  EXPECT_EQ(device->configurationLocks(), 0);
}

TEST(CaptureDeviceTest, AFormatNeedsTheLock) {
  test::LogCapture log;
  auto device = std::make_shared<FakeCaptureDevice>("a");
  EXPECT_FALSE(device->setActiveFormat(device->format(kCaptureYuyv, 1280)));
  EXPECT_EQ(device->applied, 0);
  device->lockForConfiguration();
  EXPECT_TRUE(device->setActiveFormat(device->format(kCaptureYuyv, 1280)));
  EXPECT_EQ(device->activeFormat(), device->format(kCaptureYuyv, 1280));
  EXPECT_EQ(device->formatChoices(), 1U);
}

TEST(CaptureDeviceTest, AnEmptySlotChangesNothing) {
  auto device = std::make_shared<FakeCaptureDevice>("a");
  device->lockForConfiguration();
  device->setActiveFormat(device->format(kCaptureYuyv, 1280));
  EXPECT_FALSE(device->setActiveFormat(nullptr));
  EXPECT_EQ(device->activeFormat(), device->format(kCaptureYuyv, 1280));
  EXPECT_EQ(device->applied, 1);
}

TEST(CaptureDeviceTest, ARefusedFormatIsLoggedAndTheFormerStays) {
  test::LogCapture log;
  auto device = std::make_shared<FakeCaptureDevice>("a");
  device->lockForConfiguration();
  device->setActiveFormat(device->format(kCaptureYuyv, 1280));
  device->applyError = EINVAL;
  EXPECT_FALSE(device->setActiveFormat(device->format(kCaptureYuyv, 1920)));
  EXPECT_EQ(device->activeFormat(), device->format(kCaptureYuyv, 1280));
  EXPECT_TRUE(test::LogCapture::has("1920x1080 'yuvs' (YUYV)"));
}

TEST(CaptureDeviceTest, AnInputKeepsTheNodeOpenForAsLongAsItLives) {
  auto device = std::make_shared<FakeCaptureDevice>("a");
  auto first = CaptureDeviceInput::create(device, nullptr);
  auto second = CaptureDeviceInput::create(device, nullptr);
  EXPECT_EQ(device->opens, 1);
  first.reset();
  EXPECT_EQ(device->closes, 0);
  second.reset();
  EXPECT_EQ(device->closes, 1);
}

TEST(CaptureDeviceTest, AnInputThatCantBeMadeIsNull) {
  auto device = std::make_shared<FakeCaptureDevice>("a");
  device->openError = EACCES;
  CaptureError error;
  EXPECT_EQ(CaptureDeviceInput::create(device, &error), nullptr);
  EXPECT_EQ(error.code, EACCES);
  EXPECT_EQ(CaptureDeviceInput::create(nullptr, &error), nullptr);
  EXPECT_EQ(error.code, ENODEV);
}

TEST(CaptureSystemTest, DevicesWithoutVideoAreLeftOut) {
  test::FakeCaptureSystem system;
  auto microphone = system.add("microphone");
  microphone->video = false;
  system.add("camera");
  ASSERT_EQ(captureSystem().devicesWithMediaType(MediaType::kVideo).size(), 1U);
  EXPECT_EQ(captureSystem().devicesWithMediaType(MediaType::kVideo)[0]->localizedName(), "camera");
  EXPECT_EQ(captureSystem().devices().size(), 2U);
}

TEST(CaptureSystemTest, AFailedInputIsReportedWithNodeAndReason) {
  test::LogCapture log;
  test::FakeCaptureSystem system;
  auto device = system.add("camera");
  device->openError = EBUSY;
  EXPECT_EQ(captureSystem().createDeviceInput(device, nullptr), nullptr);
  EXPECT_EQ(lastCaptureError().code, EBUSY);
  EXPECT_EQ(lastCaptureError().node, device->nodeName());
  EXPECT_TRUE(test::LogCapture::has(device->nodeName()));
}

}  // namespace
}  // namespace mirn
