#include "virtual/virtual_capture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <ctime>

#include "platform/work_queue.h"
#include "tests/support/no_more_threads.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

struct Seen {
  std::optional<StripContent> strip;
  int width = 0;
  int height = 0;
  CaptureFrameInfo info;
};

// Keeps what came, for tests that wait for it.
class Recorder final : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sample,
                     const CaptureConnection& /*connection*/) override {
    const PixelBufferRef& picture = sample.imageBuffer;
    picture->lockBaseAddress(kPixelBufferLockReadOnly);
    Seen seen{readStripBgra(picture->baseAddress(), static_cast<int>(picture->width()),
                            static_cast<int>(picture->height()), picture->bytesPerRow()),
              static_cast<int>(picture->width()), static_cast<int>(picture->height()), sample.info};
    picture->unlockBaseAddress(kPixelBufferLockReadOnly);
    const MutexGuard guard(mutex_);
    seen_.push_back(seen);
    wake_.notify_all();
  }

  bool waitFor(size_t count) {
    const auto limit = std::chrono::steady_clock::now() + 20s;
    mutex_.lock();
    while (seen_.size() < count && std::chrono::steady_clock::now() < limit) {
      wake_.wait_until(mutex_, limit);
    }
    const bool enough = seen_.size() >= count;
    mutex_.unlock();
    return enough;
  }

  std::vector<Seen> seen() {
    const MutexGuard guard(mutex_);
    return seen_;
  }

 private:
  Mutex mutex_;
  std::condition_variable_any wake_;
  std::vector<Seen> seen_ MIRN_GUARDED_BY(mutex_);
};

// A session on one device, delivering to a recorder.
class VirtualCaptureTest : public ::testing::Test {
 protected:
  ~VirtualCaptureTest() override { stop(); }

  VirtualCaptureDevice& add(VirtualCaptureSettings settings = byHand()) {
    device_ = capture_.add(target_, std::move(settings));
    return *device_;
  }

  static VirtualCaptureSettings byHand() {
    VirtualCaptureSettings settings;
    settings.frames_per_second = 0;
    return settings;
  }

  bool start(CaptureSessionPreset preset = CaptureSessionPreset::kHigh) {
    input_ = capture_.createDeviceInput(device_, &error_);
    if (input_ == nullptr) {
      return false;
    }
    session_ = capture_.createSession();
    session_->setSessionPreset(preset);
    session_->addInput(input_);
    output_ = capture_.createVideoOutput();
    output_->setSampleBufferDelegate(&recorder_, &queue_);
    session_->addOutput(output_);
    return session_->startRunning(&error_);
  }

  void stop() {
    if (session_ != nullptr) {
      session_->stopRunning();
    }
    if (output_ != nullptr) {
      output_->setSampleBufferDelegate(nullptr, nullptr);
    }
    session_.reset();
    output_.reset();
    input_.reset();
  }

  // One frame, waited for at the delegate, so that none is discarded as late.
  void stepOne() {
    const size_t before = recorder_.seen().size();
    ASSERT_TRUE(device_->step());
    ASSERT_TRUE(recorder_.waitFor(before + 1));
  }

  bool activate(FourCharCode code, int height) {
    for (const CaptureFormatRef& format : device_->formats()) {
      if (format->pixelFormat == code && format->height == height) {
        if (!device_->lockForConfiguration(&error_)) {
          return false;
        }
        const bool set = device_->setActiveFormat(format, &error_);
        device_->unlockForConfiguration();
        return set;
      }
    }
    return false;
  }

  VirtualCapture capture_;
  std::shared_ptr<VirtualTarget> target_ = std::make_shared<VirtualTarget>();
  std::shared_ptr<VirtualCaptureDevice> device_;
  WorkQueue queue_{"test"};
  Recorder recorder_;
  CaptureError error_;
  std::shared_ptr<CaptureDeviceInput> input_;
  std::shared_ptr<CaptureSession> session_;
  std::shared_ptr<CaptureVideoOutput> output_;
};

std::chrono::nanoseconds processTime() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

TEST_F(VirtualCaptureTest, TellsWhatDrawingTook) {
  VirtualCaptureDevice& device = add();
  ASSERT_TRUE(start());
  const std::chrono::nanoseconds before = processTime();
  stepOne();
  const std::chrono::nanoseconds one = device.counters().drawing;
  stepOne();
  const std::chrono::nanoseconds two = device.counters().drawing;
  EXPECT_GT(one.count(), 0);
  EXPECT_GT(two, one) << "each frame adds its own";
  EXPECT_LT(two, processTime() - before) << "what follows the drawing is not in it";
}

