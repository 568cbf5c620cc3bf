#include "video/camera_manager.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "tests/support/video/fake_capture.h"
#include "tests/support/video/log_capture.h"

namespace mirn {
namespace {

using test::makeFormat;

// A canvas costs a hundred times as much under the thread sanitizer.
#ifdef MIRN_SANITIZED
constexpr int kRounds = 2;
constexpr int kFrames = 12;
#else
constexpr int kRounds = 6;
constexpr int kFrames = 100;
#endif

class CameraManagerTest : public testing::Test {
 protected:
  // What was printed since the last call.
  static std::string printed() {
    const std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return text;
  }
  CameraManagerTest() { testing::internal::CaptureStdout(); }
  ~CameraManagerTest() override { testing::internal::GetCapturedStdout(); }

  // A frame in one colour, straight into the callback.
  void feed(size_t width, size_t height, uint8_t level) {
    const PixelBufferRef picture = PixelBuffer::create(width, height, kPixelFormatBGRA);
    picture->lockBaseAddress(kPixelBufferLockForWriting);
    for (size_t y = 0; y < height; ++y) {
      for (size_t x = 0; x < width; ++x) {
        uint8_t* pixel = picture->baseAddress() + y * picture->bytesPerRow() + x * 4;
        pixel[0] = level;
        pixel[1] = static_cast<uint8_t>(level + 1);
        pixel[2] = static_cast<uint8_t>(level + 2);
        pixel[3] = 255;
      }
    }
    picture->unlockBaseAddress(kPixelBufferLockForWriting);
    feed(picture);
  }
  void feed(const PixelBufferRef& picture) {
    CaptureVideoOutput output;
    camera_.captureOutput(output, {picture, {}}, {});
  }

  static const uint8_t* pixel(const FrameData& frame, size_t x, size_t y) {
    return frame.rgbData->data() + y * 1920 + x * 3;
  }
  static bool blankRow(const FrameData& frame, size_t y) {
    for (size_t i = 0; i < 1920; ++i) {
      if (frame.rgbData->data()[y * 1920 + i] != 0) {
        return false;
      }
    }
    return true;
  }

  test::LogCapture log_;
  test::FakeCaptureSystem system_;
  CameraManager camera_;
};

TEST_F(CameraManagerTest, StartsWithoutAFrameAndWithItsFixedSize) {
  EXPECT_FALSE(camera_.currentFrame());
  EXPECT_EQ(camera_.frameWidth, 640);
  EXPECT_EQ(camera_.frameHeight, 480);
  EXPECT_FALSE(camera_.captureSession);
}

TEST_F(CameraManagerTest, WithoutTheDeviceOpenFailsWithoutAWord) {
  system_.add("Another Camera");
  system_.add("nuvra mirn");
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "");
  EXPECT_FALSE(camera_.captureDevice);
}

TEST_F(CameraManagerTest, WithoutTheDeviceTheOneOfTheLastOpeningStays) {
  auto device = system_.add("Nuvra Mirn");
  ASSERT_TRUE(camera_.open());
  const std::shared_ptr<CaptureSession> session = camera_.captureSession;
  system_.list.clear();
  system_.add("Another Camera");
  printed();
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(camera_.captureDevice, device);
  EXPECT_EQ(camera_.captureSession, session);
  EXPECT_TRUE(device->streaming);
}

TEST_F(CameraManagerTest, OpensTheFirstOfThatNameAt720P) {
  system_.add("Another Camera");
  auto first = system_.add("Nuvra Mirn", test::usualFormats(), "first");
  system_.add("Nuvra Mirn", test::usualFormats(), "second");
  EXPECT_TRUE(camera_.open());
  EXPECT_EQ(printed(), "Resolution set to 640x480\n");
  EXPECT_EQ(camera_.captureDevice, first);
  ASSERT_TRUE(first->activeFormat());
  EXPECT_EQ(first->activeFormat()->width, 1280);
  EXPECT_EQ(first->activeFormat(), first->formats()[0]);  // the first of that size, whatever its pixel format
  EXPECT_TRUE(first->streaming);
  EXPECT_TRUE(camera_.captureSession->isRunning());
  EXPECT_TRUE(camera_.videoOutput->alwaysDiscardsLateVideoFrames());
  EXPECT_EQ(first->configurationLocks(), 0);
}

TEST_F(CameraManagerTest, WithoutA720PFormatItGoesOnWithWhatThereIs) {
  auto device = system_.add("Nuvra Mirn", {makeFormat(kCaptureYuyv, 1920, 1080, 30)});
  EXPECT_TRUE(camera_.open());
  EXPECT_EQ(printed(), "640x480 resolution not supported\n");
  EXPECT_FALSE(device->activeFormat());
  EXPECT_TRUE(device->streaming);
}

TEST_F(CameraManagerTest, ADeviceThatCantBeOpenedIsPrintedWithItsReason) {
  auto device = system_.add("Nuvra Mirn");
  device->openError = EBUSY;
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "Error initializing camera: fake:fake-1: made to fail (Device or resource busy). Don't.\n");
  EXPECT_EQ(camera_.captureDevice, device);
}

