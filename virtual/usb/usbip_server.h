// Serves one device on one connected stream socket, until an end comes from either side.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <span>
#include <vector>

#include "virtual/usb/owned_descriptor.h"
#include "virtual/usb/usbip_wire.h"
#include "virtual/usb/virtual_usb_device.h"

namespace mirn {

enum class UsbIpEnd : uint8_t {
  kStopped,     // by stop()
  kPeerClosed,  // the host has let go
  kDeviceGone,  // the device unplugged itself
  kBroken,      // the host sent what is no message
};

// run() is bound to one thread, stop(), wake() and setHoldOutput() may be called by any.
class UsbIpServer {
 public:
  // Takes the socket over. The device is attached until run() has returned.
  UsbIpServer(OwnedDescriptor socket, VirtualUsbDevice& device);

  UsbIpEnd run();

  // Sticky; also ends a send that the host doesn't take.
  void stop();
  // Looks at the device again: somebody has changed it.
  void wake();
  void setHoldOutput(bool hold);

 private:
  // False when the connection is over.
  bool receive();
  bool send(const UsbIpReply& reply);
  bool sendAll(std::vector<UsbIpReply>* replies);
  UsbIpEnd runUntilTheEnd();
  std::optional<UsbIpEnd> serve();
  int timeoutMs(std::chrono::nanoseconds now) const;
  void waitForWork();

  OwnedDescriptor socket_;
  OwnedDescriptor wake_;  // an eventfd
  VirtualUsbDevice& device_;
  UsbIpParser parser_;
  std::vector<UsbIpReply> replies_;
  std::vector<uint8_t> receive_buffer_;
  bool readable_ = false;
  std::atomic<bool> stopped_{false};
  std::atomic<bool> hold_output_{false};
};

}  // namespace mirn
