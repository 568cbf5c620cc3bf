#include "platform/linux/udev_entry.h"

#include <charconv>

#include "platform/linux/udev_handles.h"

namespace mirn {

namespace {

constexpr int64_t kLargestIdentifier = 0xffff;

std::optional<int64_t> parseHex(std::string_view text) {
  int64_t number = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, 16);
  if (error != std::errc() || stop != end || number < 0 || number > kLargestIdentifier) return std::nullopt;
  return number;
}

std::optional<int64_t> readHexAttribute(udev_device* device, const char* name) {
  const char* text = udev_device_get_sysattr_value(device, name);
  return text != nullptr ? parseHex(text) : std::nullopt;
}

}  // namespace

std::optional<std::pair<int64_t, int64_t>> parseUsbProduct(std::string_view text) {
  const size_t first = text.find('/');
  if (first == std::string_view::npos) return std::nullopt;
  const size_t second = text.find('/', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  const std::optional<int64_t> vendor = parseHex(text.substr(0, first));
  const std::optional<int64_t> product = parseHex(text.substr(first + 1, second - first - 1));
  if (!vendor || !product) return std::nullopt;
  return std::pair(*vendor, *product);
}

UdevUsbEntry readUsbEntry(udev_device* device) {
  UdevUsbEntry entry;
  if (const char* syspath = udev_device_get_syspath(device)) entry.syspath = syspath;
  const char* product = udev_device_get_property_value(device, "PRODUCT");
  if (const auto identifiers = product != nullptr ? parseUsbProduct(product) : std::nullopt) {
    entry.vendor = identifiers->first;
    entry.product = identifiers->second;
  } else {
    entry.vendor = readHexAttribute(device, "idVendor");
    entry.product = readHexAttribute(device, "idProduct");
  }
  return entry;
}

std::optional<std::vector<UdevUsbEntry>> enumerateUsbDevices(udev* context) {
  const UdevEnumeratePtr enumerate(udev_enumerate_new(context));
  if (enumerate == nullptr || udev_enumerate_add_match_subsystem(enumerate.get(), "usb") < 0 ||
      udev_enumerate_scan_devices(enumerate.get()) < 0) {
    return std::nullopt;
  }
  std::vector<UdevUsbEntry> entries;
  udev_list_entry* item = nullptr;
  udev_list_entry_foreach(item, udev_enumerate_get_list_entry(enumerate.get())) {
    const UdevDevicePtr device(udev_device_new_from_syspath(context, udev_list_entry_get_name(item)));
    if (device == nullptr) continue;  // gone since the scan
    const char* type = udev_device_get_devtype(device.get());
    if (type == nullptr || std::string_view(type) != "usb_device") continue;
    entries.push_back(readUsbEntry(device.get()));
  }
  return entries;
}

}  // namespace mirn