TEST_F(CameraManagerTest, ALockThatCantBeTakenIsPrintedToo) {
  system_.add("Nuvra Mirn")->lockError = EBUSY;
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "Error initializing camera: fake:fake-1: made to fail (Device or resource busy). Don't.\n");
}

TEST_F(CameraManagerTest, ASessionThatTakesNoInputIsPrinted) {
  system_.add("Nuvra Mirn");
  system_.failSession = true;
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "Cannot add input to session.\n");
}

TEST_F(CameraManagerTest, AnOutputThatCantBeAddedIsPrintedAndTheSessionStaysOpenForConfiguration) {
  auto device = system_.add("Nuvra Mirn");
  system_.failOutput = true;
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(printed(), "Resolution set to 640x480\nCannot add video output to session.\n");
  EXPECT_TRUE(camera_.captureSession->isConfiguring());
  EXPECT_FALSE(device->streaming);
  system_.failOutput = false;
  EXPECT_TRUE(camera_.open());
  EXPECT_TRUE(device->streaming);
}

TEST_F(CameraManagerTest, OpenWhileOpenReplacesTheSession) {
  auto device = system_.add("Nuvra Mirn");
  EXPECT_TRUE(camera_.open());
  const auto former = camera_.captureSession;
  EXPECT_TRUE(camera_.open());
  EXPECT_NE(camera_.captureSession, former);
  EXPECT_FALSE(former->isRunning());
  EXPECT_TRUE(camera_.captureSession->isRunning());
  EXPECT_TRUE(device->streaming);
}

TEST_F(CameraManagerTest, AnOpeningThatFailsOnItsDeviceLeavesTheOldSessionRunning) {
  auto device = system_.add("Nuvra Mirn");
  ASSERT_TRUE(camera_.open());
  const auto session = camera_.captureSession;
  system_.list.clear();
  system_.add("Nuvra Mirn", test::usualFormats(), "second")->openError = EBUSY;
  EXPECT_FALSE(camera_.open());
  EXPECT_EQ(camera_.captureSession, session);
  EXPECT_TRUE(session->isRunning());
  EXPECT_TRUE(device->streaming);
}

TEST_F(CameraManagerTest, SetResolutionBeforeOpenIsRefused) {
  EXPECT_FALSE(camera_.setResolution(1280, 720));
  EXPECT_EQ(printed(), "Capture device is not initialized.\n");
}

TEST_F(CameraManagerTest, SetResolutionTakesTheFirstFormatOfThatSize) {
  auto device = system_.add("Nuvra Mirn");
  camera_.open();
  printed();
  EXPECT_TRUE(camera_.setResolution(1920, 1080));
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(device->activeFormat(), device->format(kCaptureYuyv, 1920));
  EXPECT_EQ(camera_.frameWidth, 640);
  EXPECT_EQ(camera_.frameHeight, 480);
  EXPECT_EQ(device->configurationLocks(), 0);
}

TEST_F(CameraManagerTest, AnUnlistedResolutionIsRefusedAndTheFormatStays) {
  auto device = system_.add("Nuvra Mirn");
  camera_.open();
  const auto before = device->activeFormat();
  printed();
  for (const int64_t width : {int64_t{640}, int64_t{0}, int64_t{-1280}, (int64_t{1} << 32) + 1280}) {
    EXPECT_FALSE(camera_.setResolution(width, 720));
    EXPECT_EQ(printed(), "Resolution not supported.\n");
  }
  EXPECT_EQ(device->activeFormat(), before);
  EXPECT_EQ(device->configurationLocks(), 0);
}

