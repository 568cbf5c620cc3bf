#pragma once

// Video capture as the plug-in sees it: devices with names and formats, sessions that connect one device to one video
// output, frames as reference-counted 'BGRA' pictures on a queue of the caller's choice. A platform (or the virtual
// source) implements CaptureSystem and CaptureDevice; sessions, late-frame rule, statistics and take-over are here.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/pixel_buffer.h"
#include "platform/task_queue.h"

namespace mirn {

/// Time between two frames in seconds, as a fraction: 1/60 is {1, 60}. {0, 0} = unknown.
struct CaptureInterval {
  uint32_t numerator = 0;
  uint32_t denominator = 0;

  double framesPerSecond() const { return numerator == 0 ? 0.0 : static_cast<double>(denominator) / numerator; }
};

/// One format a device offers. Immutable; compared by identity of the object.
struct CaptureFormat {
  FourCharCode pixelFormat = 0;  ///< what the device sends: 'YUYV', 'NV12', 'MJPG'
  int32_t width = 0;             ///< pixels
  int32_t height = 0;
  FourCharCode mediaSubtype = 0;  ///< what the user of the format is told: 'yuvs' for YUYV, '420v' for NV12 and MJPG
  CaptureInterval interval;       ///< the fastest the device offers at this size
};
using CaptureFormatRef = std::shared_ptr<const CaptureFormat>;

/// 'yuvs' for YUYV, '420v' for NV12 and MJPG, 0 for anything else.
FourCharCode captureMediaSubtype(FourCharCode pixelFormat);
/// "1920x1080 '420v' (NV12) 60.00 fps", as the "formats" log shows it.
std::string describe(const CaptureFormat& format);
/// Groups by size and media subtype in order of first appearance; within a group by rising frame rate, NV12 before
/// MJPG where equal. Every device lists its formats in this order.
std::vector<CaptureFormatRef> sortedFormats(std::vector<CaptureFormat> formats);
/// The session preset "high": the largest picture at its best frame rate, among equals MJPG, NV12, YUYV. Null when
/// empty.
CaptureFormatRef highPresetFormat(const std::vector<CaptureFormatRef>& formats);

/// Why a call failed. `code` is an errno value, 0 = no error.
struct CaptureError {
  int code = 0;
  std::string node;    ///< "/dev/video0"; "" when the source has none
  std::string reason;  ///< what happened, in words
  std::string advice;  ///< what to do about it; may be ""

  explicit operator bool() const { return code != 0; }
  /// "/dev/video0: the device is in use by another program (Device or resource busy). Close it and open again."
  std::string localizedDescription() const;
};

/// Facts about one frame.
struct CaptureFrameInfo {
  int64_t timestampNs = 0;  ///< CLOCK_MONOTONIC, when the device delivered it
  uint32_t sequence = 0;    ///< the device's own counter; gaps are frames it lost
};

/// Where a device puts its frames. Called on the device's capture thread.
class CaptureSink {
 public:
  virtual ~CaptureSink() = default;
  virtual void onFrame(PixelBufferRef buffer, const CaptureFrameInfo& info) = 0;
  /// A frame that can't be shown (cut short, corrupt, flagged by the driver) was dropped.
  virtual void onDamagedFrame() = 0;
  /// A frame was dropped because every picture of the pool is held by somebody.
  virtual void onLateFrame() = 0;
  virtual void onStarted() = 0;
  /// The device stopped by itself (unplugged, or the driver failed); code 0 = a newer session took it.
  virtual void onStopped(const CaptureError& error) = 0;
  /// Forgets frames that were not taken yet and returns only when no callback is running (except on this thread).
  virtual void flush() = 0;
  virtual void onFormat(const CaptureFormat& format) = 0;
};

enum class MediaType { kVideo, kAudio };

/// One capture device. The object is shared: the same physical device is the same object for everybody in the process
/// as long as somebody holds it. Control calls are thread-safe and serialised; frames come on a thread of the device.
class CaptureDevice : public std::enable_shared_from_this<CaptureDevice> {
 public:
  CaptureDevice() = default;
  virtual ~CaptureDevice() = default;
  CaptureDevice(const CaptureDevice&) = delete;
  CaptureDevice& operator=(const CaptureDevice&) = delete;

