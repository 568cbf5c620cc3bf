// The USB registry over udev. One netlink socket per notification port, on the kernel's own event source, so that no
// udev daemon is needed; it listens from the moment the port exists, before anything is enumerated, and feeds arrivals
// and removals alike: their order is the kernel's.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <variant>

#include "deps/pellum/thread_annotations.h"
#include "platform/linux/udev_entry.h"
#include "platform/usb_registry.h"

namespace mirn {

// Thread-safe.
class UdevUsbRegistry : public UsbRegistry {
 public:
  // Errors of addMatchingNotification and getMatchingServices are negative errno values.
  std::unique_ptr<UsbMatching> createMatching(const char* class_name) override;
  std::unique_ptr<UsbNotificationPort> createNotificationPort() override;
  int32_t addMatchingNotification(UsbNotificationPort& port, UsbNotification type,
                                  std::unique_ptr<UsbMatching> matching, UsbNotificationCallback callback, void* refcon,
                                  UsbIterator* iterator) override;
  int32_t getMatchingServices(std::unique_ptr<UsbMatching> matching, UsbIterator* iterator) override;
  UsbService iteratorNext(UsbIterator iterator) override;
  void release(UsbHandle handle) override;
  std::unique_ptr<UsbProperties> createProperties(UsbService service) override;
  std::shared_ptr<UsbRunLoop> currentRunLoop() override;

  // Puts an entry at the end of an iterator; nothing when that was released.
  void append(UsbIterator iterator, UdevUsbEntry entry);

  // Iterators and services that were handed out and not given back.
  size_t liveHandles() const;

 private:
  using Pending = std::deque<UdevUsbEntry>;  // what an iterator has yet to yield

  UsbHandle insert(std::variant<UdevUsbEntry, Pending> object) MIRN_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::map<UsbHandle, std::variant<UdevUsbEntry, Pending>> handles_ MIRN_GUARDED_BY(mutex_);
  UsbHandle last_handle_ MIRN_GUARDED_BY(mutex_) = 0;
};

}  // namespace mirn