TEST_F(CameraManagerTest, SetResolutionWithoutTheLockIsPrinted) {
  auto device = system_.add("Nuvra Mirn");
  camera_.open();
  printed();
  device->lockError = EBUSY;
  EXPECT_FALSE(camera_.setResolution(1920, 1080));
  EXPECT_EQ(printed(), "Error setting resolution: fake:fake-1: made to fail (Device or resource busy). Don't.\n");
}

TEST_F(CameraManagerTest, ListsEveryVideoDevice) {
  system_.add("Webcam");
  system_.add("Nuvra Mirn");
  system_.add("Microphone")->video = false;
  EXPECT_EQ(camera_.listDevices(), (std::vector<std::string>{"Webcam", "Nuvra Mirn"}));
}

// ---- frames

TEST_F(CameraManagerTest, AWideSourceHasSixtyBlankRowsAboveAndBelow) {
  for (const auto& [width, height] : {std::pair<size_t, size_t>{1280, 720}, {1920, 1080}}) {
    feed(width, height, 100);
    const auto frame = camera_.currentFrame();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 640);
    EXPECT_EQ(frame->height, 480);
    EXPECT_EQ(frame->rgbData->size(), 921600U);
    for (size_t y = 0; y < 480; ++y) {
      ASSERT_EQ(blankRow(*frame, y), y < 60 || y >= 420) << y;
    }
    EXPECT_EQ(pixel(*frame, 0, 60)[0], 100);
    EXPECT_EQ(pixel(*frame, 639, 419)[1], 101);
    EXPECT_EQ(pixel(*frame, 639, 419)[2], 102);
  }
}

TEST_F(CameraManagerTest, ASourceOfTheCanvasShapeFillsItExactly) {
  feed(640, 480, 50);
  const auto frame = camera_.currentFrame();
  for (size_t i = 0; i < kCanvasBytes; i += 3) {
    ASSERT_EQ(frame->rgbData->data()[i], 50);
    ASSERT_EQ(frame->rgbData->data()[i + 1], 51);
    ASSERT_EQ(frame->rgbData->data()[i + 2], 52);
  }
}

TEST_F(CameraManagerTest, ATruncatedHeightLeavesTheLargerBarBelow) {
  feed(1366, 768, 50);
  const auto frame = camera_.currentFrame();
  for (size_t y = 0; y < 480; ++y) {
    ASSERT_EQ(blankRow(*frame, y), y < 60 || y >= 419) << y;
  }
}

TEST_F(CameraManagerTest, APortraitSourceHasBarsLeftAndRight) {
  feed(1080, 1920, 50);
  const auto frame = camera_.currentFrame();
  for (size_t x = 0; x < 640; ++x) {
    ASSERT_EQ(pixel(*frame, x, 240)[0], x >= 185 && x < 455 ? 50 : 0) << x;
  }
}

TEST_F(CameraManagerTest, BarsAreBlankAgainWhenTheShapeChanges) {
  for (int round = 0; round < kRounds; ++round) {
    feed(64, 48, 200);
    feed(128, 72, 10);
    const auto frame = camera_.currentFrame();
    ASSERT_TRUE(blankRow(*frame, 0));
    ASSERT_TRUE(blankRow(*frame, 479));
    feed(108, 192, 10);
    ASSERT_EQ(pixel(*camera_.currentFrame(), 0, 240)[0], 0);
  }
}

TEST_F(CameraManagerTest, WithoutAPictureThereIsALineAndTheFrameBeforeStays) {
  feed(640, 480, 50);
  feed(PixelBufferRef());
  EXPECT_EQ(printed(), "Failed to get pixel buffer.\n");
  feed(PixelBuffer::wrap(640, 480, kPixelFormatBGRA, nullptr, 2560));
  EXPECT_EQ(printed(), "Failed to get base address.\n");
  EXPECT_EQ(pixel(*camera_.currentFrame(), 0, 0)[0], 50);
}

