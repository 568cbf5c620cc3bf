// The part of doctor_facts.h that reads the machine: sysfs for devices, /proc for who holds what.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "apps/mirnctl/access_list.h"
#include "apps/mirnctl/doctor_facts.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

namespace fs = std::filesystem;

std::string firstLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

int hexNumber(const std::string& text) {
  int value = -1;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  return error == std::errc() && end == text.data() + text.size() ? value : -1;
}

// Names in a folder, sorted; empty when it can't be read.
std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    names.push_back(entry->path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string permissionsOf(const std::string& node) {
  struct stat status {};
  if (stat(node.c_str(), &status) != 0) {
    return "missing";
  }
  passwd* user = getpwuid(status.st_uid);
  group* owner = getgrgid(status.st_gid);
  std::array<char, 16> mode{};
  std::snprintf(mode.data(), mode.size(), " %04o", static_cast<unsigned>(status.st_mode & 07777));
  std::string grants = accessGrants(node);
  return (user != nullptr ? user->pw_name : std::to_string(status.st_uid)) + ":" +
         (owner != nullptr ? owner->gr_name : std::to_string(status.st_gid)) + mode.data() +
         (grants.empty() ? "" : "; " + grants);
}

bool isNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

bool holdsNode(const fs::path& process, const std::string& node) {
  for (const std::string& descriptor : namesIn(process / "fd")) {
    std::error_code error;
    if (fs::read_symlink(process / "fd" / descriptor, error) == node && !error) {
      return true;
    }
  }
  return false;
}

std::vector<Holder> holdersOf(const std::string& proc, const std::string& node) {
  std::vector<Holder> holders;
  for (const std::string& name : namesIn(proc)) {
    if (!isNumber(name) || name == std::to_string(getpid())) {
      continue;
    }
    fs::path process = fs::path(proc) / name;
    if (holdsNode(process, node)) {
      holders.push_back({std::stoll(name), firstLine(process / "comm")});
    }
  }
  return holders;
}

NodeFact nodeFact(const SystemRoots& roots, const std::string& name) {
  NodeFact fact;
  fact.path = roots.dev + "/" + name;
  fact.may_open = access(fact.path.c_str(), R_OK | W_OK) == 0;
  fact.permissions = permissionsOf(fact.path);
  fact.holders = holdersOf(roots.proc, fact.path);
  return fact;
}

// Nodes of a class whose device lies below the USB device.
std::vector<NodeFact> nodesBelow(const SystemRoots& roots, const char* device_class, const fs::path& usb_device) {
  std::vector<NodeFact> nodes;
  fs::path folder = fs::path(roots.sys) / "class" / device_class;
  std::string below = usb_device.string() + "/";
  for (const std::string& name : namesIn(folder)) {
    std::error_code error;
    fs::path real = fs::canonical(folder / name, error);
    if (error || real.string().rfind(below, 0) != 0) {
      continue;
    }
    // A camera has a second node for metadata, with the index 1.
    std::string index = firstLine(real / "index");
    if (index.empty() || index == "0") {
      nodes.push_back(nodeFact(roots, name));
    }
  }
  return nodes;
}

bool isMirn(const fs::path& device) {
  int vendor = hexNumber(firstLine(device / "idVendor"));
  int product = hexNumber(firstLine(device / "idProduct"));
  return product == g_pid && (vendor == g_vid || vendor == g_fallback_vid);
}

bool namesMirn(const fs::path& rule) {
  std::array<char, 8> product{};
  std::snprintf(product.data(), product.size(), "%04x", static_cast<unsigned>(g_pid));
  std::array<char, 8> vendor{};
  std::snprintf(vendor.data(), vendor.size(), "%04x", static_cast<unsigned>(g_vid));
  std::ifstream file(rule);
  std::string line;
  bool has_vendor = false;
  bool has_product = false;
  bool has_access = false;
  while (std::getline(file, line)) {
    size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') {
      continue;
    }
    has_vendor = has_vendor || line.find(vendor.data()) != std::string::npos;
    has_product = has_product || line.find(product.data()) != std::string::npos;
    has_access = has_access || line.find("uaccess") != std::string::npos || line.find("MODE") != std::string::npos;
  }
  return has_vendor && has_product && has_access;
}

}  // namespace

DoctorFacts readSystem(const SystemRoots& roots) {
  DoctorFacts facts;
  fs::path bus = fs::path(roots.sys) / "bus" / "usb" / "devices";
  for (const std::string& port : namesIn(bus)) {
    std::error_code error;
    fs::path device = fs::canonical(bus / port, error);
    if (error || !isMirn(device)) {
      continue;
    }
    MirnOnBus found;
    found.port = port;
    found.product = firstLine(device / "product");
    found.serial = firstLine(device / "serial");
    found.hid = nodesBelow(roots, "hidraw", device);
    found.video = nodesBelow(roots, "video4linux", device);
    facts.devices.push_back(found);
  }
  for (const std::string& folder : roots.rules) {
    for (const std::string& name : namesIn(folder)) {
      if (name.ends_with(".rules") && namesMirn(fs::path(folder) / name)) {
        facts.udev_rules.push_back(fs::path(folder) / name);
      }
    }
  }
  return facts;
}

}  // namespace mirn
