// Do the picture and the keyboard belong to one device? Typing into another computer than the one on the screen is the
// worst fault such a program can have.
#pragma once

#include <string>

namespace mirn {

struct TopologyVerdict {
  bool same = false;
  bool elsewhere = false;  // both are known, and the keyboard plays into another computer than the one on the screen
  std::string reason;      // why input is held back; empty when same
};

// Bus paths of the open HID interface and of the capture node in use, e.g. "1-4.2"; empty when there is none.
TopologyVerdict compareTopology(const std::string& hid_path, const std::string& capture_path);

}  // namespace mirn