TEST_F(CameraManagerTest, AFrameThatCantBeScaledIsDroppedAndCounted) {
  feed(640, 480, 50);
  uint8_t byte = 0;
  feed(PixelBuffer::wrap(0, 0, kPixelFormatBGRA, &byte, 0));
  feed(PixelBuffer::wrap(0, 7, kPixelFormatBGRA, &byte, 0));
  EXPECT_EQ(camera_.droppedFrames(), 2U);
  EXPECT_EQ(pixel(*camera_.currentFrame(), 0, 0)[0], 50);
}

TEST_F(CameraManagerTest, AnExtremelyTallPictureGivesABlankCanvas) {
  feed(1, 1000, 50);
  const auto frame = camera_.currentFrame();
  ASSERT_TRUE(frame);
  for (size_t y = 0; y < 480; ++y) {
    ASSERT_TRUE(blankRow(*frame, y));
  }
}

TEST_F(CameraManagerTest, ThePictureIsReadUnderAReadOnlyLockThatIsGivenBack) {
  const PixelBufferRef picture = PixelBuffer::create(1280, 720, kPixelFormatBGRA);
  feed(picture);
  EXPECT_EQ(picture->locksTaken(), 1U);
  EXPECT_EQ(picture->unlockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferNotLocked);
  EXPECT_EQ(picture->referenceCount(), 1U);
}

TEST_F(CameraManagerTest, CanvasesAreReusedWhenNobodyHoldsThem) {
  for (int i = 0; i < kFrames; ++i) {
    feed(64, 48, static_cast<uint8_t>(i));
    camera_.currentFrame();
  }
  EXPECT_LE(camera_.canvasAllocations(), 3U);
}

TEST_F(CameraManagerTest, AHeldFrameNeverChanges) {
  feed(64, 48, 77);
  const auto held = camera_.currentFrame();
  for (int i = 0; i < kFrames; ++i) {
    feed(64, 48, static_cast<uint8_t>(i));
  }
  EXPECT_EQ(pixel(*held, 320, 240)[0], 77);
  EXPECT_EQ(pixel(*camera_.currentFrame(), 320, 240)[0], kFrames - 1);
}

TEST_F(CameraManagerTest, AReaderThatKeepsManyFramesGetsManyCanvases) {
  std::vector<FrameData> kept;
  for (uint8_t i = 0; i < 20; ++i) {
    feed(64, 48, i);
    kept.push_back(*camera_.currentFrame());
  }
  for (uint8_t i = 0; i < 20; ++i) {
    EXPECT_EQ(pixel(kept[i], 320, 240)[0], i);
  }
}

TEST_F(CameraManagerTest, TheFrameCanBeSetAndCleared) {
  camera_.setCurrentFrame(FrameData{640, 480, FrameBytesRef(new FrameBytes)});
  EXPECT_TRUE(camera_.currentFrame());
  camera_.setCurrentFrame(std::nullopt);
  EXPECT_FALSE(camera_.currentFrame());
}

TEST_F(CameraManagerTest, FramesOfTheSessionArriveAndStayAfterRelease) {
  auto device = system_.add("Nuvra Mirn");
  ASSERT_TRUE(camera_.open());
  while (!camera_.currentFrame()) {
    device->push(1280, 720);
  }
  camera_.captureSession->stopRunning();
  camera_.captureSession.reset();
  camera_.videoOutput.reset();
  camera_.captureDevice.reset();
  EXPECT_TRUE(camera_.currentFrame());
  EXPECT_FALSE(device->streaming);
  EXPECT_TRUE(camera_.open());
}

TEST_F(CameraManagerTest, OverlappingCallbacksStoreWholeFrames) {
  std::vector<std::thread> threads;
  for (uint8_t t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kRounds * 3; ++i) {
        feed(64, 48, static_cast<uint8_t>(t * 50));
      }
    });
  }
  for (int i = 0; i < kFrames; ++i) {
    if (const auto frame = camera_.currentFrame()) {
      const uint8_t level = pixel(*frame, 0, 0)[0];
      for (size_t at = 0; at < kCanvasBytes; at += 3) {
        ASSERT_EQ(frame->rgbData->data()[at], level);
      }
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace mirn
