// The register of the USB devices of this machine, as far as the presence logic needs it: match by class, walk what
// is there, be told what comes and goes, read two numbers of an entry. platform/linux implements it over udev;
// tests put a double in its place that can fail at each step.
//
// Objects with a type (port, run loop, properties) are owned by whoever holds the pointer. Iterators and services are
// plain handles, 0 = none; each handle that is handed out is given back by exactly one call of release().
//
// Thread-safe, except where a class below says otherwise.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <variant>

namespace mirn {

// A registry entry or an iterator. 0 = none.
using UsbHandle = uint32_t;
using UsbService = UsbHandle;
using UsbIterator = UsbHandle;

// The class that every presence query matches: whole USB devices, not their interfaces.
inline constexpr char kUsbDeviceClass[] = "IOUSBDevice";
inline constexpr char kUsbVendorKey[] = "idVendor";
inline constexpr char kUsbProductKey[] = "idProduct";

// Which kind of event a notification is for.
enum class UsbNotification {
  kMatched,    // "IOServiceMatched": an entry has arrived
  kTerminate,  // "IOServiceTerminate": an entry has gone
};

// A matching request. The call that takes it consumes it.
class UsbMatching {
 public:
  virtual ~UsbMatching() = default;
};

// What a port adds to a run loop. Belongs to its port and dies with it.
class UsbRunLoopSource {
 public:
  virtual ~UsbRunLoopSource() = default;
};

// The run loop of one thread. Bound to the thread that asked for it, except stop().
class UsbRunLoop {
 public:
  virtual ~UsbRunLoop() = default;

  // The source's callbacks come on the thread in run(). The source must outlive its last use there: destroy its port
  // only when run() has returned.
  virtual void addSource(UsbRunLoopSource& source) = 0;

  // Dispatches until stop(). Returns at once when stop() came before.
  virtual void run() = 0;

  // Any thread, any time. Sticky: a stop before run() is not lost.
  virtual void stop() = 0;
};

// Where notifications are delivered. Destroying it ends their delivery.
class UsbNotificationPort {
 public:
  virtual ~UsbNotificationPort() = default;

  // Never null, owned by the port.
  virtual UsbRunLoopSource* runLoopSource() = 0;
};

// A property value: a number of any width, or something that is no number.
using UsbValue = std::variant<int64_t, std::string>;

// The value as a signed 16-bit number. False, and *number untouched, when it is none or doesn't fit: 0x8000 and above
// don't.
inline bool usbNumberValue(const UsbValue& value, int16_t* number) {
  const int64_t* wide = std::get_if<int64_t>(&value);
  if (wide == nullptr || *wide < INT16_MIN || *wide > INT16_MAX) return false;
  *number = static_cast<int16_t>(*wide);
  return true;
}

// A copy of an entry's properties. Reentrant.
class UsbProperties {
 public:
  virtual ~UsbProperties() = default;

  // False, and *value untouched, when the entry has no such property.
  virtual bool valueIfPresent(const char* key, UsbValue* value) const = 0;
};

// Called on the thread of the port's run loop. The iterator is the one of the registration and stays the
// registration's: walk it until it yields 0 (which arms the notification again), don't release it.
using UsbNotificationCallback = void (*)(void* refcon, UsbIterator iterator);

class UsbRegistry {
 public:
  virtual ~UsbRegistry() = default;

  // Null on failure.
  virtual std::unique_ptr<UsbMatching> createMatching(const char* class_name) = 0;

  // Null on failure. Events that happen after this call are not lost, whenever a notification for them is added
  // before the run loop runs.
  virtual std::unique_ptr<UsbNotificationPort> createNotificationPort() = 0;

  // Registers a callback. The iterator yields first what is there already (kMatched) or nothing (kTerminate) and is
  // the caller's to release. 0, or an error code; then no iterator was made.
  virtual int32_t addMatchingNotification(UsbNotificationPort& port, UsbNotification type,
                                          std::unique_ptr<UsbMatching> matching, UsbNotificationCallback callback,
                                          void* refcon, UsbIterator* iterator) = 0;

  // One walk over what is there now, without notifications. 0, or an error code; then no iterator was made.
  virtual int32_t getMatchingServices(std::unique_ptr<UsbMatching> matching, UsbIterator* iterator) = 0;

  // The next entry, the caller's to release; 0 at the end.
  virtual UsbService iteratorNext(UsbIterator iterator) = 0;

  // Gives back an iterator or a service.
  virtual void release(UsbHandle handle) = 0;

  // Null on failure.
  virtual std::unique_ptr<UsbProperties> createProperties(UsbService service) = 0;

  // A run loop for the calling thread. Never null.
  virtual std::shared_ptr<UsbRunLoop> currentRunLoop() = 0;
};

// The platform's own registry. Defined by the folder of the platform.
UsbRegistry& defaultUsbRegistry();

namespace detail {
inline std::atomic<UsbRegistry*> g_usb_registry{nullptr};
}

// The registry in force.
inline UsbRegistry& usbRegistry() {
  UsbRegistry* registry = detail::g_usb_registry.load();
  return registry != nullptr ? *registry : defaultUsbRegistry();
}

// Puts another registry in force (borrowed; it outlives every monitor that starts meanwhile), null for the platform's
// own again. Not while a monitor runs.
inline void setUsbRegistry(UsbRegistry* registry) {
  detail::g_usb_registry.store(registry);
}

}  // namespace mirn
