// The kernel's virtual host controller (module vhci-hcd): its ports, as sysfs shows them, and plugging a socket into
// one.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "virtual/usb/usb_descriptors.h"

namespace mirn {

enum class VhciError : uint8_t {
  kNone,
  kNoModule,    // there is no controller
  kNotAllowed,  // only root may plug
  kNoSuchPort,
  kPortTaken,
  kNoFreePort,
  kFailed,
};

struct VhciPort {
  int number = 0;
  UsbSpeed speed = UsbSpeed::kHigh;
  bool free = false;
};

// Lines "hub port sta spd dev sockfd local_busid" below one of titles; lines that are none are skipped.
std::vector<VhciPort> parseVhciStatus(std::string_view text);

// Reentrant.
class VhciHost {
 public:
  explicit VhciHost(std::string controller = "/sys/devices/platform/vhci_hcd.0") : controller_(std::move(controller)) {}

  bool present() const;
  std::vector<VhciPort> ports() const;

  // `port`: a wish, or the first free one of that speed. The kernel keeps its own reference to the socket.
  // On success `*port` says which one it became; else `*detail` holds a line for a person.
  VhciError attach(int socket, UsbSpeed speed, std::optional<int>* port, std::string* detail) const;

 private:
  const std::string controller_;
};

}  // namespace mirn
