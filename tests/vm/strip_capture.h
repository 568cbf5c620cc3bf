// A capture session that reads the strip in each picture: which frame it is and what input its target had.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "platform/capture.h"
#include "platform/mirn_identity.h"
#include "platform/work_queue.h"
#include "virtual/frame_strip.h"

namespace mirn {

struct SeenFrame {
  StripContent strip;
  size_t width = 0;
  size_t height = 0;
};

// Reads the strip of each frame; a frame without a readable one is counted.
class StripReader : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput&, const SampleBuffer& sample, const CaptureConnection&) override {
    PixelBuffer& picture = *sample.imageBuffer;
    picture.lockBaseAddress(kPixelBufferLockReadOnly);
    const std::optional<StripContent> strip = readStripBgra(picture.baseAddress(), static_cast<int>(picture.width()),
                                                            static_cast<int>(picture.height()), picture.bytesPerRow());
    const SeenFrame frame{strip.value_or(StripContent()), picture.width(), picture.height()};
    picture.unlockBaseAddress(kPixelBufferLockReadOnly);
    const std::lock_guard guard(mutex_);
    newest_ = sample.imageBuffer;
    strip ? frames_.push_back(frame) : static_cast<void>(++unreadable_);
    changed_.notify_all();
  }

  // False when they don't come.
  bool waitForFrames(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(50), [&] { return frames_.size() >= count; });
  }
  // Waits for a picture of the target as it is with this input.
  bool waitForInput(uint32_t digest) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(50), [&] {
      return std::any_of(frames_.begin(), frames_.end(),
                         [digest](const SeenFrame& frame) { return frame.strip.input_digest == digest; });
    });
  }
  std::vector<SeenFrame> takeFrames() {
    const std::lock_guard guard(mutex_);
    return std::exchange(frames_, {});
  }
  PixelBufferRef newest() {
    const std::lock_guard guard(mutex_);
    return newest_;
  }
  int unreadable() {
    const std::lock_guard guard(mutex_);
    return unreadable_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<SeenFrame> frames_;
  PixelBufferRef newest_;
  int unreadable_ = 0;
};

inline std::shared_ptr<CaptureDevice> findMirn() {
  for (const auto& device : captureSystem().devices()) {
    if (device->localizedName() == kMirnProductName) return device;
  }
  return nullptr;
}

inline CaptureFormatRef findFormat(CaptureDevice& device, FourCharCode pixels, int width) {
  for (const CaptureFormatRef& format : device.formats()) {
    if (format->pixelFormat == pixels && format->width == width) return format;
  }
  return nullptr;
}

// A session with a strip reader on one device.
class Capture {
 public:
  explicit Capture(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)), queue_("frames") {
    CaptureError error;
    session_ = captureSystem().createSession();
    const auto input = captureSystem().createDeviceInput(device_, &error);
    EXPECT_NE(input, nullptr) << error.localizedDescription();
    output_ = captureSystem().createVideoOutput();
    output_->setVideoSettings(kPixelFormatBGRA);
    output_->setSampleBufferDelegate(&reader_, &queue_);
    if (input != nullptr) session_->addInput(input);
    session_->addOutput(output_);
  }
  ~Capture() {
    session_->stopRunning();
    output_->setSampleBufferDelegate(nullptr, nullptr);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  bool choose(const CaptureFormatRef& format) {
    if (!device_->lockForConfiguration()) return false;
    const bool set = device_->setActiveFormat(format);
    device_->unlockForConfiguration();
    return set;
  }
  bool start() {
    CaptureError error;
    const bool started = session_->startRunning(&error);
    EXPECT_TRUE(started) << error.localizedDescription();
    return started;
  }
  CaptureSession& session() { return *session_; }
  StripReader& reader() { return reader_; }

 private:
  std::shared_ptr<CaptureDevice> device_;
  WorkQueue queue_;
  StripReader reader_;
  std::shared_ptr<CaptureSession> session_;
  std::shared_ptr<CaptureVideoOutput> output_;
};

}  // namespace mirn
