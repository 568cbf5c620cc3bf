// The command line of mirn-virtual.
#pragma once

#include <optional>
#include <string>

#include "virtual/fault_plan.h"
#include "virtual/usb/usb_descriptors.h"

namespace mirn {

inline constexpr int kMaxVirtualDevices = 8;  // ports of one controller and speed

// Exit statuses, as the manual has them.
enum class VirtualExit : int {
  kEnded = 0,       // by request: quit, SIGINT, SIGTERM, SIGHUP
  kFailed = 1,      // anything that has no number of its own
  kUsage = 2,       // wrong arguments
  kNotAllowed = 3,  // not root
  kNoModule = 4,    // no vhci-hcd
  kPort = 5,        // the port is taken, there is none free, or no such port
};

enum class VirtualPicture : uint8_t { kTarget, kPattern };

struct VirtualOptions {
  int devices = 1;
  UsbShape shape;
  std::optional<int> first_port;
  VirtualPicture picture = VirtualPicture::kTarget;
  std::string name;     // "" = the model's own
  std::string version;  // likewise
  std::string serial;   // likewise; the devices after the first get "-2", "-3" ...
  FaultPlan faults;
  std::string control_path;  // "" = no control socket
  bool commands_from_stdin = true;
  bool unplugged = false;  // wait for the first replug
};

struct ParsedOptions {
  std::optional<VirtualOptions> options;  // none: `text` is all there is to do
  std::string text;                       // help, version or the one line about what is wrong
  VirtualExit status = VirtualExit::kEnded;
};

ParsedOptions parseOptions(int argc, char** argv);

}  // namespace mirn
