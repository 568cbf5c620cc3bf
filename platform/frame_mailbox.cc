#include "platform/frame_mailbox.h"

#include <ctime>
#include <utility>

namespace mirn::detail {

int64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void FrameMailbox::setDelegate(SampleBufferDelegate* delegate, TaskQueue* queue) {
  MutexGuard guard(lock_);
  delegate_ = delegate;
  queue_ = queue;
  waiting_ = {};
  waitForDelegate();
}

void FrameMailbox::attach(std::shared_ptr<SessionCounters> counters, CaptureDevice* device) {
  MutexGuard guard(lock_);
  counters_ = std::move(counters);
  device_ = device;
}

bool FrameMailbox::attached() const {
  MutexGuard guard(lock_);
  return counters_ != nullptr;
}

void FrameMailbox::detach() {
  MutexGuard guard(lock_);
  counters_.reset();
  device_ = nullptr;
}

std::shared_ptr<SessionCounters> FrameMailbox::counters() const {
  MutexGuard guard(lock_);
  return counters_;
}

void FrameMailbox::onFrame(PixelBufferRef buffer, const CaptureFrameInfo& info) {
  PixelBufferRef replaced;  // released after the lock
  MutexGuard guard(lock_);
  if (counters_) {
    counters_->framesCaptured.fetch_add(1, std::memory_order_relaxed);
    counters_->newestFrameNs.store(info.timestampNs, std::memory_order_relaxed);
  }
  if (delegate_ == nullptr || queue_ == nullptr) {
    return;
  }
  if (waiting_.imageBuffer && counters_) {
    counters_->droppedLate.fetch_add(1, std::memory_order_relaxed);
  }
  replaced = std::exchange(waiting_.imageBuffer, std::move(buffer));
  waiting_.info = info;
  if (!posted_) {
    posted_ = queue_->post(shared_from_this());  // refused: the next frame tries again
  }
}

void FrameMailbox::onDamagedFrame() {
  if (const auto numbers = counters()) {
    numbers->droppedDamaged.fetch_add(1, std::memory_order_relaxed);
  }
}

void FrameMailbox::onLateFrame() {
  if (const auto numbers = counters()) {
    numbers->droppedLate.fetch_add(1, std::memory_order_relaxed);
  }
}

void FrameMailbox::onStarted() {
  if (const auto numbers = counters()) {
    numbers->stopCode.store(0, std::memory_order_relaxed);
    numbers->running.store(true, std::memory_order_release);
  }
}

void FrameMailbox::onStopped(const CaptureError& error) {
  if (const auto numbers = counters()) {
    numbers->stopCode.store(error.code, std::memory_order_relaxed);
    numbers->running.store(false, std::memory_order_release);
  }
}

void FrameMailbox::onFormat(const CaptureFormat& format) {
  if (const auto numbers = counters()) {
    numbers->size.store(
        static_cast<uint64_t>(static_cast<uint32_t>(format.width)) << 32 | static_cast<uint32_t>(format.height),
        std::memory_order_relaxed);
    numbers->interval.store(static_cast<uint64_t>(format.interval.numerator) << 32 | format.interval.denominator,
                            std::memory_order_relaxed);
    numbers->pixelFormat.store(format.pixelFormat, std::memory_order_relaxed);
  }
}

void FrameMailbox::flush() {
  PixelBufferRef forgotten;
  MutexGuard guard(lock_);
  forgotten = std::exchange(waiting_.imageBuffer, {});
  waitForDelegate();
}

void FrameMailbox::waitForDelegate() {
  while (delivering_ && deliverer_ != std::this_thread::get_id()) {
    idle_.wait(lock_);
  }
}

void FrameMailbox::run() {
  SampleBuffer sample;
  SampleBufferDelegate* delegate = nullptr;
  CaptureConnection connection;
  {
    MutexGuard guard(lock_);
    sample = std::exchange(waiting_, {});
    delegate = delegate_;
    if (!sample.imageBuffer || delegate == nullptr) {
      posted_ = false;
      return;
    }
    connection = {device_, output_};
    delivering_ = true;
    deliverer_ = std::this_thread::get_id();
    if (counters_) {
      counters_->framesDelivered.fetch_add(1, std::memory_order_relaxed);
    }
  }
  delegate->captureOutput(*output_, sample, connection);
  sample = {};
  MutexGuard guard(lock_);
  delivering_ = false;
  idle_.notify_all();
  posted_ = waiting_.imageBuffer && delegate_ != nullptr && queue_->post(shared_from_this());
}

}  // namespace mirn::detail