  virtual std::string localizedName() const = 0;
  /// Stable across reboots.
  virtual std::string uniqueID() const = 0;
  /// Where it is plugged in: "1-1.4" for a USB device, as sysfs names it; "" when unknown.
  virtual std::string topologyPath() const = 0;
  /// "/dev/video0"; for messages only.
  virtual std::string nodeName() const = 0;
  virtual bool hasMediaType(MediaType type) const { return type == MediaType::kVideo; }
  virtual bool isConnected() const = 0;
  /// In the order of sortedFormats(); the same objects at every call while the device's list doesn't change.
  virtual std::vector<CaptureFormatRef> formats() = 0;

  /// Keeps other programs from changing the format. Counts: each successful call wants one unlock.
  bool lockForConfiguration(CaptureError* error = nullptr) MIRN_EXCLUDES(control_);
  /// Does nothing when nothing is locked.
  void unlockForConfiguration() MIRN_EXCLUDES(control_);
  int configurationLocks() const { return locks_.load(std::memory_order_acquire); }

  /// Makes `format` (one of formats()) active. When frames are flowing: stops, sets, starts again; no frame of the old
  /// format is delivered after it returned. False, and nothing changed, for null (an empty slot) and without the
  /// configuration lock; false with a message in the system log when the device refuses, or takes the format (which is
  /// active then) and can't start the frames again. Not from a delegate call that runs on a work queue (it waits for
  /// that call to end).
  bool setActiveFormat(const CaptureFormatRef& format, CaptureError* error = nullptr) MIRN_EXCLUDES(control_);
  /// Null before anything was set.
  CaptureFormatRef activeFormat() const MIRN_EXCLUDES(control_);
  /// Rises with each format that setActiveFormat() makes active: how a session sees that somebody chose.
  uint64_t formatChoices() const { return formatChoices_.load(std::memory_order_acquire); }

  // For CaptureDeviceInput and CaptureSession.

  /// Opens the device for this process (the first call does, the others count).
  bool retainInput(CaptureError* error) MIRN_EXCLUDES(control_);
  void releaseInput() MIRN_EXCLUDES(control_);
  /// Starts frames into `sink`. When they flow into another one, that one is stopped first: the newer session wins.
  bool startStreaming(const std::shared_ptr<CaptureSink>& sink, CaptureError* error) MIRN_EXCLUDES(control_);
  /// Stops when `sink` is the one that gets the frames; else nothing. No callback of the device runs after it.
  void stopStreaming(const CaptureSink* sink) MIRN_EXCLUDES(control_);

 protected:
  // What a device implements. Each is called with control_ held, never two at once.

  /// Opens the node and takes it for this process. Here EBUSY and EACCES belong.
  virtual bool openNode(CaptureError* error) = 0;
  virtual void closeNode() = 0;
  /// True when the open node belongs to a plugging that is over, while the same object is plugged in again: it is then
  /// closed and opened anew for whoever comes next. Never for a device that is a new object after each plugging.
  virtual bool isNodeStale() const { return false; }
  /// `first` lock / `last` unlock of the configuration; the node is open.
  virtual bool acquireConfiguration(CaptureError* error) = 0;
  virtual void releaseConfiguration() = 0;
  /// Sets format and fastest interval. The node is open, no frames are flowing.
  virtual bool applyFormat(const CaptureFormat& format, CaptureError* error) = 0;
  /// What frames will have, once format and interval are set; `active` (all zero before anything was set) where the
  /// device doesn't say. The node is open, no frames are flowing.
  virtual CaptureFormat flowingFormat(const CaptureFormat& active) { return active; }
  /// Frames flow after startStream() returned true, through the deliver calls below, from one thread of the device.
  /// It doesn't wait for the first frame.
  virtual bool startStream(CaptureError* error) = 0;
  /// No deliver call after it returned. Also called after the device stopped by itself. Ends within a bounded time.
  virtual void stopStream() = 0;

  // For the capture thread of a device. They take no lock that a control call holds while it waits for that thread.

  void deliverFrame(PixelBufferRef buffer, const CaptureFrameInfo& info) MIRN_EXCLUDES(sinkLock_);
  void deliverDamagedFrame() MIRN_EXCLUDES(sinkLock_);
  void deliverLateFrame() MIRN_EXCLUDES(sinkLock_);
  void deliverStopped(const CaptureError& error) MIRN_EXCLUDES(sinkLock_);

 private:
  std::shared_ptr<CaptureSink> sink() const MIRN_EXCLUDES(sinkLock_);
  bool openForUser(CaptureError* error) MIRN_REQUIRES(control_);
  void closeForUser() MIRN_REQUIRES(control_);
  bool beginStream(CaptureError* error) MIRN_REQUIRES(control_);
  void endStream() MIRN_REQUIRES(control_);
  bool replaceFormat(const CaptureFormatRef& format, CaptureError* error) MIRN_REQUIRES(control_);
  void tellFormat(CaptureSink& user) MIRN_REQUIRES(control_);

