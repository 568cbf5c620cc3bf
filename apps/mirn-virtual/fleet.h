// The devices of one run, and the commands that steer them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "apps/mirn-virtual/options.h"
#include "virtual/usb/usb_plug.h"
#include "virtual/virtual_setup.h"

namespace mirn {

VirtualExit exitStatusOf(VhciError error);

// Bound to one thread.
class VirtualFleet {
 public:
  // `on_end` is called, on some other thread, when a device has left by itself: call cleanUp() then.
  VirtualFleet(const VirtualOptions& options, const std::function<void()>& on_end);

  // Plugs all in. On failure those that are in already stay in, and `*detail` holds a line for a person.
  VhciError plugAll(std::string* detail);
  void unplugAll();

  // One command; the answer is one line or several, without the last line end. `*quit` becomes true for "quit".
  std::string command(std::string_view line, bool* quit);

  // Says which devices have left by themselves, a line each, and makes them ready to be plugged in again.
  std::vector<std::string> cleanUp();

  // "device 1: plugged, port 0", a line each.
  std::string status() const;

 private:
  struct Device {
    std::shared_ptr<VirtualMirn> mirn;
    std::shared_ptr<VirtualTarget> target;
    std::unique_ptr<VirtualBinding> binding;
    std::unique_ptr<UsbPlug> plug;
    bool wanted = false;  // plugged in, and not unplugged by command
  };

  // The devices that a command is for; empty when the number is wrong.
  std::vector<Device*> chosen(std::string_view* arguments);
  VhciError plug(Device& device, std::string* detail);
  std::string faults(const std::vector<Device*>& devices, std::string_view plan);

  std::vector<Device> devices_;
};

}  // namespace mirn
