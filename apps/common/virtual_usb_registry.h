// A USB register that knows virtual Mirns alone: presence as the library sees it follows their plugging.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/usb_registry.h"

namespace mirn {

// Thread-safe. Must outlive the ports, loops and properties it handed out.
class VirtualUsbRegistry final : public UsbRegistry {
 public:
  struct Identity {
    int64_t vendor = 0;
    int64_t product = 0;
    bool operator==(const Identity&) const = default;
  };

  VirtualUsbRegistry();
  ~VirtualUsbRegistry() override;

  // A device came or went; `key` names it.
  void arrived(uint64_t key, Identity identity);
  void gone(uint64_t key);

  // Registered notifications; a monitor has two once it can miss nothing.
  size_t watchers();

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

 private:
  class Port;
  class Loop;
  struct Notification {
    Port* port = nullptr;
    UsbNotification type = UsbNotification::kMatched;
    UsbNotificationCallback callback = nullptr;
    void* refcon = nullptr;
    UsbIterator iterator = 0;
  };
  // Something to tell, in the order in which it happened: the last word is who is there.
  struct Event {
    Notification notification;
    Identity identity;
  };

  UsbHandle newHandle() MIRN_REQUIRES(mutex_);
  void tell(UsbNotification type, Identity identity) MIRN_REQUIRES(mutex_);
  UsbIterator iteratorOverPresent() MIRN_REQUIRES(mutex_);
  // The next event for one of these ports, whose device then stands in its iterator; false when there is none.
  bool takePending(const std::set<Port*>& ports, Notification* taken) MIRN_REQUIRES(mutex_);

  Mutex mutex_;
  std::condition_variable_any changed_;
  UsbHandle last_handle_ MIRN_GUARDED_BY(mutex_) = 0;
  std::map<uint64_t, Identity> present_ MIRN_GUARDED_BY(mutex_);
  std::map<UsbIterator, std::deque<UsbService>> iterators_ MIRN_GUARDED_BY(mutex_);
  std::map<UsbService, Identity> services_ MIRN_GUARDED_BY(mutex_);
  std::vector<Notification> notifications_ MIRN_GUARDED_BY(mutex_);
  std::deque<Event> events_ MIRN_GUARDED_BY(mutex_);
};

}  // namespace mirn
