// The thread that plays a virtual capture device's frames. Not for users of virtual_capture.h.
#pragma once

#include <functional>
#include <random>
#include <utility>

#include "platform/clock.h"
#include "platform/frame_converter.h"
#include "virtual/virtual_capture.h"

namespace mirn {

// One run of the stream. Made, stopped and destroyed by the device; end() and step() from any thread.
class VirtualCaptureDevice::Stream {
 public:
  Stream(VirtualCaptureDevice& device, const CaptureFormat& format, std::vector<VideoFault> faults);
  ~Stream();  // stops
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  // No delivery after it returned.
  void stop();
  // Ends with this error, told to the sink.
  void end(const CaptureError& error);
  // Waits until so many more frames were played. False when the stream has ended.
  bool step(int frames);
  void setFaults(std::vector<VideoFault> faults);

 private:
  using Time = Clock::Duration;  // since the clock's start
  // What the plan says about one frame.
  struct Verdict {
    bool lose = false;
    bool flag = false;
    bool unplug = false;
    bool fail = false;
    std::chrono::milliseconds stall{0};
    std::vector<VideoFault> damage;
  };

  void run();
  // False when the stream is to end before this frame.
  bool waitForFrame();
  bool waitUntil(Time time) MIRN_REQUIRES(mutex_);
  Verdict judge(uint64_t frame) const MIRN_REQUIRES(mutex_);
  // False when the stream ends instead of this frame.
  bool play(const Verdict& verdict);
  void deliver(const Verdict& verdict);
  void draw();
  void damage(const std::vector<VideoFault>& faults);
  void tellEnd();

  VirtualCaptureDevice& device_;
  Clock& clock_;
  const CaptureFormat format_;
  const bool stepped_;
  const std::chrono::nanoseconds interval_;

  Mutex mutex_;
  std::condition_variable_any wake_;
  std::condition_variable_any played_wake_;
  std::vector<VideoFault> faults_ MIRN_GUARDED_BY(mutex_);
  bool stopping_ MIRN_GUARDED_BY(mutex_) = false;
  bool ended_ MIRN_GUARDED_BY(mutex_) = false;  // no further frame will be played
  CaptureError end_ MIRN_GUARDED_BY(mutex_);
  uint64_t frame_ MIRN_GUARDED_BY(mutex_) = 0;  // of the fault plan; the frame being played
  uint64_t wanted_ MIRN_GUARDED_BY(mutex_) = 0;
  uint64_t played_ MIRN_GUARDED_BY(mutex_) = 0;

  // The thread's own.
  uint32_t sequence_ = 0;
  Time due_{0};
  std::minstd_rand random_;
  FrameConverter converter_;
  PixelBufferPool pool_;
  std::vector<uint8_t> bytes_;

  std::thread thread_;
};

}  // namespace mirn