TEST_F(VirtualCaptureTest, WithoutAThreadItDoesNotStart) {
  add();
  {
    const test::NoMoreThreads none;
    EXPECT_FALSE(start());
  }
  EXPECT_EQ(error_.code, EAGAIN);
  EXPECT_FALSE(session_->isRunning());
  EXPECT_TRUE(session_->startRunning(&error_));
}

TEST_F(VirtualCaptureTest, IsListedAsTheStickIs) {
  VirtualCaptureSettings settings;
  settings.topology = "1-1.4";
  add(settings);
  ASSERT_EQ(capture_.devices().size(), 1U);
  const auto listed = capture_.devices()[0];
  EXPECT_EQ(listed->localizedName(), "Nuvra Mirn");
  EXPECT_EQ(listed->topologyPath(), "1-1.4");
  EXPECT_NE(listed->uniqueID(), "");
  EXPECT_TRUE(listed->hasMediaType(MediaType::kVideo));
  EXPECT_FALSE(listed->hasMediaType(MediaType::kAudio));
  EXPECT_EQ(listed->formats().size(), 6U);
  EXPECT_EQ(listed->formats(), listed->formats()) << "the same objects at every call";
}

TEST_F(VirtualCaptureTest, EveryFormatShowsTheTargetWithoutLosingAFrame) {
  add();
  ASSERT_TRUE(start()) << error_.localizedDescription();
  uint32_t number = 0;
  for (const FourCharCode code : {kCaptureYuyv, kCaptureNv12, kCaptureMjpg}) {
    for (const int height : {1080, 720}) {
      ASSERT_TRUE(activate(code, height)) << error_.localizedDescription();
      for (int i = 0; i < 3; ++i) {
        target_->pointerAbsolute(static_cast<int>(number) * 100, 5000, 0, 0);
        stepOne();
        const Seen last = recorder_.seen().back();
        const StripContent expected{number++, target_->inputState().digest()};
        EXPECT_EQ(last.strip, expected) << fourCharText(code) << height;
        EXPECT_EQ(last.height, height);
        EXPECT_EQ(last.width, height * 16 / 9);
      }
    }
  }
  EXPECT_EQ(session_->statistics().framesDelivered, 18U);
}

TEST_F(VirtualCaptureTest, FramesComeByThemselvesInOrderAfterTheWarmUp) {
  VirtualCaptureSettings settings;
  settings.warm_up = 150ms;
  add(settings);
  const auto began = std::chrono::steady_clock::now();
  ASSERT_TRUE(start());
  ASSERT_TRUE(activate(kCaptureNv12, 720));
  ASSERT_TRUE(recorder_.waitFor(5));
  EXPECT_GE(std::chrono::steady_clock::now() - began, 150ms);
  const std::vector<Seen> seen = recorder_.seen();
  for (size_t i = 1; i < seen.size(); ++i) {
    ASSERT_TRUE(seen[i].strip.has_value());
    EXPECT_GT(seen[i].strip->frame_number, seen[i - 1].strip->frame_number);
    EXPECT_GT(seen[i].info.sequence, seen[i - 1].info.sequence);
    EXPECT_GT(seen[i].info.timestampNs, seen[i - 1].info.timestampNs);
  }
}

TEST_F(VirtualCaptureTest, DamagedFramesAreCountedAndTheStreamGoesOn) {
  add();
  std::vector<VideoFault> faults;
  std::string error;
  ASSERT_TRUE(parseVideoFaults("truncate@2 corrupt@3 zero@4 flag@5 lose@6", &faults, &error)) << error;
  device_->setFaults(faults);
  ASSERT_TRUE(start());
  ASSERT_TRUE(activate(kCaptureMjpg, 720));
  stepOne();
  ASSERT_TRUE(device_->step(5));
  stepOne();
  EXPECT_EQ(recorder_.seen().size(), 2U);
  EXPECT_EQ(recorder_.seen().back().strip->frame_number, 6U);
  EXPECT_EQ(recorder_.seen().back().info.sequence, 6U) << "the lost one leaves a gap";
  EXPECT_EQ(session_->statistics().droppedDamaged, 4U);
  const VirtualCaptureCounters counters = device_->counters();
  EXPECT_EQ(counters.frames, 7U);
  EXPECT_EQ(counters.damaged, 4U);
  EXPECT_EQ(counters.lost, 1U);
}

TEST_F(VirtualCaptureTest, CutRawFramesAreDamagedToo) {
  add();
  device_->setFaults({{VideoFaultKind::kTruncate, 0, 1, 1, 1}, {VideoFaultKind::kZero, 0, 2, 2, 1}});
  ASSERT_TRUE(start());
  ASSERT_TRUE(activate(kCaptureYuyv, 720));
  ASSERT_TRUE(device_->step(2));
  stepOne();
  EXPECT_EQ(session_->statistics().droppedDamaged, 2U);
}

