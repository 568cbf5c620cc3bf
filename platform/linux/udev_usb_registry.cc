#include "platform/linux/udev_usb_registry.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/linux/udev_notification_port.h"

namespace mirn {

namespace {

// The one class that can be asked for is whole USB devices, so the request carries nothing.
class UdevMatching : public UsbMatching {};

class UdevProperties : public UsbProperties {
 public:
  explicit UdevProperties(UdevUsbEntry entry) : entry_(std::move(entry)) {}

  bool valueIfPresent(const char* key, UsbValue* value) const override {
    const std::string_view name(key);
    const std::optional<int64_t> number = name == kUsbVendorKey    ? entry_.vendor
                                          : name == kUsbProductKey ? entry_.product
                                                                   : std::nullopt;
    if (!number) return false;
    *value = *number;
    return true;
  }

 private:
  UdevUsbEntry entry_;
};

}  // namespace

std::unique_ptr<UsbMatching> UdevUsbRegistry::createMatching(const char* class_name) {
  if (class_name == nullptr || std::string_view(class_name) != kUsbDeviceClass) return nullptr;
  return std::make_unique<UdevMatching>();
}

std::unique_ptr<UsbNotificationPort> UdevUsbRegistry::createNotificationPort() {
  return UdevNotificationPort::create(*this);
}

int32_t UdevUsbRegistry::addMatchingNotification(UsbNotificationPort& port, UsbNotification type,
                                                 std::unique_ptr<UsbMatching> matching,
                                                 UsbNotificationCallback callback, void* refcon,
                                                 UsbIterator* iterator) {
  if (matching == nullptr || callback == nullptr) return -EINVAL;
  auto& udev_port = static_cast<UdevNotificationPort&>(port);
  std::vector<UdevUsbEntry> attached;
  if (type == UsbNotification::kMatched && !udev_port.enumerate(&attached)) return -EIO;
  {
    MutexGuard guard(mutex_);
    *iterator = insert(Pending(attached.begin(), attached.end()));
  }
  udev_port.addNotification(type, callback, refcon, *iterator);
  return 0;
}

int32_t UdevUsbRegistry::getMatchingServices(std::unique_ptr<UsbMatching> matching, UsbIterator* iterator) {
  if (matching == nullptr) return -EINVAL;
  const UdevPtr context(udev_new());
  if (context == nullptr) return -ENOMEM;
  const std::optional<std::vector<UdevUsbEntry>> attached = enumerateUsbDevices(context.get());
  if (!attached) return -EIO;
  MutexGuard guard(mutex_);
  *iterator = insert(Pending(attached->begin(), attached->end()));
  return 0;
}

UsbService UdevUsbRegistry::iteratorNext(UsbIterator iterator) {
  MutexGuard guard(mutex_);
  const auto found = handles_.find(iterator);
  if (found == handles_.end()) return 0;
  auto* pending = std::get_if<Pending>(&found->second);
  if (pending == nullptr || pending->empty()) return 0;
  UdevUsbEntry entry = std::move(pending->front());
  pending->pop_front();
  return insert(std::move(entry));
}

void UdevUsbRegistry::release(UsbHandle handle) {
  MutexGuard guard(mutex_);
  handles_.erase(handle);
}

std::unique_ptr<UsbProperties> UdevUsbRegistry::createProperties(UsbService service) {
  MutexGuard guard(mutex_);
  const auto found = handles_.find(service);
  if (found == handles_.end()) return nullptr;
  const auto* entry = std::get_if<UdevUsbEntry>(&found->second);
  return entry != nullptr ? std::make_unique<UdevProperties>(*entry) : nullptr;
}

std::shared_ptr<UsbRunLoop> UdevUsbRegistry::currentRunLoop() {
  return std::make_shared<GlibRunLoop>();
}

void UdevUsbRegistry::append(UsbIterator iterator, UdevUsbEntry entry) {
  MutexGuard guard(mutex_);
  const auto found = handles_.find(iterator);
  if (found == handles_.end()) return;
  if (auto* pending = std::get_if<Pending>(&found->second)) pending->push_back(std::move(entry));
}

size_t UdevUsbRegistry::liveHandles() const {
  MutexGuard guard(mutex_);
  return handles_.size();
}

UsbHandle UdevUsbRegistry::insert(std::variant<UdevUsbEntry, Pending> object) {
  do {
    ++last_handle_;
  } while (last_handle_ == 0 || handles_.count(last_handle_) != 0);
  handles_.emplace(last_handle_, std::move(object));
  return last_handle_;
}

UsbRegistry& defaultUsbRegistry() {
  // Never destroyed: a monitor that is a static object of somebody else may end after any static of ours.
  static UdevUsbRegistry* const registry = new UdevUsbRegistry;
  return *registry;
}

}  // namespace mirn
