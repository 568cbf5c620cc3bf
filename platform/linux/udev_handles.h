// Owning pointers for libudev's reference-counted objects.
#pragma once

#include <libudev.h>

#include <memory>

namespace mirn {

struct UdevDeleter {
  void operator()(udev* object) const { udev_unref(object); }
  void operator()(udev_monitor* object) const { udev_monitor_unref(object); }
  void operator()(udev_enumerate* object) const { udev_enumerate_unref(object); }
  void operator()(udev_device* object) const { udev_device_unref(object); }
};

using UdevPtr = std::unique_ptr<udev, UdevDeleter>;
using UdevMonitorPtr = std::unique_ptr<udev_monitor, UdevDeleter>;
using UdevEnumeratePtr = std::unique_ptr<udev_enumerate, UdevDeleter>;
using UdevDevicePtr = std::unique_ptr<udev_device, UdevDeleter>;

}  // namespace mirn
