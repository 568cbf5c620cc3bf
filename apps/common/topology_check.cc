#include "apps/common/topology_check.h"

namespace mirn {

TopologyVerdict compareTopology(const std::string& hid_path, const std::string& capture_path) {
  if (capture_path.empty()) {
    return {false, false, "Input is held back: there is no picture, so nobody could see where it goes."};
  }
  if (hid_path.empty()) {
    return {false, false, "Input is held back: the Mirn's keyboard interface is not open."};
  }
  if (hid_path != capture_path) {
    return {false, true,
            "Input is held back: the picture comes from the Mirn at USB port " + capture_path +
                ", the keyboard belongs to the one at port " + hid_path +
                ". Unplug one of them, so that you don't type into a computer that you don't see."};
  }
  return {true, false, ""};
}

}  // namespace mirn
