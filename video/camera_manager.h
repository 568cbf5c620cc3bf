#pragma once

// The frame grabber of the second plug-in: opens the Mirn's capture source by itself, scales every frame into a
// 640 x 480 canvas of blue, green, red bytes and keeps the newest one for whoever asks.

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/capture.h"
#include "platform/ring_queue.h"
#include "platform/work_queue.h"
#include "video/frame_data.h"
#include "video/picture_scaler.h"

namespace mirn {

/// open, setResolution, listDevices and the three public objects: platform main thread. currentFrame: any thread.
/// captureOutput: the global work queue. Messages are lines on standard output.
class CameraManager : public SampleBufferDelegate {
 public:
  CameraManager();
  ~CameraManager() override;
  CameraManager(const CameraManager&) = delete;
  CameraManager& operator=(const CameraManager&) = delete;

  /// Finds the device, makes a new session on it (a former one is replaced) and starts it.
  bool open();
  /// Makes the first format of exactly this size active. Canvas and frameWidth, frameHeight stay.
  bool setResolution(int64_t width, int64_t height);
  /// The names of all devices that carry video, in the platform's order.
  std::vector<std::string> listDevices();

  /// The newest frame; nothing before the first. May still be the one before right after a callback.
  std::optional<FrameData> currentFrame();
  void setCurrentFrame(std::optional<FrameData> frame);

  /// Converts and stores one frame. May run on several threads at once: then any of them may be the one kept.
  void captureOutput(CaptureVideoOutput& output, const SampleBuffer& sampleBuffer,
                     const CaptureConnection& connection) override;

  /// Frames dropped because their size gives no usable scale.
  uint64_t droppedFrames() const { return droppedFrames_.load(std::memory_order_relaxed); }
  /// Canvases allocated so far. Stops rising once the holders give theirs back.
  uint64_t canvasAllocations() const { return canvasAllocations_.load(std::memory_order_relaxed); }

  // The plug-in's "release" stops the session and clears these three itself.
  std::shared_ptr<CaptureSession> captureSession;
  std::shared_ptr<CaptureVideoOutput> videoOutput;
  std::shared_ptr<CaptureDevice> captureDevice;
  // Written by the frame callback, read by the main thread; they never hold anything but 640 and 480.
  std::atomic<int64_t> frameWidth{kCanvasWidth};
  std::atomic<int64_t> frameHeight{kCanvasHeight};

 private:
  class StoreTask;

  bool activate720P();
  bool convert(PixelBuffer& picture) MIRN_EXCLUDES(conversionLock_);
  FrameBytesRef freeCanvas() MIRN_REQUIRES(conversionLock_);
  void storeNext() MIRN_EXCLUDES(writesLock_);

  std::optional<FrameData> _currentFrame;  // guarded by frameQueue: reads sync, writes as barriers
  Mutex writesLock_;
  RingQueue<std::optional<FrameData>> writes_ MIRN_GUARDED_BY(writesLock_);  // one for each barrier submitted
  std::shared_ptr<QueueTask> storeTask_;
  Mutex conversionLock_;
  PictureScaler scaler_ MIRN_GUARDED_BY(conversionLock_);
  std::vector<FrameBytesRef> canvases_ MIRN_GUARDED_BY(conversionLock_);
  std::atomic<uint64_t> droppedFrames_{0};
  std::atomic<uint64_t> canvasAllocations_{0};
  WorkQueue frameQueue{"com.flutter_mirn.frameQueue"};  // the last member: its end waits for the writes
};

}  // namespace mirn
