#include "usb/usb_monitor.h"

#include <chrono>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>

#include "deps/pellum/thread_annotations.h"
#include "platform/clock.h"
#include "platform/mirn_identity.h"

namespace mirn {

bool g_bDeviceExist = false;
bool g_bInitUSBListener = false;

namespace {

constexpr std::chrono::milliseconds kStartWait{100};
constexpr std::chrono::milliseconds kStopDeferral{100};

void writeLine(std::ostream& stream, const std::string& text) {
  stream << text + "\n" << std::flush;
}

// A service object that is given back when the scope ends.
class ScopedService {
 public:
  ScopedService(UsbRegistry& registry, UsbService service) : registry_(registry), service_(service) {}
  ~ScopedService() { registry_.release(service_); }
  ScopedService(const ScopedService&) = delete;
  ScopedService& operator=(const ScopedService&) = delete;

 private:
  UsbRegistry& registry_;
  UsbService service_;
};

}  // namespace

bool GetDeviceInfo(UsbRegistry& registry, UsbService service, uint16_t* vid, uint16_t* pid) {
  const std::unique_ptr<UsbProperties> properties = registry.createProperties(service);
  if (properties == nullptr) return false;
  UsbValue vendor;
  if (!properties->valueIfPresent(kUsbVendorKey, &vendor)) return false;
  UsbValue product;
  if (!properties->valueIfPresent(kUsbProductKey, &product)) return false;
  // Read as signed numbers: an identifier of 0x8000 or more doesn't fit and the device is passed over. That is meant;
  // the build refuses such identifiers for the Mirn.
  int16_t number = 0;
  if (!usbNumberValue(vendor, &number)) return false;
  *vid = static_cast<uint16_t>(number);
  if (!usbNumberValue(product, &number)) return false;
  *pid = static_cast<uint16_t>(number);
  return true;
}

// Where the monitor thread's run loop and the deferred stop meet. Each start has a slot of its own, so a stop that is
// still deferred can't end a later start's loop. Thread-safe.
class USBMonitor::RunLoopSlot {
 public:
  // Returns when stop() was called, before or meanwhile.
  void run(const std::shared_ptr<UsbRunLoop>& loop) MIRN_EXCLUDES(mutex_) {
    {
      MutexGuard guard(mutex_);
      if (stopped_) return;
      loop_ = loop;
    }
    loop->run();
    MutexGuard guard(mutex_);
    loop_.reset();
  }

  // Under the lock, so that the loop is the monitor thread's alone again when run() returns.
  void stop() MIRN_EXCLUDES(mutex_) {
    MutexGuard guard(mutex_);
    stopped_ = true;
    if (loop_ != nullptr) loop_->stop();
  }

 private:
  Mutex mutex_;
  std::shared_ptr<UsbRunLoop> loop_ MIRN_GUARDED_BY(mutex_);
  bool stopped_ MIRN_GUARDED_BY(mutex_) = false;
};

void USBMonitor::drain(UsbIterator iterator, bool exist) {
  // Always to the end: what arms the notification again is that the iterator was drained.
  while (const UsbService service = registry_->iteratorNext(iterator)) {
    const ScopedService scoped(*registry_, service);
    uint16_t vid = 0;
    uint16_t pid = 0;
    if (GetDeviceInfo(*registry_, service, &vid, &pid) && vid == g_vid && pid == g_pid) bDeviceExist_.store(exist);
  }
}

void DeviceAddedCallback(void* refcon, UsbIterator iterator) {
  if (refcon == nullptr) return;
  static_cast<USBMonitor*>(refcon)->drain(iterator, true);
}

void DeviceRemovedCallback(void* refcon, UsbIterator iterator) {
  if (refcon == nullptr) return;
  static_cast<USBMonitor*>(refcon)->drain(iterator, false);
}

USBMonitor::USBMonitor() = default;

USBMonitor::~USBMonitor() {
  StopMonitoring();
}

bool USBMonitor::StartMonitoring() {
  if (isMonitoring_.load()) return true;
  isMonitoring_.store(true);
  registry_ = &usbRegistry();
  runLoop_ = std::make_shared<RunLoopSlot>();
  try {
    monitorThread_ = std::thread(&USBMonitor::MonitorThreadFunc, this);
  } catch (const std::system_error& error) {
    // Like every other failure to set up: told, and the start still counts as one.
    writeLine(std::cerr, std::string("Failed to start the USB monitor thread: ") + error.what());
  }
  clock().sleepFor(kStartWait);
  return true;
}

void USBMonitor::StopMonitoring() {
  if (!isMonitoring_.load()) return;
  isMonitoring_.store(false);
  // Deferred on a thread of its own, so that a monitor thread that has only just started gets to its loop.
  std::thread([slot = runLoop_] {
    clock().sleepFor(kStopDeferral);
    slot->stop();
  }).detach();
  if (monitorThread_.joinable()) monitorThread_.join();
  notificationPort_.reset();
  if (deviceAddedIter_ != 0) registry_->release(std::exchange(deviceAddedIter_, 0));
  if (deviceRemovedIter_ != 0) registry_->release(std::exchange(deviceRemovedIter_, 0));
  writeLine(std::cout, "USB monitoring stopped");
}

void USBMonitor::MonitorThreadFunc() {
  const std::shared_ptr<UsbRunLoop> loop = registry_->currentRunLoop();
  if (setUpNotifications(*loop)) runLoop_->run(loop);
}

bool USBMonitor::setUpNotifications(UsbRunLoop& loop) {
  std::unique_ptr<UsbMatching> matching = registry_->createMatching(kUsbDeviceClass);
  if (matching == nullptr) {
    writeLine(std::cerr, "Failed to create matching dictionary");
    return false;
  }
  notificationPort_ = registry_->createNotificationPort();
  if (notificationPort_ == nullptr) {
    writeLine(std::cerr, "Failed to create notification port");
    return false;
  }
  runLoopSource_ = notificationPort_->runLoopSource();
  loop.addSource(*runLoopSource_);

  int32_t result = registry_->addMatchingNotification(
      *notificationPort_, UsbNotification::kMatched, std::move(matching), DeviceAddedCallback, this, &deviceAddedIter_);
  if (result != 0) {
    writeLine(std::cerr, "Failed to add matched notification: " + std::to_string(result));
    notificationPort_.reset();
    return false;
  }
  DeviceAddedCallback(this, deviceAddedIter_);

  // From here on a failure leaves the port and the arrival iterator to StopMonitoring, and the flag as the walk over
  // the attached devices has set it.
  matching = registry_->createMatching(kUsbDeviceClass);
  if (matching == nullptr) {
    writeLine(std::cerr, "Failed to create removed matching dictionary");
    return false;
  }
  result = registry_->addMatchingNotification(*notificationPort_, UsbNotification::kTerminate, std::move(matching),
                                              DeviceRemovedCallback, this, &deviceRemovedIter_);
  if (result != 0) {
    writeLine(std::cerr, "Failed to add terminated notification: " + std::to_string(result));
    return false;
  }
  DeviceRemovedCallback(this, deviceRemovedIter_);
  writeLine(std::cout, "USB monitoring started successfully");
  return true;
}

}  // namespace mirn
