#include "apps/common/virtual_usb_registry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace mirn {

class VirtualUsbRegistry::Port final : public UsbNotificationPort, public UsbRunLoopSource {
 public:
  explicit Port(VirtualUsbRegistry& registry) : registry_(registry) {}
  ~Port() override {
    MutexGuard guard(registry_.mutex_);
    std::erase_if(registry_.notifications_, [this](const Notification& entry) { return entry.port == this; });
    std::erase_if(registry_.events_, [this](const Event& event) { return event.notification.port == this; });
  }
  UsbRunLoopSource* runLoopSource() override { return this; }

 private:
  VirtualUsbRegistry& registry_;
};

class VirtualUsbRegistry::Loop final : public UsbRunLoop {
 public:
  explicit Loop(VirtualUsbRegistry& registry) : registry_(registry) {}

  void addSource(UsbRunLoopSource& source) override {
    MutexGuard guard(registry_.mutex_);
    ports_.insert(static_cast<Port*>(&source));
  }

  void run() override {
    for (;;) {
      Notification next;
      {
        MutexGuard guard(registry_.mutex_);
        while (!stopped_ && !registry_.takePending(ports_, &next)) {
          registry_.changed_.wait(registry_.mutex_);
        }
        if (stopped_) {
          return;
        }
      }
      next.callback(next.refcon, next.iterator);
    }
  }

  void stop() override {
    MutexGuard guard(registry_.mutex_);
    stopped_ = true;
    registry_.changed_.notify_all();
  }

 private:
  VirtualUsbRegistry& registry_;
  std::set<Port*> ports_;  // guarded by the registry's mutex
  bool stopped_ = false;   // likewise
};

namespace {

class AnyDevice final : public UsbMatching {};

class Identifiers final : public UsbProperties {
 public:
  explicit Identifiers(VirtualUsbRegistry::Identity identity) : identity_(identity) {}

  bool valueIfPresent(const char* key, UsbValue* value) const override {
    if (std::strcmp(key, kUsbVendorKey) == 0) {
      *value = identity_.vendor;
      return true;
    }
    if (std::strcmp(key, kUsbProductKey) == 0) {
      *value = identity_.product;
      return true;
    }
    return false;
  }

 private:
  VirtualUsbRegistry::Identity identity_;
};

}  // namespace

VirtualUsbRegistry::VirtualUsbRegistry() = default;
VirtualUsbRegistry::~VirtualUsbRegistry() = default;

UsbHandle VirtualUsbRegistry::newHandle() {
  return ++last_handle_;
}

void VirtualUsbRegistry::arrived(uint64_t key, Identity identity) {
  MutexGuard guard(mutex_);
  if (present_.emplace(key, identity).second) {
    tell(UsbNotification::kMatched, identity);
  }
}

void VirtualUsbRegistry::gone(uint64_t key) {
  MutexGuard guard(mutex_);
  auto entry = present_.find(key);
  if (entry == present_.end()) {
    return;
  }
  const Identity identity = entry->second;
  present_.erase(entry);
  tell(UsbNotification::kTerminate, identity);
}

size_t VirtualUsbRegistry::watchers() {
  MutexGuard guard(mutex_);
  return notifications_.size();
}

void VirtualUsbRegistry::tell(UsbNotification type, Identity identity) {
  for (const Notification& entry : notifications_) {
    if (entry.type == type) {
      events_.push_back({entry, identity});
    }
  }
  changed_.notify_all();
}

std::unique_ptr<UsbMatching> VirtualUsbRegistry::createMatching(const char* class_name) {
  return std::strcmp(class_name, kUsbDeviceClass) == 0 ? std::make_unique<AnyDevice>() : nullptr;
}

std::unique_ptr<UsbNotificationPort> VirtualUsbRegistry::createNotificationPort() {
  return std::make_unique<Port>(*this);
}

UsbIterator VirtualUsbRegistry::iteratorOverPresent() {
  UsbIterator iterator = newHandle();
  std::deque<UsbService>& services = iterators_[iterator];
  for (const auto& [key, identity] : present_) {
    UsbService service = newHandle();
    services_[service] = identity;
    services.push_back(service);
  }
  return iterator;
}

int32_t VirtualUsbRegistry::addMatchingNotification(UsbNotificationPort& port, UsbNotification type,
                                                    std::unique_ptr<UsbMatching> matching,
                                                    UsbNotificationCallback callback, void* refcon,
                                                    UsbIterator* iterator) {
  if (matching == nullptr || callback == nullptr) {
    return EINVAL;
  }
  MutexGuard guard(mutex_);
  if (type == UsbNotification::kMatched) {
    *iterator = iteratorOverPresent();
  } else {
    *iterator = newHandle();
    iterators_[*iterator];
  }
  notifications_.push_back({static_cast<Port*>(&port), type, callback, refcon, *iterator});
  return 0;
}

int32_t VirtualUsbRegistry::getMatchingServices(std::unique_ptr<UsbMatching> matching, UsbIterator* iterator) {
  if (matching == nullptr) {
    return EINVAL;
  }
  MutexGuard guard(mutex_);
  *iterator = iteratorOverPresent();
  return 0;
}

UsbService VirtualUsbRegistry::iteratorNext(UsbIterator iterator) {
  MutexGuard guard(mutex_);
  auto entry = iterators_.find(iterator);
  if (entry == iterators_.end() || entry->second.empty()) {
    return 0;
  }
  UsbService service = entry->second.front();
  entry->second.pop_front();
  return service;
}

void VirtualUsbRegistry::release(UsbHandle handle) {
  MutexGuard guard(mutex_);
  services_.erase(handle);
  auto entry = iterators_.find(handle);
  if (entry == iterators_.end()) {
    return;
  }
  for (UsbService service : entry->second) {
    services_.erase(service);
  }
  iterators_.erase(entry);
}

std::unique_ptr<UsbProperties> VirtualUsbRegistry::createProperties(UsbService service) {
  MutexGuard guard(mutex_);
  auto entry = services_.find(service);
  return entry != services_.end() ? std::make_unique<Identifiers>(entry->second) : nullptr;
}

std::shared_ptr<UsbRunLoop> VirtualUsbRegistry::currentRunLoop() {
  return std::make_shared<Loop>(*this);
}

bool VirtualUsbRegistry::takePending(const std::set<Port*>& ports, Notification* taken) {
  const auto event = std::find_if(events_.begin(), events_.end(),
                                  [&](const Event& waiting) { return ports.count(waiting.notification.port) != 0; });
  if (event == events_.end()) {
    return false;
  }
  *taken = event->notification;
  if (auto iterator = iterators_.find(taken->iterator); iterator != iterators_.end()) {
    const UsbService service = newHandle();
    services_[service] = event->identity;
    iterator->second.push_back(service);
  }
  events_.erase(event);
  return true;
}

}  // namespace mirn
