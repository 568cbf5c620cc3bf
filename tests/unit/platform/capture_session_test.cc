#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <thread>
#include <vector>

#include "platform/capture.h"
#include "platform/work_queue.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/log_capture.h"
#include "tests/support/video/manual_queue.h"

namespace mirn {
namespace {

class Recorder : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sample,
                     const CaptureConnection& connection) override {
    widths.push_back(sample.imageBuffer->width());
    lastDevice = connection.device;
    if (onFrame) {
      onFrame();
    }
  }
  std::vector<size_t> widths;
  CaptureDevice* lastDevice = nullptr;
  std::function<void()> onFrame;
};

// A session on a fake device with a recorder on a queue that the test turns by hand.
class CaptureSessionTest : public testing::Test {
 protected:
  struct Parts {
    std::shared_ptr<CaptureSession> session = std::make_shared<CaptureSession>();
    std::shared_ptr<CaptureVideoOutput> output = std::make_shared<CaptureVideoOutput>();
  };

  Parts makeSession(SampleBufferDelegate* delegate, TaskQueue* queue) {
    Parts parts;
    parts.session->addInput(CaptureDeviceInput::create(device_, nullptr));
    parts.output->setSampleBufferDelegate(delegate, queue);
    parts.session->addOutput(parts.output);
    return parts;
  }

  test::LogCapture log_;
  std::shared_ptr<test::FakeCaptureDevice> device_ = std::make_shared<test::FakeCaptureDevice>("camera");
  test::ManualQueue queue_;
  Recorder recorder_;
};

TEST_F(CaptureSessionTest, AFrameThatTheQueueRefusesGivesWayToTheNext) {
  class Refusing : public TaskQueue {
   public:
    explicit Refusing(TaskQueue& queue) : queue_(queue) {}
    bool post(std::shared_ptr<QueueTask> task) override { return !refuses && queue_.post(std::move(task)); }
    bool refuses = true;

   private:
    TaskQueue& queue_;
  };
  Refusing refusing(queue_);
  Parts parts = makeSession(&recorder_, &refusing);
  ASSERT_TRUE(parts.session->startRunning());
  device_->push(7, 5);
  EXPECT_EQ(queue_.runAll(), 0U);
  refusing.refuses = false;
  device_->push(8, 5);
  EXPECT_EQ(queue_.runAll(), 1U);
  EXPECT_EQ(recorder_.widths, std::vector<size_t>{8});
  EXPECT_EQ(parts.session->statistics().droppedLate, 1U);
  parts.output->setSampleBufferDelegate(nullptr, nullptr);
}

TEST_F(CaptureSessionTest, FramesReachTheDelegateOnItsQueue) {
  Parts parts = makeSession(&recorder_, &queue_);
  ASSERT_TRUE(parts.session->startRunning());
  device_->push(7, 5);
  EXPECT_TRUE(recorder_.widths.empty());
  queue_.runAll();
  EXPECT_EQ(recorder_.widths, (std::vector<size_t>{7}));
  EXPECT_EQ(recorder_.lastDevice, device_.get());
}

TEST_F(CaptureSessionTest, AFrameNotTakenWhenTheNextArrivesIsDroppedAndCounted) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  for (size_t width = 1; width <= 5; ++width) {
    device_->push(width, 1);
  }
  EXPECT_EQ(queue_.size(), 1U);
  queue_.runAll();
  EXPECT_EQ(recorder_.widths, (std::vector<size_t>{5}));
  const CaptureStatistics numbers = parts.session->statistics();
  EXPECT_EQ(numbers.framesCaptured, 5U);
  EXPECT_EQ(numbers.framesDelivered, 1U);
  EXPECT_EQ(numbers.droppedLate, 4U);
  EXPECT_EQ(numbers.droppedDamaged, 0U);
}

TEST_F(CaptureSessionTest, AFrameThatComesDuringTheCallIsDeliveredNext) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  recorder_.onFrame = [&] {
    if (recorder_.widths.size() == 1) {
      device_->push(9, 1);
    }
  };
  device_->push(8, 1);
  queue_.runAll();
  EXPECT_EQ(recorder_.widths, (std::vector<size_t>{8}));
  queue_.runAll();
  EXPECT_EQ(recorder_.widths, (std::vector<size_t>{8, 9}));
  EXPECT_EQ(parts.session->statistics().droppedLate, 0U);
}

TEST_F(CaptureSessionTest, DamagedFramesAreCountedAndTheStreamGoesOn) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->pushDamaged();
  device_->push(3, 1);
  queue_.runAll();
  EXPECT_EQ(parts.session->statistics().droppedDamaged, 1U);
  EXPECT_EQ(recorder_.widths.size(), 1U);
}

