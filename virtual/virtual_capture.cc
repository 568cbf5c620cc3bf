#include "virtual/virtual_capture.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "virtual/capture_stream.h"

namespace mirn {
namespace {

constexpr uint32_t kListedRate = 60;  // of a device whose frames come by hand
constexpr CaptureInterval kUnlistedInterval{1, kListedRate};

std::vector<CaptureFormatRef> offered(const VirtualCaptureSettings& settings) {
  std::vector<CaptureFormat> formats = settings.formats;
  if (formats.empty()) {
    const CaptureInterval interval =
        settings.frames_per_second != 0 ? CaptureInterval{1, settings.frames_per_second} : kUnlistedInterval;
    for (const auto& [width, height] : {std::pair(1920, 1080), std::pair(1280, 720)}) {
      for (const FourCharCode code : {kCaptureYuyv, kCaptureNv12, kCaptureMjpg}) {
        formats.push_back({code, width, height, captureMediaSubtype(code), interval});
      }
    }
  }
  return sortedFormats(std::move(formats));
}

void report(CaptureError* out, CaptureError error) {
  if (out != nullptr) {
    *out = std::move(error);
  }
}

}  // namespace

VirtualCaptureDevice::VirtualCaptureDevice(std::shared_ptr<VirtualTarget> target, VirtualCaptureSettings settings)
    : target_(std::move(target)),
      settings_(std::move(settings)),
      formats_(offered(settings_)),
      busy_(settings_.busy),
      denied_(settings_.denied) {}

VirtualCaptureDevice::~VirtualCaptureDevice() = default;

std::string VirtualCaptureDevice::localizedName() const {
  return settings_.name;
}

std::string VirtualCaptureDevice::uniqueID() const {
  return settings_.topology + "-" + settings_.serial;
}

std::string VirtualCaptureDevice::topologyPath() const {
  return settings_.topology;
}

std::string VirtualCaptureDevice::nodeName() const {
  return settings_.node.empty() ? "virtual:" + settings_.topology : settings_.node;
}

bool VirtualCaptureDevice::isConnected() const {
  const MutexGuard guard(mutex_);
  return connected_;
}

std::vector<CaptureFormatRef> VirtualCaptureDevice::formats() {
  return formats_;
}

CaptureError VirtualCaptureDevice::failure(int code, std::string reason, std::string advice) const {
  return {code, nodeName(), std::move(reason), std::move(advice)};
}

void VirtualCaptureDevice::setFaults(std::vector<VideoFault> faults) {
  const MutexGuard guard(mutex_);
  faults_ = faults;
  if (stream_ != nullptr) {
    stream_->setFaults(std::move(faults));
  }
}

void VirtualCaptureDevice::setBusy(bool busy) {
  const MutexGuard guard(mutex_);
  busy_ = busy;
}

void VirtualCaptureDevice::setDenied(bool denied) {
  const MutexGuard guard(mutex_);
  denied_ = denied;
}

void VirtualCaptureDevice::unplug() {
  const MutexGuard guard(mutex_);
  connected_ = false;
  if (stream_ != nullptr) {
    stream_->end(failure(ENODEV, "the device was unplugged", "Plug it in and open it again."));
  }
}

void VirtualCaptureDevice::replug() {
  const MutexGuard guard(mutex_);
  if (!std::exchange(connected_, true)) {
    ++plugging_;
  }
}

bool VirtualCaptureDevice::step(int frames) {
  std::shared_ptr<Stream> stream;
  {
    const MutexGuard guard(mutex_);
    stream = stream_;
  }
  return stream != nullptr && stream->step(frames);
}

VirtualCaptureCounters VirtualCaptureDevice::counters() const {
  const MutexGuard guard(mutex_);
  return counters_;
}

bool VirtualCaptureDevice::openNode(CaptureError* error) {
  const MutexGuard guard(mutex_);
  if (!connected_) {
    report(error, failure(ENODEV, "the device is not plugged in", "Plug it in."));
  } else if (denied_) {
    report(error, failure(EACCES, "this user may not open it", "Ask the administrator for access to video devices."));
  } else if (busy_) {
    report(error, failure(EBUSY, "another program is using it", "Close that program and open again."));
  } else {
    opened_plugging_ = plugging_;
    return true;
  }
  return false;
}

void VirtualCaptureDevice::closeNode() {
  const MutexGuard guard(mutex_);
  opened_plugging_ = 0;
}

bool VirtualCaptureDevice::isNodeStale() const {
  const MutexGuard guard(mutex_);
  return connected_ && opened_plugging_ != plugging_;
}

bool VirtualCaptureDevice::acquireConfiguration(CaptureError* error) {
  const MutexGuard guard(mutex_);
  if (!connected_ || opened_plugging_ != plugging_) {
    report(error, failure(ENODEV, "the device was unplugged", "Plug it in and open it again."));
    return false;
  }
  return true;
}

void VirtualCaptureDevice::releaseConfiguration() {}

bool VirtualCaptureDevice::applyFormat(const CaptureFormat& format, CaptureError* error) {
  const MutexGuard guard(mutex_);
  if (!connected_ || opened_plugging_ != plugging_) {
    report(error, failure(ENODEV, "the device was unplugged", "Plug it in and open it again."));
    return false;
  }
  const bool known =
      std::any_of(formats_.begin(), formats_.end(), [&](const CaptureFormatRef& one) { return one.get() == &format; });
  if (!known || !VirtualTarget::supports(format.width, format.height) || captureMediaSubtype(format.pixelFormat) == 0) {
    report(error, failure(EINVAL, "the device does not take the format " + describe(format), ""));
    return false;
  }
  format_ = format;
  return true;
}

CaptureFormat VirtualCaptureDevice::flowingFormat(const CaptureFormat& /*active*/) {
  const MutexGuard guard(mutex_);
  if (format_.width == 0) {
    format_ = *highPresetFormat(formats_);
  }
  return format_;
}

bool VirtualCaptureDevice::startStream(CaptureError* error) {
  const MutexGuard guard(mutex_);
  if (!connected_ || opened_plugging_ != plugging_) {
    report(error, failure(ENODEV, "the device was unplugged", "Plug it in and open it again."));
    return false;
  }
  try {
    stream_ = std::make_shared<Stream>(*this, format_, faults_);
  } catch (const std::system_error& no_thread) {
    report(error, failure(no_thread.code().value(), "starting the capture thread failed", ""));
    return false;
  }
  ++counters_.starts;
  return true;
}

void VirtualCaptureDevice::stopStream() {
  std::shared_ptr<Stream> stream;
  {
    const MutexGuard guard(mutex_);
    stream = std::move(stream_);
    stream_.reset();
  }
  if (stream != nullptr) {
    stream->stop();
  }
}

std::shared_ptr<VirtualCaptureDevice> VirtualCapture::add(std::shared_ptr<VirtualTarget> target,
                                                          VirtualCaptureSettings settings) {
  auto device = std::make_shared<VirtualCaptureDevice>(std::move(target), std::move(settings));
  const MutexGuard guard(mutex_);
  devices_.push_back(device);
  return device;
}

void VirtualCapture::remove(const std::shared_ptr<VirtualCaptureDevice>& device) {
  device->unplug();
  const MutexGuard guard(mutex_);
  std::erase(devices_, device);
}

std::vector<std::shared_ptr<CaptureDevice>> VirtualCapture::devices() {
  const MutexGuard guard(mutex_);
  std::vector<std::shared_ptr<CaptureDevice>> connected;
  std::copy_if(devices_.begin(), devices_.end(), std::back_inserter(connected),
               [](const auto& device) { return device->isConnected(); });
  return connected;
}

}  // namespace mirn
