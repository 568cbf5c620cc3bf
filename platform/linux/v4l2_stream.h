#pragma once

// Streaming I/O of one node: mapped buffers, one capture thread, one conversion per frame.

#include <linux/videodev2.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/capture.h"
#include "platform/frame_converter.h"
#include "platform/linux/v4l2_calls.h"

namespace mirn {

/// What a stream tells. Called on its capture thread.
class V4l2StreamUser {
 public:
  virtual ~V4l2StreamUser() = default;
  virtual void onStreamFrame(PixelBufferRef picture, const CaptureFrameInfo& info) = 0;
  virtual void onStreamDamage() = 0;
  virtual void onStreamLate() = 0;
  /// The last call.
  virtual void onStreamEnd(const CaptureError& error) = 0;
};

/// A running stream. Bound to the thread that starts it; destroying it stops the stream and gives the buffers back.
/// Both ends are bounded by the driver's own time-outs; nothing waits for a frame.
class V4l2Stream {
 public:
  /// `fd` stays open, and `calls` and `user` live, until the stream is gone. Null on failure,
  /// which the lack of a thread is too.
  static std::unique_ptr<V4l2Stream> start(V4l2Calls& calls, int fd, std::string node, const FrameLayout& layout,
                                           V4l2StreamUser& user, CaptureError* error);
  ~V4l2Stream();
  V4l2Stream(const V4l2Stream&) = delete;
  V4l2Stream& operator=(const V4l2Stream&) = delete;

 private:
  struct Mapped {
    void* start = nullptr;
    size_t bytes = 0;
  };
  enum class Next { kContinue, kEnd };

  V4l2Stream(V4l2Calls& calls, int fd, std::string node, const FrameLayout& layout, V4l2StreamUser& user);

  int mapBuffers();
  int switchOn();
  bool fail(int code, const char* doing, CaptureError* error);

  // Capture thread.
  void work();
  Next takeNewest();
  bool isWhole(const v4l2_buffer& buffer) const;
  int dequeue(v4l2_buffer& buffer);
  int enqueue(uint32_t index);
  Next giveBack(uint32_t index, void (V4l2StreamUser::*why)());
  Next useBuffer(const v4l2_buffer& buffer);
  Next end(int code, const char* doing);

  V4l2Calls& calls_;
  const int fd_;
  const std::string node_;
  const FrameLayout layout_;
  V4l2StreamUser& user_;
  std::vector<Mapped> mapped_;
  int wakeFd_ = -1;
  FrameConverter converter_;
  PixelBufferPool pool_;
  std::thread thread_;
};

}  // namespace mirn
