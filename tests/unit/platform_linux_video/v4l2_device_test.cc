#include "platform/linux/v4l2_device.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/no_more_threads.h"
#include "tests/unit/platform_linux_video/v4l2_device_fixture.h"

namespace mirn {
namespace {

using test::nodeInfo;

TEST_F(V4l2DeviceTest, OpeningTakesPriorityBeforeAnythingElseAndStreams) {
  calls_->clearTrace();
  ASSERT_TRUE(open());
  EXPECT_EQ(calls_->trace(kPath), (std::vector<std::string>{"S_PRIORITY", "S_FMT", "REQBUFS", "STREAMON"}));
  EXPECT_EQ(calls_->node(kPath).priority, static_cast<uint32_t>(V4L2_PRIORITY_RECORD));
}

TEST_F(V4l2DeviceTest, FramesAreConvertedOnceAndTheBufferGoesBack) {
  ASSERT_TRUE(open());
  // A frame that is replaced before it is delivered gives its picture back, and that one is converted into again: so
  // one after the other.
  for (size_t i = 1; i <= 20; ++i) {
    until([&] { return calls_->push(kPath, grey(kSmall)); });
    until([&] { return numbers().framesDelivered + numbers().droppedLate >= i; });
  }
  const auto frames = collector_.waitFor(1);
  EXPECT_EQ(frames[0].imageBuffer->width(), 64U);
  EXPECT_EQ(frames[0].imageBuffer->height(), 32U);
  EXPECT_EQ(frames[0].imageBuffer->format(), kPixelFormatBGRA);
  for (const SampleBuffer& frame : frames) {
    EXPECT_EQ(frame.imageBuffer->locksTaken(), 1U);
  }
}

TEST_F(V4l2DeviceTest, StoppingGivesEverythingBack) {
  ASSERT_TRUE(open());
  EXPECT_GT(calls_->mappings(), 0U);
  calls_->clearTrace();
  session_->stopRunning();
  EXPECT_EQ(calls_->trace(kPath), (std::vector<std::string>{"STREAMOFF", "REQBUFS(0)"}));
  EXPECT_EQ(calls_->mappings(), 0U);
  session_.reset();
  EXPECT_EQ(calls_->openDescriptors(), 0U);
}

TEST_F(V4l2DeviceTest, ChangingTheFormatFollowsTheSequenceThatDriversWant) {
  ASSERT_TRUE(open());
  device_->lockForConfiguration();
  calls_->clearTrace();
  ASSERT_TRUE(device_->setActiveFormat(format(kCaptureYuyv, 128)));
  EXPECT_EQ(calls_->trace(kPath),
            (std::vector<std::string>{"STREAMOFF", "REQBUFS(0)", "S_FMT", "S_PARM", "REQBUFS", "STREAMON"}));
  device_->unlockForConfiguration();
  until([&] { return calls_->push(kPath, grey(kLarge)); });
  EXPECT_EQ(collector_.waitFor(1)[0].imageBuffer->width(), 128U);
  EXPECT_EQ(numbers().width, 128);
}

TEST_F(V4l2DeviceTest, TheConfigurationLockWorksWithoutASession) {
  ASSERT_TRUE(device_->lockForConfiguration());
  EXPECT_EQ(calls_->openDescriptors(), 1U);
  ASSERT_TRUE(device_->setActiveFormat(format(kCaptureMjpg, 64)));
  device_->unlockForConfiguration();
  EXPECT_EQ(calls_->openDescriptors(), 0U);
}

TEST_F(V4l2DeviceTest, AFormatTheDriverAdjustsIsRefusedAndTheFormerComesBack) {
  ASSERT_TRUE(open());
  device_->lockForConfiguration();
  const auto unknown =
      std::make_shared<const CaptureFormat>(CaptureFormat{kCaptureYuyv, 640, 480, kPixelFormatYuvs, {1, 30}});
  EXPECT_FALSE(device_->setActiveFormat(unknown));
  EXPECT_EQ(calls_->node(kPath).format.width, 64U) << "not the size that the driver took instead";
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  EXPECT_EQ(collector_.waitFor(1)[0].imageBuffer->width(), 64U);
  EXPECT_TRUE(session_->isRunning());
}

TEST_F(V4l2DeviceTest, AfterARefusedFormatTheFormerComesWithItsRate) {
  calls_->node(kPath).sizes = {{V4L2_PIX_FMT_YUYV, 64, 32, {30, 60}}};
  ASSERT_EQ(device_->look(), V4l2Look::kCapture);
  ASSERT_TRUE(open());
  device_->lockForConfiguration();
  ASSERT_TRUE(device_->setActiveFormat(format(kCaptureYuyv, 64)));
  ASSERT_EQ(calls_->node(kPath).interval.denominator, 60U);
  const auto unknown =
      std::make_shared<const CaptureFormat>(CaptureFormat{kCaptureYuyv, 640, 480, kPixelFormatYuvs, {1, 15}});
  EXPECT_FALSE(device_->setActiveFormat(unknown));
  EXPECT_EQ(calls_->node(kPath).format.width, 64U);
  EXPECT_EQ(calls_->node(kPath).interval.numerator, 1U);
  EXPECT_EQ(calls_->node(kPath).interval.denominator, 60U);
  EXPECT_TRUE(session_->isRunning());
}

struct FakeRates {
  const char* name;
  v4l2_fract taken;
  int refusal;  // of the wish
  bool silent;  // answers no question about it
  double told;
};

TEST_F(V4l2DeviceTest, ASessionWithoutAChosenFormatTellsWhatTheDriverHas) {
  calls_->node(kPath).sizes = {{V4L2_PIX_FMT_YUYV, 64, 32, {25, 50}}};
  ASSERT_TRUE(open());
  EXPECT_EQ(device_->activeFormat(), nullptr);
  EXPECT_EQ(numbers().width, 64);
  EXPECT_EQ(numbers().height, 32);
  EXPECT_EQ(numbers().pixelFormat, kCaptureYuyv);
  EXPECT_EQ(numbers().interval.framesPerSecond(), 25);
}

TEST_F(V4l2DeviceTest, TheRateThatIsToldIsTheOneThatTheDriverTook) {
  const FakeRates rates[] = {{"takes another", {2, 15}, 0, false, 7.5},
                             {"refuses, and has the format's own", {}, ENOTTY, false, 30},
                             {"refuses, and tells none", {}, ENOTTY, true, 60}};
  for (const FakeRates& driver : rates) {
    SCOPED_TRACE(driver.name);
    calls_->node(kPath).sizes = {{V4L2_PIX_FMT_YUYV, 64, 32, {30, 60}}};
    ASSERT_EQ(device_->look(), V4l2Look::kCapture);
    calls_->node(kPath).taken = driver.taken;
    calls_->node(kPath).errors.clear();
    if (driver.refusal != 0) calls_->fail(kPath, VIDIOC_S_PARM, driver.refusal);
    if (driver.silent) calls_->fail(kPath, VIDIOC_G_PARM, ENOTTY);
    ASSERT_TRUE(open());
    device_->lockForConfiguration();
    ASSERT_TRUE(device_->setActiveFormat(format(kCaptureYuyv, 64)));
    device_->unlockForConfiguration();
    EXPECT_EQ(numbers().interval.framesPerSecond(), driver.told);
    session_->stopRunning();
    ASSERT_TRUE(session_->startRunning());
    EXPECT_EQ(numbers().interval.framesPerSecond(), driver.told);
    session_.reset();
  }
}

struct BadFrame {
  const char* name;
  size_t bytes;
  uint32_t flags;
};

TEST_F(V4l2DeviceTest, DamagedFramesAreDroppedCountedAndTheStreamGoesOn) {
  ASSERT_TRUE(open());
  const BadFrame frames[] = {{"cut short", kSmall - 1, 0},
                             {"zero length", 0, 0},
                             {"flagged", kSmall, V4L2_BUF_FLAG_ERROR},
                             {"longer than its buffer", kSmall + 1, 0}};
  uint64_t expected = 0;
  for (const BadFrame& frame : frames) {
    SCOPED_TRACE(frame.name);
    until([&] { return calls_->push(kPath, grey(frame.bytes), frame.flags); });
    ++expected;
    until([&] { return numbers().droppedDamaged == expected; });
    EXPECT_EQ(numbers().framesCaptured, 0U);
  }
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  collector_.waitFor(1);
  EXPECT_TRUE(session_->isRunning());
}

TEST_F(V4l2DeviceTest, ADamagedBufferNeverTakesThePlaceOfAGoodOne) {
  ASSERT_TRUE(open());
  const std::vector<uint8_t> bright(kSmall, 200);
  const test::FakeV4l2::Frame bad[] = {{grey(kSmall), V4L2_BUF_FLAG_ERROR},
                                       {grey(0)},            // zero length
                                       {grey(kSmall - 1)},   // cut short
                                       {grey(kSmall + 1)}};  // longer than its buffer
  uint64_t round = 0;
  for (const test::FakeV4l2::Frame& frame : bad) {
    SCOPED_TRACE(round);
    until([&] { return calls_->pushTogether(kPath, {{grey(kSmall)}, {bright}, frame, frame}); });
    ++round;
    until([&] { return numbers().framesDelivered + numbers().droppedDamaged + numbers().droppedLate == 4 * round; });
    ASSERT_EQ(numbers().droppedDamaged, 2 * round);
    ASSERT_EQ(numbers().framesDelivered, round);
    const SampleBuffer shown = collector_.waitFor(round).back();
    EXPECT_EQ(numbers().droppedLate, round) << "the older of the two good ones";
    const PixelBufferRef& picture = shown.imageBuffer;
    picture->lockBaseAddress(kPixelBufferLockReadOnly);
    EXPECT_EQ(picture->baseAddress()[0], 255) << "the newer of the two good ones";
    picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  }
}

TEST_F(V4l2DeviceTest, ADamagedBufferThatCantBeGivenBackStopsTheStream) {
  ASSERT_TRUE(open());
  calls_->fail(kPath, VIDIOC_QBUF, EINVAL);
  until([&] { return calls_->push(kPath, {}); });
  until([&] { return !session_->isRunning(); });
  EXPECT_EQ(numbers().stopCode, EINVAL);
  EXPECT_EQ(numbers().droppedDamaged, 1U);
}

TEST_F(V4l2DeviceTest, ACorruptJpegIsDroppedAndCounted) {
  device_->lockForConfiguration();
  ASSERT_TRUE(device_->setActiveFormat(format(kCaptureMjpg, 64)));
  ASSERT_TRUE(open());
  until([&] { return calls_->push(kPath, grey(100)); });
  until([&] { return numbers().droppedDamaged == 1; });
  EXPECT_TRUE(session_->isRunning());
}

TEST_F(V4l2DeviceTest, EveryFrameIsDeliveredOrCountedAsDropped) {
  ASSERT_TRUE(open());
  constexpr uint64_t kFrames = 400;
  for (uint64_t i = 0; i < kFrames; ++i) {
    until([&] { return calls_->push(kPath, grey(kSmall)); });
  }
  until([&] { return numbers().framesDelivered + numbers().droppedLate == kFrames; });
  EXPECT_GT(numbers().framesDelivered, 0U);
  EXPECT_EQ(numbers().droppedDamaged, 0U);
}

TEST_F(V4l2DeviceTest, AHeldPictureIsNeverOverwritten) {
  ASSERT_TRUE(open());
  // The collector keeps every frame, so the pool runs dry: late, not torn.
  until([&] {
    calls_->push(kPath, grey(kSmall));
    return collector_.count() >= 4 && numbers().droppedLate > 0;
  });
  std::vector<PixelBuffer*> distinct;
  for (const SampleBuffer& sample : collector_.waitFor(4)) {
    for (const PixelBuffer* other : distinct) {
      EXPECT_NE(other, sample.imageBuffer.get());
    }
    distinct.push_back(sample.imageBuffer.get());
  }
}

TEST_F(V4l2DeviceTest, AnotherProgramAtRecordPriorityMakesOpenFailWithItsNode) {
  calls_->node(kPath).otherHoldsRecord = true;
  CaptureError error;
  EXPECT_FALSE(open(&error));
  EXPECT_EQ(error.code, EBUSY);
  EXPECT_EQ(error.node, kPath);
  EXPECT_EQ(calls_->openDescriptors(), 0U);
}

TEST_F(V4l2DeviceTest, AnotherProgramThatOwnsTheDriverMakesOpenFail) {
  calls_->node(kPath).otherOwns = true;
  CaptureError error;
  EXPECT_FALSE(open(&error));
  EXPECT_EQ(error.code, EBUSY);
  // It works again as soon as the other one is done.
  calls_->node(kPath).otherOwns = false;
  EXPECT_TRUE(open(&error));
}

TEST_F(V4l2DeviceTest, ANodeThatMayNotBeOpenedSaysSo) {
  calls_->node(kPath).openError = EACCES;
  CaptureError error;
  EXPECT_FALSE(open(&error));
  EXPECT_EQ(error.code, EACCES);
  EXPECT_NE(error.localizedDescription().find("group 'video'"), std::string::npos);
}

TEST_F(V4l2DeviceTest, ADriverWithoutPrioritiesWorks) {
  calls_->node(kPath).noPriorities = true;
  EXPECT_TRUE(open());
}

struct FailingStep {
  const char* name;
  unsigned long request;  // 0 = mmap
  int code;
};

TEST_F(V4l2DeviceTest, EveryFailingStepOfTheStartGivesItsReasonAndLeavesNothingBehind) {
  const FailingStep steps[] = {{"S_PRIORITY", VIDIOC_S_PRIORITY, ENODEV},
                               {"G_FMT", VIDIOC_G_FMT, EIO},
                               {"S_FMT", VIDIOC_S_FMT, EBUSY},
                               {"REQBUFS", VIDIOC_REQBUFS, ENOMEM},
                               {"QUERYBUF", VIDIOC_QUERYBUF, EINVAL},
                               {"mmap", 0, ENOMEM},
                               {"QBUF", VIDIOC_QBUF, EINVAL},
                               {"STREAMON", VIDIOC_STREAMON, ENOSPC}};
  for (const FailingStep& step : steps) {
    SCOPED_TRACE(step.name);
    calls_->fail(kPath, step.request, step.code);
    CaptureError error;
    EXPECT_FALSE(open(&error));
    EXPECT_EQ(error.code, step.code);
    EXPECT_EQ(error.node, kPath);
    session_.reset();
    EXPECT_EQ(calls_->mappings(), 0U);
    EXPECT_EQ(calls_->openDescriptors(), 0U);
    calls_->node(kPath).errors.clear();
    EXPECT_TRUE(open(&error));
    session_.reset();
  }
}

TEST_F(V4l2DeviceTest, WithoutAThreadTheStartGivesItsReasonAndLeavesNothingBehind) {
  CaptureError error;
  {
    const test::NoMoreThreads none;
    EXPECT_FALSE(open(&error));
  }
  EXPECT_EQ(error.code, EAGAIN);
  EXPECT_EQ(error.reason, "starting the capture thread failed");
  EXPECT_FALSE(session_->isRunning());
  EXPECT_EQ(calls_->mappings(), 0U);
  session_.reset();
  EXPECT_EQ(calls_->openDescriptors(), 0U);
  ASSERT_TRUE(open(&error));
  // Nor does a change of the format: frames end, the reason is told, the format is the new one.
  device_->lockForConfiguration();
  {
    const test::NoMoreThreads none;
    EXPECT_FALSE(device_->setActiveFormat(format(kCaptureYuyv, 128), &error));
  }
  EXPECT_EQ(error.code, EAGAIN);
  EXPECT_EQ(numbers().stopCode, EAGAIN);
  EXPECT_FALSE(session_->isRunning());
  EXPECT_TRUE(session_->startRunning());
}

TEST_F(V4l2DeviceTest, PullingItOutStopsTheSessionAndNothingBlocks) {
  ASSERT_TRUE(open());
  calls_->unplug(kPath);
  until([&] { return !session_->isRunning(); });
  EXPECT_EQ(numbers().stopCode, ENODEV);
  EXPECT_FALSE(device_->isConnected());
  CaptureError error;
  EXPECT_FALSE(device_->lockForConfiguration(&error));
  EXPECT_EQ(error.code, ENODEV);
  session_->stopRunning();
  session_.reset();
  EXPECT_EQ(calls_->mappings(), 0U);
  EXPECT_EQ(calls_->openDescriptors(), 0U);
  EXPECT_FALSE(open(&error));
  EXPECT_EQ(error.code, ENODEV);
}

TEST_F(V4l2DeviceTest, APollErrorOfALivingDeviceStopsTheStreamAndItCanStartAgain) {
  ASSERT_TRUE(open());
  calls_->setPollError(kPath);
  until([&] { return !session_->isRunning(); });
  EXPECT_EQ(numbers().stopCode, EPIPE);
  EXPECT_TRUE(device_->isConnected());
  calls_->node(kPath).pollError = false;
  ASSERT_TRUE(session_->startRunning());
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  collector_.waitFor(1);
}

TEST_F(V4l2DeviceTest, AFailingDequeueStopsTheStreamWithItsCode) {
  ASSERT_TRUE(open());
  calls_->fail(kPath, VIDIOC_DQBUF, EIO);
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  until([&] { return !session_->isRunning(); });
  EXPECT_EQ(numbers().stopCode, EIO);
}

TEST_F(V4l2DeviceTest, ABufferThatCantBeGivenBackStopsTheStream) {
  ASSERT_TRUE(open());
  calls_->fail(kPath, VIDIOC_QBUF, EINVAL);
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  until([&] { return !session_->isRunning(); });
  EXPECT_EQ(numbers().stopCode, EINVAL);
}

TEST_F(V4l2DeviceTest, WithoutFramesStopReturnsAtOnce) {
  ASSERT_TRUE(open());
  session_->stopRunning();  // no signal: the capture thread is waiting
  EXPECT_EQ(numbers().framesCaptured, 0U);
  EXPECT_TRUE(session_->startRunning());
}

TEST_F(V4l2DeviceTest, ASecondSessionTakesOverWithoutAnErrorOfOurOwn) {
  ASSERT_TRUE(open());
  auto older = std::move(session_);
  auto olderOutput = output_;
  ASSERT_TRUE(open());
  EXPECT_FALSE(older->isRunning());
  EXPECT_EQ(calls_->openDescriptors(), 1U);
  until([&] { return calls_->push(kPath, grey(kSmall)); });
  collector_.waitFor(1);
  olderOutput->setSampleBufferDelegate(nullptr, nullptr);
}

TEST_F(V4l2DeviceTest, TheNameIsTheProductOrTheCard) {
  EXPECT_EQ(device_->localizedName(), "Nuvra Mirn");
  V4l2Device other(nodeInfo(kPath, ""), calls_);
  EXPECT_EQ(other.localizedName(), "Fake Card");
  calls_->node(kPath).card = "Seen When Opened";
  other.look();
  EXPECT_EQ(other.localizedName(), "Seen When Opened");
}

// Applications throw at texts that are not UTF-8. A card's name has 31 bytes, wherever the 31st falls.
TEST_F(V4l2DeviceTest, TheNameIsValidTextWhateverTheDriverSays) {
  const std::string filler(29, 'x');
  const std::vector<std::pair<std::string, std::string>> cards = {
      {filler + "\xC3\xA9", filler + "\xC3\xA9"},                 // the whole character fits
      {filler + "x\xC3\xA9", filler + "x"},                       // one byte of it does
      {filler + "\xE2\x82\xAC", filler},                          // two do
      {filler.substr(1) + "\xF0\x9F\x93\xB7", filler.substr(1)},  // three do
      {"caf\xE9 cam", "caf\xEF\xBF\xBD cam"},
      {"\xFF", "\xEF\xBF\xBD"},
  };
  for (const auto& [card, name] : cards) {
    V4l2NodeInfo info = nodeInfo(kPath, "");
    info.card = card.substr(0, 31);
    EXPECT_EQ(V4l2Device(info, calls_).localizedName(), name) << "from sysfs";
    calls_->node(kPath).card = card;
    V4l2Device opened(nodeInfo(kPath, ""), calls_);
    opened.look();
    EXPECT_EQ(opened.localizedName(), name) << "from the driver";
  }
  EXPECT_EQ(V4l2Device(nodeInfo(kPath, "Nuvra \xC3 Mirn"), calls_).localizedName(), "Nuvra \xEF\xBF\xBD Mirn");
}

TEST_F(V4l2DeviceTest, TheFormatListIsTheSameObjectsUntilItChanges) {
  const auto before = device_->formats();
  device_->look();
  EXPECT_EQ(device_->formats(), before);
  calls_->node(kPath).sizes.push_back({V4L2_PIX_FMT_MJPEG, 128, 64, {60}});
  device_->look();
  EXPECT_EQ(device_->formats().size(), before.size() + 1);
}

}  // namespace
}  // namespace mirn
