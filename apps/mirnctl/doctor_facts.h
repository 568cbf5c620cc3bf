// What `mirnctl doctor` and `mirnctl devices` find out about this machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mirn {

class VirtualWorld;

struct Holder {
  int64_t pid = 0;
  std::string program;

  bool operator==(const Holder&) const = default;
};

struct NodeFact {
  std::string path;             // "/dev/hidraw0"
  bool may_open = false;        // this user may read and write it
  std::string permissions;      // "root:video 0660; user anna rw"
  std::vector<Holder> holders;  // other programs that have it open, as far as we may see
};

struct PictureFormat {
  int width = 0;
  int height = 0;
  std::string subtype;  // "420v", "yuvs"
  std::string sent_as;  // "NV12"
  double rate = 0;

  bool operator==(const PictureFormat&) const = default;
};

struct MirnOnBus {
  std::string port;  // "1-4.2"
  std::string product;
  std::string serial;
  std::vector<NodeFact> hid;
  std::vector<NodeFact> video;
  std::vector<PictureFormat> formats;
};

struct DoctorFacts {
  bool is_virtual = false;
  std::vector<MirnOnBus> devices;
  std::vector<std::string> udev_rules;  // files that name the Mirn
};

// Reads sysfs, /dev, /proc and the udev rule folders. The roots are parameters for tests; nodes are not opened.
struct SystemRoots {
  std::string sys = "/sys";
  std::string dev = "/dev";
  std::string proc = "/proc";
  std::vector<std::string> rules = {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                                    "/usr/lib/udev/rules.d", "/lib/udev/rules.d"};
};
DoctorFacts readSystem(const SystemRoots& roots);

// The same of this machine, with the cameras' format lists.
DoctorFacts systemDoctorFacts();
DoctorFacts virtualDoctorFacts(VirtualWorld& world);

}  // namespace mirn
