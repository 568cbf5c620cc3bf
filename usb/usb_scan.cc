#include "usb/usb_scan.h"

#include <memory>
#include <utility>

#include "platform/mirn_identity.h"
#include "usb/usb_monitor.h"

namespace mirn {

bool UsbDeviceAttached(UsbRegistry& registry) {
  std::unique_ptr<UsbMatching> matching = registry.createMatching(kUsbDeviceClass);
  if (matching == nullptr) return false;
  UsbIterator iterator = 0;
  if (registry.getMatchingServices(std::move(matching), &iterator) != 0) return false;
  bool found = false;
  while (const UsbService service = registry.iteratorNext(iterator)) {
    uint16_t vid = 0;
    uint16_t pid = 0;
    // After a match the rest is walked only to be given back.
    if (!found && GetDeviceInfo(registry, service, &vid, &pid)) found = vid == g_vid && pid == g_pid;
    registry.release(service);
  }
  registry.release(iterator);
  return found;
}

}  // namespace mirn
