// A HID back end over virtual devices: the calls of platform/hid_functions.h, answered by VirtualMirn objects of this
// process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/hid_functions.h"
#include "virtual/virtual_mirn.h"

namespace mirn {

// The process's set of virtual devices. Lives for ever, because threads may still use a handle while the process ends.
// Thread-safe. Waiting goes by mirn::clock().
//
// As on a real bus: open() takes the first device, in the order of adding, that is plugged in and has the identifiers;
// every handle that is open when a report is due gets it, also one that was opened after its request was written (but
// what is due within 50 ms of the first opening is dropped); a handle keeps the oldest 63 unread ones and starts empty;
// after an unplugging every call on the handle fails, also when the device has come back.
class VirtualHid {
 public:
  static VirtualHid& instance();

  void add(std::shared_ptr<VirtualMirn> device);
  // Removing a device unplugs it.
  void remove(const std::shared_ptr<VirtualMirn>& device);
  void removeAll();
  std::vector<std::shared_ptr<VirtualMirn>> devices() const;

  // No device may be opened by this user any more: open() finds none, and refusal() says EACCES.
  void setDenied(bool denied);

  // The table to install with setHidFunctions(). Nothing is ever installed by itself.
  static const HidFunctions& functions();

  // For tests.
  size_t openHandles() const;
  uint64_t initCalls() const;

 private:
  VirtualHid();
  ~VirtualHid() = delete;

  friend struct VirtualHidCalls;
  struct State;
  State* state_;
};

// Installs the virtual back end and a set of devices for a scope, and takes both away again.
class ScopedVirtualHid {
 public:
  explicit ScopedVirtualHid(std::vector<std::shared_ptr<VirtualMirn>> devices);
  ~ScopedVirtualHid();
  ScopedVirtualHid(const ScopedVirtualHid&) = delete;
  ScopedVirtualHid& operator=(const ScopedVirtualHid&) = delete;
};

}  // namespace mirn