TEST_F(CaptureSessionTest, NothingIsDeliveredAfterStop) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->push(3, 1);
  parts.session->stopRunning();
  device_->push(4, 1);
  queue_.runAll();
  EXPECT_TRUE(recorder_.widths.empty());
  EXPECT_FALSE(parts.session->isRunning());
  EXPECT_EQ(device_->starts, device_->stops);
}

TEST_F(CaptureSessionTest, StopWaitsForACallThatRunsOnAnotherThread) {
  WorkQueue work("delegates");
  std::promise<void> entered;
  std::atomic<bool> left{false};
  std::promise<void> mayLeave;
  recorder_.onFrame = [&] {
    entered.set_value();
    mayLeave.get_future().wait();
    left = true;
  };
  Parts parts = makeSession(&recorder_, &work);
  parts.session->startRunning();
  device_->push(3, 1);
  entered.get_future().wait();
  std::thread releaser([&] { mayLeave.set_value(); });
  parts.session->stopRunning();
  EXPECT_TRUE(left);
  releaser.join();
}

TEST_F(CaptureSessionTest, NoFrameOfTheOldFormatArrivesAfterAChange) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->push(1280, 720);
  device_->lockForConfiguration();
  ASSERT_TRUE(device_->setActiveFormat(device_->format(kCaptureYuyv, 1920)));
  device_->unlockForConfiguration();
  queue_.runAll();
  EXPECT_TRUE(recorder_.widths.empty());
  device_->push(1920, 1080);
  queue_.runAll();
  EXPECT_EQ(recorder_.widths, (std::vector<size_t>{1920}));
  EXPECT_EQ(device_->starts, 2);
  EXPECT_EQ(parts.session->statistics().width, 1920);
  EXPECT_EQ(parts.session->statistics().pixelFormat, kCaptureYuyv);
}

TEST_F(CaptureSessionTest, ARefusedFormatLeavesTheStreamRunning) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->lockForConfiguration();
  device_->applyError = EINVAL;
  EXPECT_FALSE(device_->setActiveFormat(device_->format(kCaptureYuyv, 1920)));
  EXPECT_TRUE(device_->streaming);
  EXPECT_TRUE(parts.session->isRunning());
}

TEST_F(CaptureSessionTest, AStreamThatCantGoOnAfterAChangeIsReportedAsStopped) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->lockForConfiguration();
  device_->startError = EIO;
  CaptureError error;
  EXPECT_FALSE(device_->setActiveFormat(device_->format(kCaptureYuyv, 1920), &error));
  EXPECT_EQ(error.code, EIO);
  EXPECT_FALSE(parts.session->isRunning());
  EXPECT_EQ(parts.session->statistics().stopCode, EIO);
}

TEST_F(CaptureSessionTest, ANewerSessionTakesTheDevice) {
  Recorder second;
  Parts older = makeSession(&recorder_, &queue_);
  older.session->startRunning();
  device_->push(1, 1);
  Parts newer = makeSession(&second, &queue_);
  ASSERT_TRUE(newer.session->startRunning());
  EXPECT_FALSE(older.session->isRunning());
  EXPECT_EQ(older.session->statistics().stopCode, 0);
  device_->push(2, 1);
  queue_.runAll();
  EXPECT_TRUE(recorder_.widths.empty());
  EXPECT_EQ(second.widths, (std::vector<size_t>{2}));
  // The older one ends without touching the newer one's stream.
  older.session.reset();
  EXPECT_TRUE(device_->streaming);
  EXPECT_TRUE(newer.session->isRunning());
}

TEST_F(CaptureSessionTest, TheOlderSessionCanTakeTheDeviceBack) {
  Recorder second;
  Parts older = makeSession(&recorder_, &queue_);
  older.session->startRunning();
  Parts newer = makeSession(&second, &queue_);
  newer.session->startRunning();
  ASSERT_TRUE(older.session->startRunning());
  EXPECT_FALSE(newer.session->isRunning());
  device_->push(2, 1);
  queue_.runAll();
  EXPECT_EQ(recorder_.widths.size(), 1U);
}

TEST_F(CaptureSessionTest, ADeviceThatStopsByItselfShowsInTheStatistics) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  device_->stopByItself(ENODEV);
  EXPECT_FALSE(parts.session->isRunning());
  EXPECT_EQ(parts.session->statistics().stopCode, ENODEV);
  EXPECT_EQ(lastCaptureError().code, ENODEV);
  parts.session->stopRunning();
  EXPECT_EQ(device_->stops, 1);
  // It can be started again, once it is back.
  EXPECT_TRUE(parts.session->startRunning());
  EXPECT_EQ(parts.session->statistics().stopCode, 0);
}