  mutable Mutex control_;
  mutable Mutex sinkLock_;
  std::shared_ptr<CaptureSink> sink_ MIRN_GUARDED_BY(sinkLock_);
  CaptureFormatRef activeFormat_ MIRN_GUARDED_BY(control_);
  int openUsers_ MIRN_GUARDED_BY(control_) = 0;  // inputs, plus one while the configuration is locked
  bool streaming_ MIRN_GUARDED_BY(control_) = false;
  std::atomic<int> locks_{0};
  std::atomic<uint64_t> formatChoices_{0};
};

/// Gives a configuration lock back when the scope ends, however it ends: a picture or a firmware image may be too large
/// for the memory. Null: does nothing. The device must outlive it.
class ConfigurationUnlock {
 public:
  explicit ConfigurationUnlock(CaptureDevice* device) : device_(device) {}
  ~ConfigurationUnlock() {
    if (device_ != nullptr) {
      device_->unlockForConfiguration();
    }
  }
  ConfigurationUnlock(const ConfigurationUnlock&) = delete;
  ConfigurationUnlock& operator=(const ConfigurationUnlock&) = delete;

 private:
  CaptureDevice* const device_;
};

namespace detail {
inline constinit std::atomic<size_t> g_liveInputs{0};

struct LiveInput {
  LiveInput() { g_liveInputs.fetch_add(1); }
  ~LiveInput() { g_liveInputs.fetch_sub(1); }
  LiveInput(const LiveInput&) = delete;
  LiveInput& operator=(const LiveInput&) = delete;
};
}  // namespace detail

/// A device opened for a session. Releasing the last reference closes the device. Thread-safe.
class CaptureDeviceInput {
 public:
  /// Null when the device can't be opened.
  static std::shared_ptr<CaptureDeviceInput> create(std::shared_ptr<CaptureDevice> device, CaptureError* error);
  ~CaptureDeviceInput();
  CaptureDeviceInput(const CaptureDeviceInput&) = delete;
  CaptureDeviceInput& operator=(const CaptureDeviceInput&) = delete;

  const std::shared_ptr<CaptureDevice>& device() const { return device_; }

 private:
  explicit CaptureDeviceInput(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)) {}

  const detail::LiveInput live_;
  std::shared_ptr<CaptureDevice> device_;
};

/// Inputs that are alive, whoever holds them. Any thread.
inline size_t liveCaptureInputs() {
  return detail::g_liveInputs.load();
}

/// One captured frame as the delegate gets it. `imageBuffer` may be null.
struct SampleBuffer {
  PixelBufferRef imageBuffer;
  CaptureFrameInfo info;
};

class CaptureSession;
class CaptureVideoOutput;

/// Between which two ends a frame travelled.
struct CaptureConnection {
  CaptureDevice* device = nullptr;
  CaptureVideoOutput* output = nullptr;
};

class SampleBufferDelegate {
 public:
  virtual ~SampleBufferDelegate() = default;
  /// Called on the queue given to the output, never twice at once for one output. The references are valid during the
  /// call; copy `sampleBuffer.imageBuffer` to keep the picture.
  virtual void captureOutput(CaptureVideoOutput& output, const SampleBuffer& sampleBuffer,
                             const CaptureConnection& connection) = 0;
};

/// Readable from any thread, without locks. Numbers belong to one session.
struct CaptureStatistics {
  uint64_t framesCaptured = 0;   ///< arrived and were converted, delivered or not
  uint64_t framesDelivered = 0;  ///< handed to the delegate
  uint64_t droppedLate = 0;      ///< a newer frame came before it was taken, or no picture was free
  uint64_t droppedDamaged = 0;
  int32_t width = 0;  ///< of what the device sends
  int32_t height = 0;
  FourCharCode pixelFormat = 0;
  CaptureInterval interval;
  int64_t newestFrameAgeNs = -1;  ///< since the newest frame arrived; -1 = none yet
  bool running = false;
  int stopCode = 0;  ///< errno when the device stopped by itself
};

namespace detail {
class FrameMailbox;
struct SessionCounters;
}  // namespace detail

/// Hands frames to a delegate. Late frames are always discarded: at most one frame waits, and a newer one replaces it.
/// Thread-safe.
class CaptureVideoOutput {
 public:
  CaptureVideoOutput();
  ~CaptureVideoOutput();
  CaptureVideoOutput(const CaptureVideoOutput&) = delete;
  CaptureVideoOutput& operator=(const CaptureVideoOutput&) = delete;

