// Is a Mirn plugged in? One monitor keeps the answer current on a thread of its own; whoever wants to know reads a
// flag. It doesn't open the device and notifies nobody.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "platform/usb_registry.h"

namespace mirn {

// The last presence answer that was handed to the application, and whether answers come from the monitor by now.
// Bound to the main thread: the device manager's presence query alone reads and writes them.
extern bool g_bDeviceExist;
extern bool g_bInitUSBListener;

// Both identifiers of an entry. False when its properties can't be read, or one identifier is missing or no signed
// 16-bit number; *vid may then be set already.
bool GetDeviceInfo(UsbRegistry& registry, UsbService service, uint16_t* vid, uint16_t* pid);

// What the registry calls for arrivals and removals, on the monitor thread. refcon is the USBMonitor; null is ignored,
// and the iterator then stays as it is.
void DeviceAddedCallback(void* refcon, UsbIterator iterator);
void DeviceRemovedCallback(void* refcon, UsbIterator iterator);

// Bound to its owner's thread, except GetDeviceExist and SetDeviceExist (thread-safe). Uses the registry that is in
// force when it starts.
class USBMonitor {
 public:
  // The presence flag starts false; SetDeviceExist seeds it with the result of a scan before the first start.
  USBMonitor();
  // Stops. A failure in there ends the process.
  ~USBMonitor();
  USBMonitor(const USBMonitor&) = delete;
  USBMonitor& operator=(const USBMonitor&) = delete;

  // Starts the monitor thread unless it was started already, waits 100 ms. True in every case: what fails on the
  // thread is told on standard error alone, and the flag then keeps its last value.
  bool StartMonitoring();

  // Ends the thread (100 ms at least) and gives back every platform object. Nothing, when not monitoring. A stopped
  // monitor can be started again; the presence flag stays as it is. Throws std::system_error when the deferred stop
  // gets no thread; a monitor thread that runs then runs on, and the end of this object ends the process.
  void StopMonitoring();

  void SetDeviceExist(bool exist) { bDeviceExist_.store(exist); }

  // The last event of a matching device was its arrival; before any event, the seed. A flag and not a count: of two
  // devices, the removal of one clears it.
  bool GetDeviceExist() const { return bDeviceExist_.load(); }

  // Body of the monitor thread; not for other callers.
  void MonitorThreadFunc();

 private:
  class RunLoopSlot;
  friend void DeviceAddedCallback(void* refcon, UsbIterator iterator);
  friend void DeviceRemovedCallback(void* refcon, UsbIterator iterator);

  // Registers for both kinds of events and walks what is attached. False after its line on standard error.
  bool setUpNotifications(UsbRunLoop& loop);

  // Drains the iterator; every matching entry stores `exist` into the flag.
  void drain(UsbIterator iterator, bool exist);

  std::unique_ptr<UsbNotificationPort> notificationPort_;
  UsbIterator deviceAddedIter_ = 0;
  UsbIterator deviceRemovedIter_ = 0;
  UsbRunLoopSource* runLoopSource_ = nullptr;  // the port's; not cleared when the port goes
  std::atomic<bool> isMonitoring_{false};
  std::thread monitorThread_;
  std::atomic<bool> bDeviceExist_{false};
  UsbRegistry* registry_ = nullptr;  // the one that this start uses
  std::shared_ptr<RunLoopSlot> runLoop_;
};

}  // namespace mirn
