#pragma once

// A capture device on a kernel in the process, a session on it, and what came of its frames.

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/v4l2_device.h"
#include "platform/work_queue.h"
#include "tests/support/video/fake_v4l2.h"
#include "tests/support/video/log_capture.h"

namespace mirn {

inline constexpr const char* kPath = "/dev/video0";

// Waits for frames, or for the statistics to reach something, without polling the clock for results.
class Collector : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sample,
                     const CaptureConnection& /*connection*/) override {
    MutexGuard guard(lock_);
    frames_.push_back(sample);
    changed_.notify_all();
  }
  std::vector<SampleBuffer> waitFor(size_t count) {
    MutexGuard guard(lock_);
    while (frames_.size() < count) {
      changed_.wait(lock_);
    }
    return frames_;
  }
  size_t count() {
    MutexGuard guard(lock_);
    return frames_.size();
  }

 private:
  Mutex lock_;
  std::condition_variable_any changed_;
  std::vector<SampleBuffer> frames_ MIRN_GUARDED_BY(lock_);
};

class V4l2DeviceTest : public testing::Test {
 protected:
  V4l2DeviceTest() {
    calls_->node(kPath).sizes = {
        {V4L2_PIX_FMT_YUYV, 64, 32, {30}}, {V4L2_PIX_FMT_YUYV, 128, 64, {30}}, {V4L2_PIX_FMT_MJPEG, 64, 32, {60}}};
    device_ = std::make_shared<V4l2Device>(test::nodeInfo(kPath, "Nuvra Mirn"), calls_);
    EXPECT_EQ(device_->look(), V4l2Look::kCapture);
  }

  CaptureFormatRef format(FourCharCode pixelFormat, int32_t width) {
    for (const CaptureFormatRef& entry : device_->formats()) {
      if (entry->pixelFormat == pixelFormat && entry->width == width) {
        return entry;
      }
    }
    return nullptr;
  }

  bool open(CaptureError* error = nullptr) {
    session_ = std::make_unique<CaptureSession>();
    output_ = std::make_shared<CaptureVideoOutput>();
    output_->setSampleBufferDelegate(&collector_, &queue_);
    auto input = CaptureDeviceInput::create(device_, error);
    if (!input) {
      return false;
    }
    session_->addInput(std::move(input));
    session_->addOutput(output_);
    return session_->startRunning(error);
  }

  // The capture thread counts before it goes on: what it must reach is waited for, turn by turn.
  template <typename Condition>
  void until(Condition condition) {
    while (!condition()) {
      std::this_thread::yield();
    }
  }
  CaptureStatistics numbers() { return session_->statistics(); }

  static std::vector<uint8_t> grey(size_t bytes) { return std::vector<uint8_t>(bytes, 128); }
  static constexpr size_t kSmall = 64 * 32 * 2;
  static constexpr size_t kLarge = 128 * 64 * 2;

  test::LogCapture log_;
  std::shared_ptr<test::FakeV4l2> calls_ = std::make_shared<test::FakeV4l2>();
  std::shared_ptr<V4l2Device> device_;
  WorkQueue queue_{"frames"};
  Collector collector_;
  std::shared_ptr<CaptureVideoOutput> output_;
  std::unique_ptr<CaptureSession> session_;
};

}  // namespace mirn
