#include "plugin/mirn_host.h"

#include <cstring>
#include <string_view>

#include "device/firmware_check.h"
#include "device/hard_km_proxy.h"
#include "platform/capture.h"
#include "platform/clock.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "platform/usb_registry.h"
#include "plugin/link_counters.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_manager.h"
#include "usb/usb_monitor.h"
#include "usb/usb_scan.h"

namespace mirn {
namespace {

bool proxyAlive() {
  return mirn_ != nullptr && mirn_->kmproxy() != nullptr;
}

// By the manager, by the camera of a second plug-in, or by the host itself.
bool captureInUse() {
  return liveCaptureInputs() > 0 ||
         (mirn_ != nullptr && (mirn_->captureSession() != nullptr || mirn_->captureDevice() != nullptr));
}

// "/sys/devices/.../usb1/1-4/1-4.2" -> "1-4.2"; what is no path stays as it is.
std::string busPlace(std::string topology) {
  if (!topology.starts_with('/')) return topology;
  return topology.substr(topology.rfind('/') + 1);
}

}  // namespace

bool hostDeviceAttached() {
  return UsbDeviceAttached();
}

HostSessionStatistics hostSessionStatistics() {
  HostSessionStatistics result;
  if (mirn_ == nullptr || mirn_->captureSession() == nullptr) return result;
  result.open = true;
  if (const std::shared_ptr<CaptureDevice> device = mirn_->captureDevice()) {
    result.node = device->nodeName();
    result.deviceName = device->localizedName();
    result.uniqueId = device->uniqueID();
  }
  const CaptureStatistics statistics = mirn_->captureSession()->statistics();
  result.running = statistics.running;
  result.width = statistics.width;
  result.height = statistics.height;
  result.pixelFormat = statistics.pixelFormat;
  result.framesPerSecond = statistics.interval.framesPerSecond();
  result.framesCaptured = statistics.framesCaptured;
  result.framesDelivered = statistics.framesDelivered;
  result.droppedLate = statistics.droppedLate;
  result.droppedDamaged = statistics.droppedDamaged;
  result.newestFrameAgeNs = statistics.newestFrameAgeNs;
  result.stopCode = statistics.stopCode;
  return result;
}

HostOpenError hostLastOpenError() {
  const CaptureError error = lastCaptureError();
  return {error.code, error.node, error.reason, error.advice};
}

HostOpenError hostHidRefusal() {
  HidRefusal refusal = hidFunctions().refusal(g_vid, g_pid);
  if (refusal.code == 0) refusal = hidFunctions().refusal(g_fallback_vid, g_pid);
  if (refusal.code == 0) return {};
  return {refusal.code, refusal.node, std::strerror(refusal.code),
          "Install the udev rule for the Mirn, then unplug it and plug it in again."};
}

std::string hostHidTopologyPath() {
  return proxyAlive() ? busPlace(mirn_->kmproxy()->DeviceTopology()) : std::string();
}

std::string hostCaptureTopologyPath() {
  if (mirn_ == nullptr || mirn_->captureDevice() == nullptr) return {};
  return busPlace(mirn_->captureDevice()->topologyPath());
}

HostLinkStatistics hostLinkStatistics() {
  const LinkCounters& counters = linkCounters();
  HostLinkStatistics result;
  result.proxy = proxyAlive();
  result.mouseSent = counters.mouse.taken.load();
  result.mouseFailed = counters.mouse.failed.load();
  result.keyboardSent = counters.keyboard.taken.load();
  result.keyboardFailed = counters.keyboard.failed.load();
  result.firmwareSent = counters.firmware.taken.load();
  result.firmwareFailed = counters.firmware.failed.load();
  return result;
}

bool hostInstallHidFunctions(const HidFunctions* functions) {
  if (proxyAlive()) return false;
  setHidFunctions(functions);
  // The manager has initialised the table that was installed before; this one wants it too.
  if (mirn_ != nullptr) hidFunctions().init();
  return true;
}

bool hostInstallCaptureSystem(CaptureSystem* system) {
  if (captureInUse()) return false;
  setCaptureSystem(system);
  return true;
}

bool hostInstallUsbRegistry(UsbRegistry* registry) {
  if (g_bInitUSBListener) return false;
  setUsbRegistry(registry);
  return true;
}

bool hostInstallClock(Clock* clock) {
  if (proxyAlive() || captureInUse() || g_bInitUSBListener) return false;
  setClock(clock);
  return true;
}

int32_t hostLedStatus() {
  return proxyAlive() ? mirn_->kmproxy()->GetLedStatus() : -1;
}

void hostReleaseProxy() {
  if (mirn_ != nullptr) mirn_->releaseProxy();
}

HostHexCheck hostCheckHexFile(const std::string& path) {
  HostHexCheck result;
  result.hexFile = isHexFirmwarePath(path);
  result.exact = true;
  if (!result.hexFile) return result;
  const FirmwareReport report = checkFirmwareFile(path);
  result.exact = report.exact;
  result.findings = report.finding_count;
  result.imageBytes = report.image_bytes;
  if (report.findings.empty()) return result;
  result.line = report.findings.front().line;
  result.reason = report.findings.front().reason;
  return result;
}

}  // namespace mirn
