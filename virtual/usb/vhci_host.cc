#include "virtual/usb/vhci_host.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "virtual/usb/owned_descriptor.h"

namespace mirn {

namespace {

constexpr int kFreePort = 4;      // VDEV_ST_NULL
constexpr int kDeviceId = 65538;  // bus 1, device 2: any value does
constexpr int kHighSpeed = 3;     // enum usb_device_speed
constexpr int kSuperSpeed = 5;

const char* speedName(UsbSpeed speed) {
  return speed == UsbSpeed::kSuper ? "super-speed" : "high-speed";
}

}  // namespace

std::vector<VhciPort> parseVhciStatus(std::string_view text) {
  std::vector<VhciPort> ports;
  std::istringstream lines{std::string(text)};
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string hub;
    VhciPort port;
    int state = 0;
    if (!(fields >> hub >> port.number >> state) || (hub != "hs" && hub != "ss")) continue;
    port.speed = hub == "ss" ? UsbSpeed::kSuper : UsbSpeed::kHigh;
    port.free = state == kFreePort;
    ports.push_back(port);
  }
  return ports;
}

bool VhciHost::present() const {
  return ::access((controller_ + "/status").c_str(), F_OK) == 0;
}

std::vector<VhciPort> VhciHost::ports() const {
  std::ifstream file(controller_ + "/status");
  std::ostringstream text;
  text << file.rdbuf();
  return parseVhciStatus(text.str());
}

VhciError VhciHost::attach(int socket, UsbSpeed speed, std::optional<int>* port, std::string* detail) const {
  if (!present()) {
    *detail = "the kernel module vhci-hcd is not loaded (as root: modprobe vhci-hcd)";
    return VhciError::kNoModule;
  }
  const OwnedDescriptor file(::open((controller_ + "/attach").c_str(), O_WRONLY | O_CLOEXEC));
  if (!file.valid()) {
    const bool denied = errno == EACCES || errno == EPERM;
    *detail = denied ? "only root may plug a device into vhci-hcd" : std::strerror(errno);
    return denied ? VhciError::kNotAllowed : VhciError::kFailed;
  }
  const std::vector<VhciPort> all = ports();
  const auto chosen = std::find_if(all.begin(), all.end(), [&](const VhciPort& candidate) {
    return *port ? candidate.number == **port : candidate.free && candidate.speed == speed;
  });
  if (chosen == all.end()) {
    *detail = *port ? "vhci-hcd has no port " + std::to_string(**port)
                    : std::string("vhci-hcd has no free ") + speedName(speed) + " port";
    return *port ? VhciError::kNoSuchPort : VhciError::kNoFreePort;
  }
  if (chosen->speed != speed) {
    *detail = "port " + std::to_string(chosen->number) + " is not a " + speedName(speed) + " port";
    return VhciError::kNoSuchPort;
  }
  const std::string request = std::to_string(chosen->number) + " " + std::to_string(socket) + " " +
                              std::to_string(kDeviceId) + " " +
                              std::to_string(speed == UsbSpeed::kSuper ? kSuperSpeed : kHighSpeed);
  if (!chosen->free || ::write(file.get(), request.data(), request.size()) < 0) {
    // Somebody may take the port between the look at it and the write; the kernel then says EBUSY.
    const bool taken = !chosen->free || errno == EBUSY;
    *detail = taken ? "port " + std::to_string(chosen->number) + " of vhci-hcd is taken" : std::strerror(errno);
    return taken ? VhciError::kPortTaken : VhciError::kFailed;
  }
  *port = chosen->number;
  return VhciError::kNone;
}

}  // namespace mirn
