#include "apps/mirnctl/doctor.h"

#include <algorithm>

namespace mirn {
namespace {

class Judge {
 public:
  explicit Judge(const DoctorFacts& facts) : facts_(facts) {}

  DoctorReport report() {
    if (checkPlugged()) {
      checkNodes();
      checkPermission();
      checkHolders();
      checkFormats();
    }
    checkRule();
    return report_;
  }

 private:
  void add(const char* name, CheckMark mark, const std::string& text) { report_.checks.push_back({name, mark, text}); }

  // The first trouble decides status and next step: it is the one to solve first.
  void trouble(const char* name, const std::string& text, ExitStatus status, const std::string& step) {
    add(name, CheckMark::kBad, text);
    if (report_.status == kExitOk) {
      report_.status = status;
      report_.next_step = step;
    }
  }

  bool checkPlugged() {
    if (facts_.devices.empty()) {
      trouble("plugged-in", "No Mirn on the USB bus", kExitNotPluggedIn,
              "Plug the Mirn into a USB port of this computer.");
      return false;
    }
    std::string ports;
    for (const MirnOnBus& device : facts_.devices) {
      ports += (ports.empty() ? "" : ", ") + device.port;
    }
    add("plugged-in", CheckMark::kGood,
        (facts_.devices.size() == 1 ? "One Mirn, at port "
                                    : std::to_string(facts_.devices.size()) + " Mirns, at ports ") +
            ports);
    if (facts_.devices.size() > 1) {
      add("several", CheckMark::kNote, "Commands go to the first one the system finds; unplug the others to be sure");
    }
    return true;
  }

  void checkNodes() {
    for (const MirnOnBus& device : facts_.devices) {
      if (device.hid.empty()) {
        trouble("nodes", device.port + ": no keyboard node (hidraw)", kExitIncomplete,
                "Load the kernel module usbhid, or unplug the Mirn and plug it in again.");
      }
      if (device.video.empty()) {
        trouble("nodes", device.port + ": no camera node (video4linux)", kExitIncomplete,
                "Load the kernel module uvcvideo, or unplug the Mirn and plug it in again.");
      }
      for (const std::vector<NodeFact>* nodes : {&device.hid, &device.video}) {
        for (const NodeFact& node : *nodes) {
          add("nodes", CheckMark::kGood, device.port + ": " + node.path + " (" + node.permissions + ")");
        }
      }
    }
  }

  void checkPermission() {
    bool all = true;
    forEachNode([&](const NodeFact& node, bool) {
      if (!node.may_open) {
        all = false;
        trouble(
            "permission", node.path + " may not be opened by this user (" + node.permissions + ")", kExitNoPermission,
            facts_.udev_rules.empty() ? "Install the package mirn-udev, then unplug the Mirn and plug it in again."
                                      : "Unplug the Mirn and plug it in again; log in at this computer's own screen.");
      }
    });
    if (all) {
      add("permission", CheckMark::kGood, "This user may open every node");
    }
  }

  void checkHolders() {
    bool held = false;
    forEachNode([&](const NodeFact& node, bool camera) {
      for (const Holder& holder : node.holders) {
        held = true;
        std::string who = holder.program + " (process " + std::to_string(holder.pid) + ")";
        if (camera) {
          trouble("holders", node.path + " is held by " + who, kExitBusy, "Close " + who + ".");
        } else {
          add("holders", CheckMark::kNote, node.path + " is also open in " + who);
        }
      }
    });
    if (!held) {
      add("holders", CheckMark::kGood, "No other program holds it, as far as this user may see");
    }
  }

  void checkFormats() {
    for (const MirnOnBus& device : facts_.devices) {
      std::string lacking;
      for (const std::string& format : missingFormats(device.formats)) {
        lacking += (lacking.empty() ? "" : ", ") + format;
      }
      bool readable =
          std::any_of(device.video.begin(), device.video.end(), [](const NodeFact& node) { return node.may_open; });
      if (device.formats.empty() && readable) {
        trouble("formats", device.port + ": the camera offers no picture format that can be used", kExitIncomplete,
                "Unplug the Mirn and plug it into a USB port of its own, without a hub.");
      } else if (device.formats.empty()) {
        add("formats", CheckMark::kNote, device.port + ": the camera's format list can't be read");
      } else if (lacking.empty()) {
        add("formats", CheckMark::kGood, device.port + ": all four picture formats are offered");
      } else {
        trouble("formats", device.port + ": the camera lacks " + lacking, kExitIncomplete,
                "Plug the Mirn into a USB port of its own that runs at full speed, without a hub.");
      }
    }
  }

  void checkRule() {
    if (facts_.is_virtual) {
      add("udev-rule", CheckMark::kGood, "Not needed: the device is virtual");
    } else if (facts_.udev_rules.empty()) {
      add("udev-rule", CheckMark::kNote, "No udev rule for the Mirn is installed");
      if (report_.next_step.empty()) {
        report_.next_step = "Install the package mirn-udev, so that every user at this computer may use the Mirn.";
      }
    } else {
      add("udev-rule", CheckMark::kGood, facts_.udev_rules.front());
    }
  }

  template <typename Visit>
  void forEachNode(const Visit& visit) {
    for (const MirnOnBus& device : facts_.devices) {
      for (const NodeFact& node : device.hid) {
        visit(node, false);
      }
      for (const NodeFact& node : device.video) {
        visit(node, true);
      }
    }
  }

  const DoctorFacts& facts_;
  DoctorReport report_;
};

}  // namespace

DoctorReport judge(const DoctorFacts& facts) {
  return Judge(facts).report();
}

std::vector<std::string> missingFormats(const std::vector<PictureFormat>& formats) {
  std::vector<std::string> missing;
  for (const auto& size : {std::pair(1920, 1080), std::pair(1280, 720)}) {
    const int width = size.first;
    const int height = size.second;
    for (const char* subtype : {"420v", "yuvs"}) {
      bool offered = std::any_of(formats.begin(), formats.end(), [&](const PictureFormat& format) {
        return format.width == width && format.height == height && format.subtype == subtype;
      });
      if (!offered) {
        missing.push_back(std::to_string(width) + "x" + std::to_string(height) + " " + subtype);
      }
    }
  }
  return missing;
}

}  // namespace mirn
