// N virtual Mirns, each with the computer behind it, an entry in the HID back end and an entry in the capture source,
// made and put in force in one go: for applications (`--virtual`) and tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "virtual/virtual_capture.h"
#include "virtual/virtual_hid.h"
#include "virtual/virtual_mirn.h"
#include "virtual/virtual_target.h"

namespace mirn {

// A VirtualMirn and its VirtualTarget, bound to each other for this object's life: what the device takes, the target
// shows.
class VirtualBinding {
 public:
  VirtualBinding(std::shared_ptr<VirtualMirn> mirn, const std::shared_ptr<VirtualTarget>& target);
  ~VirtualBinding();
  VirtualBinding(const VirtualBinding&) = delete;
  VirtualBinding& operator=(const VirtualBinding&) = delete;

 private:
  const std::shared_ptr<VirtualMirn> mirn_;
  const uint64_t listener_;
};

// Digest that the strip shows while the device holds this input.
uint32_t expectedDigest(const VirtualMirn& mirn, bool caps_lock = false);

// Thread-safe after construction, except install() and uninstall(): call those while no device is open and no session
// runs.
class VirtualSetup {
 public:
  struct Unit {
    std::shared_ptr<VirtualMirn> mirn;
    std::shared_ptr<VirtualTarget> target;
    std::shared_ptr<VirtualCaptureDevice> camera;
    std::unique_ptr<VirtualBinding> binding;
  };

  // `devices` >= 1; the n-th stands at the topology path "virtual-n", counted from 1, and so does its serial. Nothing
  // is put in force yet. The settings are those of the first device.
  explicit VirtualSetup(size_t devices = 1, VirtualMirnSettings mirn = {}, VirtualCaptureSettings camera = {});
  // Uninstalls.
  ~VirtualSetup();
  VirtualSetup(const VirtualSetup&) = delete;
  VirtualSetup& operator=(const VirtualSetup&) = delete;

  // Puts the HID and capture back ends in the real ones' place. Only one setup can be in force.
  void install();
  void uninstall();

  size_t size() const { return units_.size(); }
  VirtualMirn& mirn(size_t index = 0) { return *units_.at(index).mirn; }
  VirtualTarget& target(size_t index = 0) { return *units_.at(index).target; }
  VirtualCaptureDevice& camera(size_t index = 0) { return *units_.at(index).camera; }
  VirtualCapture& capture() { return capture_; }
  VirtualHid& hid() { return VirtualHid::instance(); }

  // Both functions of one stick at once, as a hand at the plug does.
  void unplug(size_t index = 0);
  void replug(size_t index = 0);

 private:
  std::vector<Unit> units_;
  VirtualCapture capture_;
  bool installed_ = false;
};

}  // namespace mirn
