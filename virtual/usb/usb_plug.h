// One virtual Mirn and the kernel's port that it is plugged into: plug, unplug, plug again.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "virtual/usb/usbip_server.h"
#include "virtual/usb/vhci_host.h"
#include "virtual/usb/virtual_usb_device.h"

namespace mirn {

// Bound to one thread, except holdOutput() and the getters. While it is plugged a thread of its own serves the device.
class UsbPlug {
 public:
  struct Settings {
    UsbShape shape;
    std::optional<int> port;  // none: the first free one, at each plugging anew
    VhciHost host{};
  };

  // Both live as long as this object. The frames are drawn on the serving thread.
  UsbPlug(Settings settings, std::shared_ptr<VirtualMirn> mirn, std::shared_ptr<FrameSource> frames);
  // Unplugs.
  ~UsbPlug();
  UsbPlug(const UsbPlug&) = delete;
  UsbPlug& operator=(const UsbPlug&) = delete;

  // Does nothing when plugged already. On failure `*detail` holds a line for a person.
  VhciError plug(std::string* detail);
  // As if somebody had pulled it out. Returns when the serving thread has ended; the kernel notices on its own threads.
  void unplug();

  // Served right now: false also after the device has unplugged itself.
  bool plugged() const { return serving_.load(); }
  std::optional<int> port() const { return port_; }
  VirtualMirn& mirn() { return *mirn_; }

  // While held, the device takes no output report.
  void holdOutput(bool hold);

  // Told on the serving thread when the service ends by itself. Set before plug().
  void setEndListener(std::function<void(UsbIpEnd)> listener) { end_listener_ = std::move(listener); }

 private:
  void serve();

  const Settings settings_;
  const std::shared_ptr<VirtualMirn> mirn_;
  const std::shared_ptr<FrameSource> frames_;
  std::function<void(UsbIpEnd)> end_listener_;
  std::unique_ptr<VirtualUsbDevice> device_;
  std::unique_ptr<UsbIpServer> server_;
  std::thread thread_;
  uint64_t mirn_listener_ = 0;
  std::atomic<bool> serving_{false};
  std::optional<int> port_;
  bool plugged_before_ = false;
  bool hold_output_ = false;
};

}  // namespace mirn
