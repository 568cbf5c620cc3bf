#include "platform/linux/v4l2_catalog.h"

#include <algorithm>
#include <cstdlib>

#include "platform/linux/udev_handles.h"

namespace mirn {
namespace {

constexpr std::string_view kDevices = "/sys/devices/";

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view digitsAt(std::string_view text, size_t position) {
  size_t end = position;
  while (end < text.size() && isDigit(text[end])) {
    ++end;
  }
  std::string_view digits = text.substr(position, end - position);
  while (digits.size() > 1 && digits.front() == '0') {
    digits.remove_prefix(1);
  }
  return digits;
}

size_t endOfDigits(std::string_view text, size_t position) {
  while (position < text.size() && isDigit(text[position])) {
    ++position;
  }
  return position;
}

std::string textOf(const char* text) {
  return text != nullptr ? text : "";
}

V4l2NodeInfo describeNode(udev_device* device) {
  V4l2NodeInfo info;
  const std::string sysPath = textOf(udev_device_get_syspath(device));
  info.path = textOf(udev_device_get_devnode(device));
  info.card = textOf(udev_device_get_sysattr_value(device, "name"));
  info.index = std::atoi(textOf(udev_device_get_sysattr_value(device, "index")).c_str());
  info.sortKey = pathOfFunction(sysPath);
  info.key = sysPath;
  std::string serial;
  // Borrowed: it lives as long as its child.
  if (udev_device* usb = udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device"); usb != nullptr) {
    info.product = textOf(udev_device_get_sysattr_value(usb, "product"));
    info.topologyPath = textOf(udev_device_get_sysname(usb));
    serial = textOf(udev_device_get_sysattr_value(usb, "serial"));
    info.key += '#';
    info.key += textOf(udev_device_get_sysattr_value(usb, "devnum"));
  }
  info.uniqueId = captureUniqueId(sysPath, serial, info.index);
  return info;
}

class UdevV4l2Catalog : public V4l2Catalog {
 public:
  std::vector<V4l2NodeInfo> list() override {
    std::vector<V4l2NodeInfo> nodes;
    // A context of its own for each walk: libudev objects are not thread-safe.
    const UdevPtr context(udev_new());
    if (!context) {
      return nodes;
    }
    const UdevEnumeratePtr walk(udev_enumerate_new(context.get()));
    if (!walk || udev_enumerate_add_match_subsystem(walk.get(), "video4linux") < 0 ||
        udev_enumerate_scan_devices(walk.get()) < 0) {
      return nodes;
    }
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(walk.get())) {
      const UdevDevicePtr device(udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
      // A node that goes away during the walk has no device, or no path.
      if (device && udev_device_get_devnode(device.get()) != nullptr) {
        nodes.push_back(describeNode(device.get()));
      }
    }
    std::stable_sort(nodes.begin(), nodes.end(), [](const V4l2NodeInfo& left, const V4l2NodeInfo& right) {
      return left.sortKey == right.sortKey ? left.index < right.index : naturalLess(left.sortKey, right.sortKey);
    });
    return nodes;
  }
};

}  // namespace

std::shared_ptr<V4l2Catalog> systemV4l2Catalog() {
  static const std::shared_ptr<V4l2Catalog> catalog = std::make_shared<UdevV4l2Catalog>();
  return catalog;
}

bool naturalLess(std::string_view left, std::string_view right) {
  size_t l = 0;
  size_t r = 0;
  while (l < left.size() && r < right.size()) {
    if (isDigit(left[l]) && isDigit(right[r])) {
      const std::string_view leftNumber = digitsAt(left, l);
      const std::string_view rightNumber = digitsAt(right, r);
      if (leftNumber.size() != rightNumber.size()) {
        return leftNumber.size() < rightNumber.size();
      }
      if (leftNumber != rightNumber) {
        return leftNumber < rightNumber;
      }
      l = endOfDigits(left, l);
      r = endOfDigits(right, r);
      continue;
    }
    if (left[l] != right[r]) {
      return static_cast<unsigned char>(left[l]) < static_cast<unsigned char>(right[r]);
    }
    ++l;
    ++r;
  }
  return left.size() - l < right.size() - r;
}

std::string_view pathOfFunction(std::string_view sysPath) {
  const size_t node = sysPath.rfind("/video4linux/");
  return node == std::string_view::npos ? sysPath : sysPath.substr(0, node);
}

std::string captureUniqueId(std::string_view sysPath, std::string_view serial, int index) {
  std::string_view path = pathOfFunction(sysPath);
  if (path.substr(0, kDevices.size()) == kDevices) {
    path.remove_prefix(kDevices.size());
  }
  std::string id(path);
  const size_t bus = path.find("/usb");
  const size_t last = path.rfind('/');
  if (bus != std::string_view::npos && last > bus && last != std::string_view::npos) {
    const std::string_view before = path.substr(0, bus);
    const std::string_view controller = before.substr(before.rfind('/') + 1);  // the whole text when there is no '/'
    const std::string_view function = path.substr(last + 1);
    const size_t port = function.find('-');
    id = std::string(controller) +
         "-usb-0:" + std::string(port == std::string_view::npos ? function : function.substr(port + 1));
  }
  if (!serial.empty()) {
    id += "-" + std::string(serial);
  }
  if (index != 0) {
    id += "-index" + std::to_string(index);
  }
  return id;
}

}  // namespace mirn