  /// `queue` runs the delegate. A null delegate ends the delivery: no call runs any more when this returns (except the
  /// one it is made from). The delegate must outlive the output or be taken back this way. `queue` must outlive it too.
  void setSampleBufferDelegate(SampleBufferDelegate* delegate, TaskQueue* queue);
  /// Only kPixelFormatBGRA is offered; anything else returns false and changes nothing.
  bool setVideoSettings(PixelFormat format);
  PixelFormat videoPixelFormat() const;
  /// Kept for its callers; late frames are discarded either way, so that no queue can grow.
  void setAlwaysDiscardsLateVideoFrames(bool discards);
  bool alwaysDiscardsLateVideoFrames() const;

 private:
  friend class CaptureSession;
  std::shared_ptr<detail::FrameMailbox> mailbox_;
  std::atomic<PixelFormat> videoPixelFormat_{kPixelFormatBGRA};
  std::atomic<bool> discardsLate_{true};
};

enum class CaptureSessionPreset {
  kInputPriority,  ///< the device's format stays as it is
  kHigh,           ///< highPresetFormat() at the start, unless somebody chose a format after the input was added
};

/// Connects one device input with one video output. Bound to the thread that made it (the main thread), except
/// statistics(), which anybody may call at any time. Destroying it stops it.
class CaptureSession {
 public:
  CaptureSession();
  ~CaptureSession();
  CaptureSession(const CaptureSession&) = delete;
  CaptureSession& operator=(const CaptureSession&) = delete;

  void setSessionPreset(CaptureSessionPreset preset) { preset_ = preset; }
  void beginConfiguration() { ++configurations_; }
  void commitConfiguration();
  bool isConfiguring() const { return configurations_ > 0; }

  /// False for null and when there is an input already.
  bool canAddInput(const std::shared_ptr<CaptureDeviceInput>& input) const;
  void addInput(std::shared_ptr<CaptureDeviceInput> input);
  bool canAddOutput(const std::shared_ptr<CaptureVideoOutput>& output) const;
  void addOutput(std::shared_ptr<CaptureVideoOutput> output);

  /// Starts the device; never waits for a frame. A session still in configuration can't start (EINVAL).
  bool startRunning(CaptureError* error = nullptr);
  /// No delegate call runs after it returned (except the one it is made from). Does nothing when stopped.
  void stopRunning();
  /// False after the device stopped by itself or a newer session took it.
  bool isRunning() const;
  CaptureStatistics statistics() const;
  std::shared_ptr<CaptureDevice> device() const { return input_ ? input_->device() : nullptr; }

 private:
  bool applyPreset(CaptureError* error);

  std::shared_ptr<detail::SessionCounters> counters_;
  std::shared_ptr<CaptureDeviceInput> input_;
  std::shared_ptr<CaptureVideoOutput> output_;
  CaptureSessionPreset preset_ = CaptureSessionPreset::kInputPriority;
  uint64_t choicesAtInput_ = 0;
  int configurations_ = 0;
};

/// All capture devices of a platform, and the factories of a session's parts. Thread-safe.
class CaptureSystem {
 public:
  virtual ~CaptureSystem() = default;

  /// Every device, in an order that is the same for the same set of devices in the same sockets.
  virtual std::vector<std::shared_ptr<CaptureDevice>> devices() = 0;
  /// Those that carry `type`, same order.
  std::vector<std::shared_ptr<CaptureDevice>> devicesWithMediaType(MediaType type);

  // Each may return null: a platform that is out of something. Tests override them for that.
  virtual std::shared_ptr<CaptureSession> createSession();
  virtual std::shared_ptr<CaptureDeviceInput> createDeviceInput(const std::shared_ptr<CaptureDevice>& device,
                                                                CaptureError* error);
  virtual std::shared_ptr<CaptureVideoOutput> createVideoOutput();
};

/// The system in use. Thread-safe.
CaptureSystem& captureSystem();
/// Installs another one (a virtual source), by an explicit call of the host while no session exists; nullptr = the
/// platform's own again. The caller keeps ownership.
void setCaptureSystem(CaptureSystem* system);
/// The platform's own, bound at link time.
CaptureSystem& defaultCaptureSystem();

/// The last failure to open or start a capture device in this process, for hosts that want to tell a person why.
/// code 0 = none since the last success. Thread-safe.
CaptureError lastCaptureError();
/// Records it and writes it to the system log.
void reportCaptureError(const CaptureError& error);
void clearLastCaptureError();

}  // namespace mirn