TEST_F(VirtualCaptureTest, AStallEndsAndAStopDoesNotWaitForIt) {
  add();
  device_->setFaults({{VideoFaultKind::kStall, 50, 1, 1, 1}, {VideoFaultKind::kStall, 600000, 2, 2, 1}});
  ASSERT_TRUE(start());
  const auto began = std::chrono::steady_clock::now();
  stepOne();
  EXPECT_GE(std::chrono::steady_clock::now() - began, 50ms);
  std::thread waiting([this] { EXPECT_FALSE(device_->step()); });
  stop();
  waiting.join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, 30s);
}

TEST_F(VirtualCaptureTest, AnUnpluggedStickIsGoneUntilItIsPluggedInAgain) {
  add();
  device_->setFaults({{VideoFaultKind::kUnplug, 0, 2, 2, 1}});
  ASSERT_TRUE(start());
  stepOne();
  EXPECT_FALSE(device_->step());
  EXPECT_FALSE(session_->isRunning());
  EXPECT_EQ(session_->statistics().stopCode, ENODEV);
  EXPECT_TRUE(capture_.devices().empty());
  device_->replug();
  EXPECT_EQ(capture_.devices().size(), 1U);
  device_->setFaults({});
  stop();
  ASSERT_TRUE(start()) << error_.localizedDescription();
  stepOne();
}

TEST_F(VirtualCaptureTest, AReplugEndsTheOldStreamAndTheNodeIsOpenedAnew) {
  add();
  ASSERT_TRUE(start());
  stepOne();
  device_->unplug();
  device_->replug();
  EXPECT_TRUE(activate(kCaptureNv12, 720)) << error_.localizedDescription();
  EXPECT_FALSE(device_->step()) << "the stream of the plugging before doesn't come back by itself";
  stop();
  ASSERT_TRUE(start());
  stepOne();
}

TEST_F(VirtualCaptureTest, ADriverErrorEndsTheStreamAndOpeningAgainWorks) {
  add();
  device_->setFaults({{VideoFaultKind::kFail, 0, 1, 1, 1}});
  ASSERT_TRUE(start());
  EXPECT_FALSE(device_->step());
  EXPECT_EQ(session_->statistics().stopCode, EIO);
  stop();
  device_->setFaults({});
  ASSERT_TRUE(start());
  stepOne();
}

TEST_F(VirtualCaptureTest, ABusyOrForbiddenNodeSaysWhichWhyAndWhatToDo) {
  add();
  device_->setBusy(true);
  EXPECT_FALSE(start());
  EXPECT_EQ(error_.code, EBUSY);
  EXPECT_EQ(error_.node, "virtual:virtual-1");
  EXPECT_NE(error_.reason, "");
  EXPECT_NE(error_.advice, "");
  device_->setBusy(false);
  device_->setDenied(true);
  EXPECT_FALSE(start());
  EXPECT_EQ(error_.code, EACCES);
  device_->setDenied(false);
  EXPECT_TRUE(start());
}

TEST_F(VirtualCaptureTest, FormatsOfOtherSizesAreListedAndRefused) {
  VirtualCaptureSettings settings = byHand();
  settings.formats = {{kCaptureNv12, 1280, 720, captureMediaSubtype(kCaptureNv12), {1, 60}},
                      {kCaptureNv12, 640, 480, captureMediaSubtype(kCaptureNv12), {1, 60}}};
  add(settings);
  ASSERT_TRUE(start());
  EXPECT_FALSE(activate(kCaptureNv12, 480));
  EXPECT_EQ(error_.code, EINVAL);
  EXPECT_TRUE(activate(kCaptureNv12, 720));
  stepOne();
}

TEST_F(VirtualCaptureTest, TwoSticksStandInTheOrderOfAddingWithPicturesOfTheirOwn) {
  add();
  const auto other_target = std::make_shared<VirtualTarget>();
  VirtualCaptureSettings settings = byHand();
  settings.topology = "virtual-2";
  const auto other = capture_.add(other_target, settings);
  ASSERT_EQ(capture_.devices().size(), 2U);
  EXPECT_EQ(capture_.devices()[0], device_);
  EXPECT_NE(device_->uniqueID(), other->uniqueID());
  other_target->pointerAbsolute(1, 2, 0, 0);
  ASSERT_TRUE(start());
  stepOne();
  EXPECT_EQ(recorder_.seen().back().strip->input_digest, target_->inputState().digest());
  capture_.remove(device_);
  EXPECT_EQ(capture_.devices().size(), 1U);
  EXPECT_EQ(capture_.devices()[0], other);
}

}  // namespace
}  // namespace mirn
