// The real HID back end: hidapi over hidraw.
#include <hidapi/hidapi.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/clock.h"
#include "platform/hid_functions.h"

namespace mirn {
namespace {

namespace fs = std::filesystem;

::hid_device* real(hid_device* device) {
  return reinterpret_cast<::hid_device*>(device);
}

int initHid() {
  return ::hid_init();
}

hid_device* openHid(unsigned short vendor, unsigned short product, const wchar_t* serial) {
  return reinterpret_cast<hid_device*>(::hid_open(vendor, product, serial));
}

int writeHid(hid_device* device, const unsigned char* data, size_t length) {
  return ::hid_write(real(device), data, length);
}

// hidapi waits in poll(2), which ends with EINTR when a signal is handled, SA_RESTART or not. Were that a failed read,
// the answer would stay in the kernel's queue and every later answer would be taken for the command after its own.
int readHid(hid_device* device, unsigned char* data, size_t length, int milliseconds) {
  const Clock::Duration deadline = clock().now() + std::chrono::milliseconds(milliseconds);
  while (true) {
    errno = 0;
    const int result = ::hid_read_timeout(real(device), data, length, milliseconds);
    if (result != -1 || errno != EINTR) {
      return result;
    }
    if (milliseconds > 0) {
      const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock().now());
      milliseconds = static_cast<int>(std::max(rest, std::chrono::milliseconds(0)).count());
    }
  }
}

void closeHid(hid_device* device) {
  ::hid_close(real(device));
}

// From a hidraw node upwards to the USB device it is a part of: the first directory with an `idVendor` in it.
std::string usbDeviceOfHidraw(const fs::path& node) {
  std::error_code error;
  fs::path directory = fs::canonical(fs::path("/sys/class/hidraw") / node.filename() / "device", error);
  if (error) {
    return {};
  }
  while (directory.has_relative_path()) {
    if (fs::exists(directory / "idVendor", error)) {
      return directory.filename().string();
    }
    directory = directory.parent_path();
  }
  return {};
}

std::string hidTopology(hid_device* device) {
  const hid_device_info* const info = ::hid_get_device_info(real(device));
  if (info == nullptr || info->path == nullptr) {
    return {};
  }
  return usbDeviceOfHidraw(info->path);
}

// hidapi names no reason when it can't open a node.
HidRefusal hidRefusal(unsigned short vendor, unsigned short product) {
  HidRefusal refusal;
  hid_device_info* const list = ::hid_enumerate(vendor, product);
  if (list != nullptr && list->path != nullptr && ::access(list->path, R_OK | W_OK) != 0) {
    refusal = {errno, list->path};
  }
  ::hid_free_enumeration(list);
  return refusal;
}

}  // namespace

const HidFunctions& defaultHidFunctions() {
  static constexpr HidFunctions kHidapi{initHid, openHid, writeHid, readHid, closeHid, hidTopology, hidRefusal};
  return kHidapi;
}

}  // namespace mirn
