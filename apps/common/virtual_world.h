// What `--virtual` means: virtual Mirns with their target computers, installed in the library in place of the real back
// ends, so that everything runs without hardware.
#pragma once

#include <cstddef>
#include <string>

#include "apps/common/virtual_usb_registry.h"
#include "virtual/virtual_setup.h"

namespace mirn {

struct VirtualOptions {
  size_t devices = 1;
  std::string faults;        // of the first device's answers, in the text form of virtual/fault_plan.h
  std::string video_faults;  // of its pictures, in the text form of virtual/virtual_capture.h
  bool unplugged = false;
  bool denied = false;      // the camera may not be opened
  bool hid_denied = false;  // the keyboard interface may not be opened
  bool busy = false;        // another program holds the camera
  bool no_signal = false;   // the camera never delivers a picture
  std::string lacks;        // formats that the cameras don't offer: "720P", "1080P", "best", "normal", with commas
  bool still = false;       // frames don't differ while the input stays the same
  bool mismatch = false;    // the camera that opens belongs to another device than the keyboard interface
  std::string version = "1.0.0";
  uint32_t frames_per_second = 60;
  bool version_after_replug = false;
};

// Bound to the main thread. There is at most one in a process, and it lives for ever: the library's manager goes only
// when the process ends, and until then its monitor and its sending thread reach for what is installed here.
class VirtualWorld {
 public:
  // Make it before the first session. Null with one line in `error` when a fault text isn't understood or the library
  // is in use already.
  static VirtualWorld* create(const VirtualOptions& options, std::string* error);
  VirtualWorld(const VirtualWorld&) = delete;
  VirtualWorld& operator=(const VirtualWorld&) = delete;

  const VirtualOptions& options() const { return options_; }
  VirtualSetup& setup() { return setup_; }
  VirtualMirn& mirn(size_t index = 0) { return setup_.mirn(index); }
  VirtualTarget& target(size_t index = 0) { return setup_.target(index); }

  void unplug(size_t index = 0);
  void replug(size_t index = 0);
  // Whether its camera delivers pictures.
  void setSignal(bool there, size_t index = 0);

 private:
  explicit VirtualWorld(const VirtualOptions& options);
  ~VirtualWorld() = default;
  bool install(std::string* error);
  void follow(size_t index);

  const VirtualOptions options_;
  VirtualUsbRegistry registry_;
  VirtualSetup setup_;
};

}  // namespace mirn
