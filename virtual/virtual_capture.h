// A capture source of virtual targets: what a capture stick and its driver do, in the process, with their faults.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/capture.h"
#include "platform/clock.h"
#include "virtual/virtual_target.h"

namespace mirn {

// What goes wrong with the picture, and at which frame. As text, faults separated by ',', ';', blanks or line ends,
// each
//
//   KIND[=VALUE]@WHEN
//
//   truncate@5         the fifth frame is cut in the middle; truncate=100 leaves 100 bytes
//   corrupt@5          bytes in the middle of the frame are overwritten; a JPEG no longer decodes cleanly
//   zero@5             a buffer of no bytes
//   flag@5             the driver marks the buffer as erroneous
//   lose@5             the frame never comes; its sequence number is missing
//   stall=800@30       nothing comes for 800 ms before frame 30
//   unplug@100         the device is gone instead of frame 100; it stays away until replug()
//   fail@1             the driver reports an error instead of frame 1 and the stream ends; the device stays
//
//   WHEN: N | N-M | N+ | */N | *       frames count from 1 at each start of the stream
enum class VideoFaultKind : uint8_t {
  kTruncate,  // value: bytes that remain; 0 = half
  kCorrupt,
  kZero,
  kFlag,
  kLose,
  kStall,  // value: ms
  kUnplug,
  kFail,
};

struct VideoFault {
  VideoFaultKind kind = VideoFaultKind::kTruncate;
  uint32_t value = 0;
  uint64_t first = 1;  // frames first .. last, every `step`-th from `first`
  uint64_t last = 1;
  uint64_t step = 1;

  bool hits(uint64_t frame) const { return frame >= first && frame <= last && (frame - first) % step == 0; }
  bool operator==(const VideoFault&) const = default;
};

// False and a line for a person in `error` when the text is not understood; `plan` is then unchanged.
bool parseVideoFaults(std::string_view text, std::vector<VideoFault>* plan, std::string* error);

struct VirtualCaptureSettings {
  std::string name = "Nuvra Mirn";
  std::string topology = "virtual-1";  // that of its VirtualMirn
  std::string serial = "VM0000000001";
  std::string node;                        // "" = "virtual:" and the topology
  uint32_t frames_per_second = 60;         // fastest interval of every format; 0 = frames come only from step()
  std::chrono::microseconds jitter{1500};  // a frame comes up to this much late, differently each time
  std::chrono::milliseconds warm_up{120};  // without frames after each start of the stream
  uint32_t seed = 1;
  Clock* clock = nullptr;  // that frames come by, null = the machine's own; lives as long as the device
  bool busy = false;       // another program holds it: opening fails with EBUSY
  bool denied = false;     // opening fails with EACCES
  // Sizes and formats offered; empty = both sizes in YUYV, NV12 and MJPG. Sizes other than 1920x1080 and 1280x720 are
  // listed but refuse to be set.
  std::vector<CaptureFormat> formats;
};

struct VirtualCaptureCounters {
  uint64_t frames = 0;   // since construction, damaged ones included
  uint64_t damaged = 0;  // of these
  uint64_t lost = 0;
  uint64_t starts = 0;  // of the stream
  // Processor time that went into drawing and encoding frames. A device spends it outside of the computer that it is
  // plugged into, so who measures a program on this source takes it off.
  std::chrono::nanoseconds drawing{0};
};

// Thread-safe as its base class is. Frames come from a thread of its own while the stream runs.
class VirtualCaptureDevice final : public CaptureDevice {
 public:
  VirtualCaptureDevice(std::shared_ptr<VirtualTarget> target, VirtualCaptureSettings settings);
  ~VirtualCaptureDevice() override;

  std::string localizedName() const override;
  std::string uniqueID() const override;
  std::string topologyPath() const override;
  std::string nodeName() const override;
  bool isConnected() const override;
  std::vector<CaptureFormatRef> formats() override;

  VirtualTarget& target() { return *target_; }

  // From the next start of the stream on; frames count from 1 again at once.
  void setFaults(std::vector<VideoFault> faults);
  void setBusy(bool busy);
  void setDenied(bool denied);
  // Gone; a running stream ends with ENODEV. A VirtualCapture no longer lists the device until replug().
  void unplug();
  void replug();
  // Delivers `frames` frames at once when the stream runs without a rate of its own; waits until they are delivered.
  // False when no stream runs.
  bool step(int frames = 1);
  VirtualCaptureCounters counters() const;

 protected:
  bool openNode(CaptureError* error) override;
  void closeNode() override;
  bool isNodeStale() const override;
  bool acquireConfiguration(CaptureError* error) override;
  void releaseConfiguration() override;
  bool applyFormat(const CaptureFormat& format, CaptureError* error) override;
  CaptureFormat flowingFormat(const CaptureFormat& active) override;
  bool startStream(CaptureError* error) override;
  void stopStream() override;

 private:
  class Stream;

  CaptureError failure(int code, std::string reason, std::string advice) const;

  const std::shared_ptr<VirtualTarget> target_;
  const VirtualCaptureSettings settings_;
  const std::vector<CaptureFormatRef> formats_;

  mutable Mutex mutex_;
  bool connected_ MIRN_GUARDED_BY(mutex_) = true;
  bool busy_ MIRN_GUARDED_BY(mutex_);
  bool denied_ MIRN_GUARDED_BY(mutex_);
  uint64_t plugging_ MIRN_GUARDED_BY(mutex_) = 1;  // rises with each replug(): a node opened before is dead
  uint64_t opened_plugging_ MIRN_GUARDED_BY(mutex_) = 0;
  std::vector<VideoFault> faults_ MIRN_GUARDED_BY(mutex_);
  CaptureFormat format_ MIRN_GUARDED_BY(mutex_);
  std::shared_ptr<Stream> stream_ MIRN_GUARDED_BY(mutex_);
  VirtualCaptureCounters counters_ MIRN_GUARDED_BY(mutex_);
};

// The capture devices of one virtual world, in the order of adding. Thread-safe. Install it with setCaptureSystem().
class VirtualCapture final : public CaptureSystem {
 public:
  std::shared_ptr<VirtualCaptureDevice> add(std::shared_ptr<VirtualTarget> target,
                                            VirtualCaptureSettings settings = {});
  void remove(const std::shared_ptr<VirtualCaptureDevice>& device);
  // Those that are plugged in.
  std::vector<std::shared_ptr<CaptureDevice>> devices() override;

 private:
  Mutex mutex_;
  std::vector<std::shared_ptr<VirtualCaptureDevice>> devices_ MIRN_GUARDED_BY(mutex_);
};

}  // namespace mirn
