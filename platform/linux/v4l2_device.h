#pragma once

// One V4L2 capture node as a capture device.

#include <linux/videodev2.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/capture.h"
#include "platform/linux/v4l2_calls.h"
#include "platform/linux/v4l2_catalog.h"
#include "platform/linux/v4l2_stream.h"

namespace mirn {

/// What an attempt to look at a node found.
enum class V4l2Look { kCapture, kOther, kInaccessible, kGone };

/// Thread-safe as its base class. The node is open while a session's input or a configuration lock wants it; from the
/// first moment on with V4L2_PRIORITY_RECORD, so that nobody else changes the format.
class V4l2Device final : public CaptureDevice, private V4l2StreamUser {
 public:
  V4l2Device(V4l2NodeInfo info, std::shared_ptr<V4l2Calls> calls);
  ~V4l2Device() override;

  /// Reads capabilities and formats anew, through the open node or through one opened for the moment.
  V4l2Look look() MIRN_EXCLUDES(nodeLock_);

  std::string localizedName() const override MIRN_EXCLUDES(nodeLock_);
  std::string uniqueID() const override { return info_.uniqueId; }
  std::string topologyPath() const override { return info_.topologyPath; }
  std::string nodeName() const override { return info_.path; }
  bool isConnected() const override MIRN_EXCLUDES(nodeLock_);
  std::vector<CaptureFormatRef> formats() override MIRN_EXCLUDES(nodeLock_);

 protected:
  bool openNode(CaptureError* error) override MIRN_EXCLUDES(nodeLock_);
  void closeNode() override MIRN_EXCLUDES(nodeLock_);
  bool acquireConfiguration(CaptureError* error) override;
  void releaseConfiguration() override;
  bool applyFormat(const CaptureFormat& format, CaptureError* error) override MIRN_EXCLUDES(nodeLock_);
  CaptureFormat flowingFormat(const CaptureFormat& active) override MIRN_EXCLUDES(nodeLock_);
  bool startStream(CaptureError* error) override MIRN_EXCLUDES(nodeLock_);
  void stopStream() override;

 private:
  void onStreamFrame(PixelBufferRef picture, const CaptureFrameInfo& info) override;
  void onStreamDamage() override;
  void onStreamLate() override;
  void onStreamEnd(const CaptureError& error) override;

  V4l2Look lookThrough(int fd) MIRN_REQUIRES(nodeLock_);
  int takeOwnership(int fd);
  int setFormat(int32_t width, int32_t height, FourCharCode pixelFormat, FrameLayout& layout);
  int readLayout();
  CaptureInterval interval() const;
  void setInterval(const CaptureInterval& interval);
  bool fail(int code, const char* doing, CaptureError* error) const;
  int openDescriptor() const MIRN_EXCLUDES(nodeLock_);

  const V4l2NodeInfo info_;
  const std::shared_ptr<V4l2Calls> calls_;
  std::atomic<bool> gone_{false};
  mutable Mutex nodeLock_;
  V4l2Fd node_ MIRN_GUARDED_BY(nodeLock_);
  std::string cardName_ MIRN_GUARDED_BY(nodeLock_);
  std::vector<CaptureFormatRef> formats_ MIRN_GUARDED_BY(nodeLock_);
  std::optional<FrameLayout> layout_;   // control calls only; what the driver said to the last format
  std::unique_ptr<V4l2Stream> stream_;  // control calls only
};

}  // namespace mirn
