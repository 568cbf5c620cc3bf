#pragma once

// Which video nodes this machine has, with the names that sysfs gives them.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

struct V4l2NodeInfo {
  std::string path;          ///< "/dev/video0"
  std::string key;           ///< one plugging of one node: another one after it was pulled out and put back
  std::string sortKey;       ///< where it is plugged in; see naturalLess()
  std::string product;       ///< USB product string; "" for a device that has none
  std::string card;          ///< V4L2 card name
  std::string uniqueId;      ///< bus path and serial: stable across reboots
  std::string topologyPath;  ///< "1-1.4"; "" when it isn't on USB
  int index = 0;             ///< of the node among those of its function; a UVC metadata node has 1
};

/// Thread-safe.
class V4l2Catalog {
 public:
  virtual ~V4l2Catalog() = default;
  /// Every node of subsystem video4linux, metadata nodes included, by sortKey and index.
  virtual std::vector<V4l2NodeInfo> list() = 0;
};

/// udev's database and sysfs.
std::shared_ptr<V4l2Catalog> systemV4l2Catalog();

/// "1-4" before "1-10": runs of digits compare as numbers.
bool naturalLess(std::string_view left, std::string_view right);

/// From "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-4/1-4:1.0/video4linux/video0", serial "A1" and index 0:
/// "0000:00:14.0-usb-0:4:1.0-A1". The number of the bus is left out, it may change with the next boot.
std::string captureUniqueId(std::string_view sysPath, std::string_view serial, int index);

/// The part of a system path that doesn't hold the node's own number.
std::string_view pathOfFunction(std::string_view sysPath);

}  // namespace mirn
