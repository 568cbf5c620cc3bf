// When the virtual source's frames come, by a clock of the test's own: nobody waits.

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <set>
#include <vector>

#include "platform/work_queue.h"
#include "virtual/virtual_capture.h"

namespace mirn {
namespace {

using std::chrono::microseconds;

constexpr size_t kFrames = 60;

// Jumps to whatever is waited for and writes it down. Time stands still after the last frame.
class FrameClock final : public Clock {
 public:
  Duration now() override {
    MutexGuard guard(lock_);
    return now_;
  }
  void sleepFor(Duration duration) override {
    MutexGuard guard(lock_);
    now_ += duration;
  }
  void waitUntil(std::condition_variable_any& condition, Mutex& mutex, Duration deadline) override
      MIRN_REQUIRES(mutex) {
    if (!note(deadline)) {
      condition.wait(mutex);
    }
  }
  std::vector<Duration> waitForAll() {
    MutexGuard guard(lock_);
    while (deadlines_.size() < kFrames) {
      full_.wait(lock_);
    }
    return deadlines_;
  }

 private:
  bool note(Duration deadline) {
    MutexGuard guard(lock_);
    if (deadlines_.size() == kFrames) {
      return false;
    }
    deadlines_.push_back(deadline);
    now_ = std::max(now_, deadline);
    full_.notify_all();
    return true;
  }

  Mutex lock_;
  std::condition_variable_any full_;
  Duration now_ MIRN_GUARDED_BY(lock_) = std::chrono::seconds(5);
  std::vector<Duration> deadlines_ MIRN_GUARDED_BY(lock_);
};

class NoFrames final : public SampleBufferDelegate {
  void captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& /*sample*/,
                     const CaptureConnection& /*connection*/) override {}
};

// How late each frame of a run is, against even intervals after the warm-up.
std::vector<Clock::Duration> latenesses(VirtualCaptureSettings settings) {
  constexpr auto kInterval = std::chrono::nanoseconds(1'000'000'000 / 50);
  FrameClock clock;
  settings.clock = &clock;
  settings.formats = {{kCaptureNv12, 1280, 720, captureMediaSubtype(kCaptureNv12), {1, 50}}};
  const Clock::Duration began = clock.now() + settings.warm_up;
  VirtualCapture capture;
  const auto device = capture.add(std::make_shared<VirtualTarget>(), settings);
  WorkQueue queue("jitter");
  NoFrames frames;
  const auto output = capture.createVideoOutput();
  output->setSampleBufferDelegate(&frames, &queue);
  CaptureSession session;
  session.addInput(capture.createDeviceInput(device, nullptr));
  session.addOutput(output);
  EXPECT_TRUE(session.startRunning());
  std::vector<Clock::Duration> late = clock.waitForAll();
  session.stopRunning();
  output->setSampleBufferDelegate(nullptr, nullptr);
  for (size_t i = 0; i < late.size(); ++i) {
    late[i] -= began + i * kInterval;
  }
  return late;
}

TEST(VirtualCaptureJitterTest, EveryFrameIsLateByAnAmountOfItsOwnWithinTheBound) {
  for (const microseconds bound : {microseconds(1500), microseconds(4000)}) {
    SCOPED_TRACE(bound.count());
    VirtualCaptureSettings settings;
    settings.jitter = bound;
    const std::vector<Clock::Duration> late = latenesses(settings);
    ASSERT_EQ(late.size(), kFrames);
    const auto [least, most] = std::minmax_element(late.begin(), late.end());
    EXPECT_GE(*least, microseconds(0));
    EXPECT_LE(*most, bound);
    EXPECT_LT(*least, bound / 4) << "the whole range is used";
    EXPECT_GT(*most, bound * 3 / 4);
    EXPECT_GT(std::set<Clock::Duration>(late.begin(), late.end()).size(), kFrames / 2);
  }
}

TEST(VirtualCaptureJitterTest, TheUsualBoundIsAMillisecondAndAHalf) {
  EXPECT_EQ(VirtualCaptureSettings().jitter, microseconds(1500));
  const std::vector<Clock::Duration> late = latenesses({});
  const auto [least, most] = std::minmax_element(late.begin(), late.end());
  EXPECT_LE(*most, microseconds(1500));
  EXPECT_GT(*most - *least, microseconds(750));
}

TEST(VirtualCaptureJitterTest, TheSameSeedPlaysTheSameAndAnotherDoesNot) {
  VirtualCaptureSettings settings;
  const auto first = latenesses(settings);
  EXPECT_EQ(latenesses(settings), first);
  settings.seed = 2;
  EXPECT_NE(latenesses(settings), first);
}

TEST(VirtualCaptureJitterTest, WithoutJitterFramesComeEvenlyAfterTheWarmUp) {
  VirtualCaptureSettings settings;
  settings.jitter = microseconds(0);
  settings.warm_up = std::chrono::milliseconds(250);
  EXPECT_EQ(latenesses(settings), std::vector<Clock::Duration>(kFrames, Clock::Duration(0)));
}

}  // namespace
}  // namespace mirn
