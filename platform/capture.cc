#include "platform/capture.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>

#include "platform/system_log.h"

namespace mirn {
namespace {

std::atomic<CaptureSystem*> g_captureSystem{nullptr};

Mutex g_errorLock;
CaptureError g_lastError MIRN_GUARDED_BY(g_errorLock);

bool sameGroup(const CaptureFormat& left, const CaptureFormat& right) {
  return left.width == right.width && left.height == right.height && left.mediaSubtype == right.mediaSubtype;
}

// Exact: two 32-bit fractions compared by cross products. An unknown interval is the slowest.
bool slower(const CaptureInterval& left, const CaptureInterval& right) {
  if (left.numerator == 0 || right.numerator == 0) {
    return left.numerator == 0 && right.numerator != 0;
  }
  return static_cast<uint64_t>(left.denominator) * right.numerator <
         static_cast<uint64_t>(right.denominator) * left.numerator;
}

// Smaller stands earlier among formats of equal rate: the last match of a walk is the one that is kept.
int listRank(FourCharCode pixelFormat) {
  return pixelFormat == kCaptureMjpg ? 1 : 0;
}

// Larger is better for the session preset "high".
int presetRank(FourCharCode pixelFormat) {
  switch (pixelFormat) {
    case kCaptureMjpg:
      return 3;
    case kCaptureNv12:
      return 2;
    case kCaptureYuyv:
      return 1;
    default:
      return 0;
  }
}

bool betterForHighPreset(const CaptureFormat& candidate, const CaptureFormat& best) {
  const int64_t candidateArea = static_cast<int64_t>(candidate.width) * candidate.height;
  const int64_t bestArea = static_cast<int64_t>(best.width) * best.height;
  if (candidateArea != bestArea) {
    return candidateArea > bestArea;
  }
  if (slower(candidate.interval, best.interval) || slower(best.interval, candidate.interval)) {
    return slower(best.interval, candidate.interval);
  }
  return presetRank(candidate.pixelFormat) > presetRank(best.pixelFormat);
}

CaptureError makeError(int code, std::string node, const char* reason, const char* advice) {
  return {code, std::move(node), reason, advice};
}

void setError(CaptureError* target, CaptureError error) {
  if (target != nullptr) {
    *target = std::move(error);
  }
}

}  // namespace

FourCharCode captureMediaSubtype(FourCharCode pixelFormat) {
  switch (pixelFormat) {
    case kCaptureYuyv:
      return kPixelFormatYuvs;
    case kCaptureNv12:
    case kCaptureMjpg:
      return kPixelFormat420v;
    default:
      return 0;
  }
}

std::string describe(const CaptureFormat& format) {
  char text[96];
  snprintf(text, sizeof text, "%" PRId32 "x%" PRId32 " '%s' (%s) %.2f fps", format.width, format.height,
           fourCharText(format.mediaSubtype).c_str(), fourCharText(format.pixelFormat).c_str(),
           format.interval.framesPerSecond());
  return text;
}

std::vector<CaptureFormatRef> sortedFormats(std::vector<CaptureFormat> formats) {
  std::vector<CaptureFormat> ordered;
  for (const CaptureFormat& leader : formats) {
    const auto inGroup = [&leader](const CaptureFormat& other) { return sameGroup(leader, other); };
    if (std::any_of(ordered.begin(), ordered.end(), inGroup)) {
      continue;
    }
    const auto begin = static_cast<std::ptrdiff_t>(ordered.size());
    std::copy_if(formats.begin(), formats.end(), std::back_inserter(ordered), inGroup);
    std::stable_sort(ordered.begin() + begin, ordered.end(), [](const CaptureFormat& left, const CaptureFormat& right) {
      if (slower(left.interval, right.interval) || slower(right.interval, left.interval)) {
        return slower(left.interval, right.interval);
      }
      return listRank(left.pixelFormat) < listRank(right.pixelFormat);
    });
  }
  std::vector<CaptureFormatRef> result;
  result.reserve(ordered.size());
  for (const CaptureFormat& format : ordered) {
    result.push_back(std::make_shared<const CaptureFormat>(format));
  }
  return result;
}

CaptureFormatRef highPresetFormat(const std::vector<CaptureFormatRef>& formats) {
  CaptureFormatRef best;
  for (const CaptureFormatRef& format : formats) {
    if (!best || betterForHighPreset(*format, *best)) {
      best = format;
    }
  }
  return best;
}

std::string CaptureError::localizedDescription() const {
  std::string text = node.empty() ? "" : node + ": ";
  text += reason;
  if (code != 0) {
    text += " (" + std::generic_category().message(code) + ")";
  }
  if (!advice.empty()) {
    text += ". " + advice;
  }
  return text;
}

// ---- CaptureDevice ----

bool CaptureDevice::openForUser(CaptureError* error) {
  if (openUsers_ > 0 && !isConnected()) {
    setError(error, makeError(ENODEV, nodeName(), "the device is gone", "Plug it in and open again."));
    return false;
  }
  if (openUsers_ > 0 && isNodeStale()) {
    // The former users hold a dead node either way.
    endStream();
    closeNode();
    if (!openNode(error)) {
      return false;
    }
  } else if (openUsers_ == 0 && !openNode(error)) {
    return false;
  }
  ++openUsers_;
  return true;
}

void CaptureDevice::closeForUser() {
  if (--openUsers_ == 0) {
    endStream();
    closeNode();
  }
}

bool CaptureDevice::lockForConfiguration(CaptureError* error) {
  MutexGuard guard(control_);
  if (!isConnected()) {
    setError(error, makeError(ENODEV, nodeName(), "the device is gone", "Plug it in and open again."));
    return false;
  }
  if (locks_.load(std::memory_order_relaxed) == 0) {
    if (!openForUser(error)) {
      return false;
    }
    if (!acquireConfiguration(error)) {
      closeForUser();
      return false;
    }
  }
  locks_.fetch_add(1, std::memory_order_release);
  return true;
}

void CaptureDevice::unlockForConfiguration() {
  MutexGuard guard(control_);
  const int held = locks_.load(std::memory_order_relaxed);
  if (held == 0) {
    return;
  }
  if (held == 1) {
    releaseConfiguration();
    closeForUser();
  }
  locks_.store(held - 1, std::memory_order_release);
}

bool CaptureDevice::setActiveFormat(const CaptureFormatRef& format, CaptureError* error) {
  MutexGuard guard(control_);
  if (!format) {
    setError(error, makeError(EINVAL, nodeName(), "no such format", ""));
    return false;
  }
  CaptureError failure;
  if (locks_.load(std::memory_order_relaxed) == 0) {
    failure = makeError(EPERM, nodeName(), "the configuration isn't locked", "");
  } else if (!isConnected()) {
    failure = makeError(ENODEV, nodeName(), "the device is gone", "Plug it in and open again.");
  } else if (replaceFormat(format, &failure)) {
    return true;
  }
  systemLog("set format %s failed: %s", describe(*format).c_str(), failure.localizedDescription().c_str());
  setError(error, failure);
  return false;
}

bool CaptureDevice::replaceFormat(const CaptureFormatRef& format, CaptureError* error) {
  const std::shared_ptr<CaptureSink> user = sink();
  const bool flowing = streaming_;
  endStream();
  if (user) {
    user->flush();
  }
  bool applied = false;
  try {
    applied = applyFormat(*format, error);
  } catch (const std::exception& exception) {
    // Where the memory ends, too, the old format goes on.
    setError(error, makeError(ENOMEM, nodeName(), exception.what(), ""));
  }
  if (applied) {
    // Also when the frames don't start again below: the device has it.
    activeFormat_ = format;
    formatChoices_.fetch_add(1, std::memory_order_release);
  }
  if (applied && user) {
    tellFormat(*user);
  }
  CaptureError restart;
  if (flowing && !beginStream(&restart)) {
    if (user) {
      user->onStopped(restart);
    }
    setError(error, restart);
    return false;
  }
  return applied;
}

CaptureFormatRef CaptureDevice::activeFormat() const {
  MutexGuard guard(control_);
  return activeFormat_;
}

bool CaptureDevice::retainInput(CaptureError* error) {
  MutexGuard guard(control_);
  return openForUser(error);
}

void CaptureDevice::releaseInput() {
  MutexGuard guard(control_);
  if (openUsers_ > 0) {
    closeForUser();
  }
}

bool CaptureDevice::startStreaming(const std::shared_ptr<CaptureSink>& newSink, CaptureError* error) {
  MutexGuard guard(control_);
  if (openUsers_ == 0) {
    setError(error, makeError(EINVAL, nodeName(), "the device isn't open", ""));
    return false;
  }
  const std::shared_ptr<CaptureSink> former = sink();
  endStream();
  if (former && former != newSink) {
    former->flush();
    former->onStopped({});
  }
  {
    MutexGuard sinkGuard(sinkLock_);
    sink_ = newSink;
  }
  tellFormat(*newSink);
  if (beginStream(error)) {
    return true;
  }
  MutexGuard sinkGuard(sinkLock_);
  sink_.reset();
  return false;
}

void CaptureDevice::tellFormat(CaptureSink& user) {
  user.onFormat(flowingFormat(activeFormat_ ? *activeFormat_ : CaptureFormat{}));
}

void CaptureDevice::stopStreaming(const CaptureSink* user) {
  std::shared_ptr<CaptureSink> former;
  {
    MutexGuard guard(control_);
    former = sink();
    if (former.get() != user) {
      return;
    }
    endStream();
    MutexGuard sinkGuard(sinkLock_);
    sink_.reset();
  }
  if (former) {
    former->flush();
  }
}

bool CaptureDevice::beginStream(CaptureError* error) {
  // Before the first frame can come, so that a device that stops at once is not shown as running afterwards.
  const std::shared_ptr<CaptureSink> user = sink();
  if (user) {
    user->onStarted();
  }
  CaptureError failure;
  if (!startStream(&failure)) {
    if (user) {
      user->onStopped(failure);
    }
    setError(error, failure);
    return false;
  }
  streaming_ = true;
  return true;
}

void CaptureDevice::endStream() {
  if (streaming_) {
    stopStream();
    streaming_ = false;
  }
}

std::shared_ptr<CaptureSink> CaptureDevice::sink() const {
  MutexGuard guard(sinkLock_);
  return sink_;
}

void CaptureDevice::deliverFrame(PixelBufferRef buffer, const CaptureFrameInfo& info) {
  if (const std::shared_ptr<CaptureSink> user = sink()) {
    user->onFrame(std::move(buffer), info);
  }
}

void CaptureDevice::deliverDamagedFrame() {
  if (const std::shared_ptr<CaptureSink> user = sink()) {
    user->onDamagedFrame();
  }
}

void CaptureDevice::deliverLateFrame() {
  if (const std::shared_ptr<CaptureSink> user = sink()) {
    user->onLateFrame();
  }
}

void CaptureDevice::deliverStopped(const CaptureError& error) {
  reportCaptureError(error);
  if (const std::shared_ptr<CaptureSink> user = sink()) {
    user->onStopped(error);
  }
}

// ---- CaptureDeviceInput ----

std::shared_ptr<CaptureDeviceInput> CaptureDeviceInput::create(std::shared_ptr<CaptureDevice> device,
                                                               CaptureError* error) {
  if (!device) {
    setError(error, makeError(ENODEV, "", "no capture device", ""));
    return nullptr;
  }
  if (!device->retainInput(error)) {
    return nullptr;
  }
  return std::shared_ptr<CaptureDeviceInput>(new CaptureDeviceInput(std::move(device)));
}

CaptureDeviceInput::~CaptureDeviceInput() {
  device_->releaseInput();
}

// ---- CaptureSystem ----

std::vector<std::shared_ptr<CaptureDevice>> CaptureSystem::devicesWithMediaType(MediaType type) {
  std::vector<std::shared_ptr<CaptureDevice>> found = devices();
  found.erase(
      std::remove_if(found.begin(), found.end(),
                     [type](const std::shared_ptr<CaptureDevice>& device) { return !device->hasMediaType(type); }),
      found.end());
  return found;
}

std::shared_ptr<CaptureSession> CaptureSystem::createSession() {
  return std::make_shared<CaptureSession>();
}

std::shared_ptr<CaptureDeviceInput> CaptureSystem::createDeviceInput(const std::shared_ptr<CaptureDevice>& device,
                                                                     CaptureError* error) {
  CaptureError failure;
  std::shared_ptr<CaptureDeviceInput> input = CaptureDeviceInput::create(device, &failure);
  if (!input) {
    reportCaptureError(failure);
    setError(error, failure);
  }
  return input;
}

std::shared_ptr<CaptureVideoOutput> CaptureSystem::createVideoOutput() {
  return std::make_shared<CaptureVideoOutput>();
}

CaptureSystem& captureSystem() {
  CaptureSystem* system = g_captureSystem.load(std::memory_order_acquire);
  return system != nullptr ? *system : defaultCaptureSystem();
}

void setCaptureSystem(CaptureSystem* system) {
  g_captureSystem.store(system, std::memory_order_release);
}

CaptureError lastCaptureError() {
  MutexGuard guard(g_errorLock);
  return g_lastError;
}

void reportCaptureError(const CaptureError& error) {
  systemLog("capture: %s", error.localizedDescription().c_str());
  MutexGuard guard(g_errorLock);
  g_lastError = error;
}

void clearLastCaptureError() {
  MutexGuard guard(g_errorLock);
  g_lastError = {};
}

}  // namespace mirn
