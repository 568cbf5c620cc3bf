// N virtual Mirns, each with the computer behind it, an entry in the HID back end and an entry in the capture source,
// made and put in force in one go: for applications (`--virtual`) and tests.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "virtual/virtual_capture.h"
#include "virtual/virtual_hid.h"
#include "virtual/virtual_mirn.h"
#include "virtual/virtual_target.h"

namespace mirn {

// Thread-safe after construction, except install() and uninstall(): call those while no device is open and no session
// runs.
class VirtualSetup {
 public:
  // `devices` >= 1. Nothing is put in force yet.
  explicit VirtualSetup(size_t devices = 1);
  // Uninstalls.
  ~VirtualSetup();
  VirtualSetup(const VirtualSetup&) = delete;
  VirtualSetup& operator=(const VirtualSetup&) = delete;

  // Puts the HID and capture back ends in the real ones' place. Only one setup can be in force.
  void install();
  void uninstall();

  size_t size() const { return units_.size(); }
  VirtualMirn& mirn(size_t index = 0);
  VirtualTarget& target(size_t index = 0);
  VirtualCapture& capture() { return *capture_; }
  VirtualHid& hid() { return *hid_; }

  // Both functions of one stick at once, as a hand at the plug does.
  void unplug(size_t index = 0);
  void replug(size_t index = 0);

 private:
  struct Unit;

  std::vector<std::unique_ptr<Unit>> units_;
  std::unique_ptr<VirtualHid> hid_;
  std::unique_ptr<VirtualCapture> capture_;
  bool installed_ = false;
};

}  // namespace mirn
