// One whole USB device as udev shows it: where it hangs and which identifiers it has.
#pragma once

#include <libudev.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mirn {

struct UdevUsbEntry {
  std::string syspath;             // /sys/devices/.../1-1
  std::optional<int64_t> vendor;   // 0..0xffff, none when the device tells none
  std::optional<int64_t> product;  // likewise

  bool operator==(const UdevUsbEntry&) const = default;
};

// "1209/1/100" (hexadecimal, no leading zeros: vendor, product, release), as the kernel writes PRODUCT= into the
// events of USB devices. None when the text is anything else.
std::optional<std::pair<int64_t, int64_t>> parseUsbProduct(std::string_view text);

// From the PRODUCT property, which is all that is left at a removal; from sysfs where there is no such property.
UdevUsbEntry readUsbEntry(udev_device* device);

// The whole USB devices that are attached now. None when the enumeration fails.
std::optional<std::vector<UdevUsbEntry>> enumerateUsbDevices(udev* context);

}  // namespace mirn