TEST_F(CaptureSessionTest, TheHighPresetAppliesAtTheStartUnlessSomebodyChose) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->setSessionPreset(CaptureSessionPreset::kHigh);
  parts.session->startRunning();
  EXPECT_EQ(device_->activeFormat(), device_->format(kCaptureMjpg, 1920));
  EXPECT_EQ(device_->configurationLocks(), 0);

  Parts chosen = makeSession(&recorder_, &queue_);
  chosen.session->setSessionPreset(CaptureSessionPreset::kHigh);
  device_->lockForConfiguration();
  device_->setActiveFormat(device_->format(kCaptureYuyv, 1280));
  device_->unlockForConfiguration();
  chosen.session->startRunning();
  EXPECT_EQ(device_->activeFormat(), device_->format(kCaptureYuyv, 1280));
}

TEST_F(CaptureSessionTest, AFormatThatTheDeviceTookIsActiveEvenWhenItsFramesDontStart) {
  Parts parts = makeSession(&recorder_, &queue_);
  ASSERT_TRUE(parts.session->startRunning());
  device_->lockForConfiguration();
  ASSERT_TRUE(device_->setActiveFormat(device_->format(kCaptureYuyv, 1280)));
  const uint64_t choices = device_->formatChoices();
  device_->startError = ENOSPC;
  CaptureError error;
  EXPECT_FALSE(device_->setActiveFormat(device_->format(kCaptureYuyv, 1920), &error));
  EXPECT_EQ(error.code, ENOSPC);
  EXPECT_EQ(device_->activeFormat(), device_->format(kCaptureYuyv, 1920));
  EXPECT_EQ(device_->formatChoices(), choices + 1);
  EXPECT_FALSE(parts.session->isRunning());
  EXPECT_EQ(parts.session->statistics().width, 1920);
  device_->startError = 0;
  EXPECT_TRUE(parts.session->startRunning());
  EXPECT_EQ(device_->activeFormat(), device_->format(kCaptureYuyv, 1920));
  device_->unlockForConfiguration();
}

TEST_F(CaptureSessionTest, WithoutAPresetTheFormatStays) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  EXPECT_EQ(device_->activeFormat(), nullptr);
  EXPECT_EQ(device_->applied, 0);
}

TEST_F(CaptureSessionTest, AnIncompleteSessionDoesntStart) {
  CaptureError error;
  CaptureSession empty;
  EXPECT_FALSE(empty.startRunning(&error));
  EXPECT_EQ(error.code, EINVAL);
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->beginConfiguration();
  EXPECT_FALSE(parts.session->startRunning(&error));
  parts.session->commitConfiguration();
  EXPECT_TRUE(parts.session->startRunning(&error));
}

TEST_F(CaptureSessionTest, AFailedStartSaysWhyAndCanBeRepeated) {
  Parts parts = makeSession(&recorder_, &queue_);
  device_->startError = EBUSY;
  CaptureError error;
  EXPECT_FALSE(parts.session->startRunning(&error));
  EXPECT_EQ(error.code, EBUSY);
  EXPECT_EQ(lastCaptureError().code, EBUSY);
  EXPECT_FALSE(parts.session->isRunning());
  device_->startError = 0;
  EXPECT_TRUE(parts.session->startRunning(&error));
  EXPECT_FALSE(lastCaptureError());
}

TEST_F(CaptureSessionTest, ASessionTakesOneInputAndOneOutput) {
  Parts parts = makeSession(&recorder_, &queue_);
  EXPECT_FALSE(parts.session->canAddInput(CaptureDeviceInput::create(device_, nullptr)));
  EXPECT_FALSE(parts.session->canAddInput(nullptr));
  EXPECT_FALSE(parts.session->canAddOutput(std::make_shared<CaptureVideoOutput>()));
  CaptureSession other;
  EXPECT_FALSE(other.canAddOutput(parts.output));  // it belongs to a session already
  EXPECT_FALSE(other.canAddOutput(nullptr));
}

TEST_F(CaptureSessionTest, OnlyBgraIsOffered) {
  CaptureVideoOutput output;
  EXPECT_TRUE(output.setVideoSettings(kPixelFormatBGRA));
  EXPECT_FALSE(output.setVideoSettings(kPixelFormat420v));
  EXPECT_EQ(output.videoPixelFormat(), kPixelFormatBGRA);
}

TEST_F(CaptureSessionTest, TheAgeOfTheNewestFrameIsKnown) {
  Parts parts = makeSession(&recorder_, &queue_);
  parts.session->startRunning();
  EXPECT_EQ(parts.session->statistics().newestFrameAgeNs, -1);
  device_->push(1, 1);  // stamped 1 ns after boot
  EXPECT_GT(parts.session->statistics().newestFrameAgeNs, 0);
}

TEST_F(CaptureSessionTest, ATaskLeftInTheQueueAfterEverythingIsGoneDoesNothing) {
  {
    Parts parts = makeSession(&recorder_, &queue_);
    parts.session->startRunning();
    device_->push(1, 1);
  }
  EXPECT_EQ(queue_.runAll(), 1U);
  EXPECT_TRUE(recorder_.widths.empty());
}

}  // namespace
}  // namespace mirn
