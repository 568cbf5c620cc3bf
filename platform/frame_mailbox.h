#pragma once

// Between a device's capture thread and a delegate's queue: one place for the newest frame, and the numbers of a
// session.

#include <atomic>
#include <condition_variable>
#include <memory>
#include <thread>

#include "deps/pellum/thread_annotations.h"
#include "platform/capture.h"

namespace mirn::detail {

/// Written by the capture thread and the delegate's queue, read by anybody. Each number is right by itself; two of them
/// may belong to neighbouring frames.
struct SessionCounters {
  std::atomic<uint64_t> framesCaptured{0};
  std::atomic<uint64_t> framesDelivered{0};
  std::atomic<uint64_t> droppedLate{0};
  std::atomic<uint64_t> droppedDamaged{0};
  std::atomic<uint64_t> size{0};      // width << 32 | height, so that a reader never sees one without the other
  std::atomic<uint64_t> interval{0};  // numerator << 32 | denominator
  std::atomic<FourCharCode> pixelFormat{0};
  std::atomic<int64_t> newestFrameNs{-1};  // CLOCK_MONOTONIC
  std::atomic<bool> running{false};
  std::atomic<int> stopCode{0};
};

int64_t monotonicNs();

/// Thread-safe. At most one frame waits here; a newer one replaces it. Delivery is serial: the next call begins after
/// the one before has ended, on whatever thread the queue chooses.
class FrameMailbox : public CaptureSink, public QueueTask, public std::enable_shared_from_this<FrameMailbox> {
 public:
  explicit FrameMailbox(CaptureVideoOutput* output) : output_(output) {}

  void setDelegate(SampleBufferDelegate* delegate, TaskQueue* queue) MIRN_EXCLUDES(lock_);
  void attach(std::shared_ptr<SessionCounters> counters, CaptureDevice* device) MIRN_EXCLUDES(lock_);
  bool attached() const MIRN_EXCLUDES(lock_);
  void detach() MIRN_EXCLUDES(lock_);

  void onFrame(PixelBufferRef buffer, const CaptureFrameInfo& info) override MIRN_EXCLUDES(lock_);
  void onDamagedFrame() override MIRN_EXCLUDES(lock_);
  void onLateFrame() override MIRN_EXCLUDES(lock_);
  void onStarted() override MIRN_EXCLUDES(lock_);
  void onStopped(const CaptureError& error) override MIRN_EXCLUDES(lock_);
  void flush() override MIRN_EXCLUDES(lock_);
  void onFormat(const CaptureFormat& format) override MIRN_EXCLUDES(lock_);

  void run() override MIRN_EXCLUDES(lock_);

 private:
  std::shared_ptr<SessionCounters> counters() const MIRN_EXCLUDES(lock_);
  void waitForDelegate() MIRN_REQUIRES(lock_);

  CaptureVideoOutput* const output_;  // valid while a delegate is set: the output takes it back before it goes
  mutable Mutex lock_;
  std::condition_variable_any idle_;
  SampleBufferDelegate* delegate_ MIRN_GUARDED_BY(lock_) = nullptr;
  TaskQueue* queue_ MIRN_GUARDED_BY(lock_) = nullptr;
  CaptureDevice* device_ MIRN_GUARDED_BY(lock_) = nullptr;
  std::shared_ptr<SessionCounters> counters_ MIRN_GUARDED_BY(lock_);
  SampleBuffer waiting_ MIRN_GUARDED_BY(lock_);
  bool posted_ MIRN_GUARDED_BY(lock_) = false;  // this object stands in the queue, or is running
  bool delivering_ MIRN_GUARDED_BY(lock_) = false;
  std::thread::id deliverer_ MIRN_GUARDED_BY(lock_);
};

}  // namespace mirn::detail
