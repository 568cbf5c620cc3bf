#include "apps/common/virtual_world.h"

#include <limits>
#include <sstream>

#include "plugin/mirn_host.h"

namespace mirn {
namespace {

VirtualMirnSettings mirnSettings(const VirtualOptions& options) {
  VirtualMirnSettings settings;
  settings.version = options.version;
  settings.version_after_replug = options.version_after_replug;
  return settings;
}

bool names(const std::string& list, const std::string& word) {
  return ("," + list + ",").find("," + word + ",") != std::string::npos;
}

bool understood(const std::string& lacks) {
  std::istringstream words(lacks);
  for (std::string word; std::getline(words, word, ',');) {
    if (!names("720P,1080P,best,normal", word)) {
      return false;
    }
  }
  return true;
}

std::vector<CaptureFormat> formatsWithout(const std::string& lacks, uint32_t rate) {
  std::vector<CaptureFormat> formats;
  for (bool small : {false, true}) {
    for (FourCharCode code : {kCaptureYuyv, kCaptureNv12, kCaptureMjpg}) {
      if (!names(lacks, small ? "720P" : "1080P") && !names(lacks, code == kCaptureYuyv ? "best" : "normal")) {
        formats.push_back({code, small ? 1280 : 1920, small ? 720 : 1080, captureMediaSubtype(code), {1, rate}});
      }
    }
  }
  return formats;
}

VirtualCaptureSettings cameraSettings(const VirtualOptions& options) {
  VirtualCaptureSettings settings;
  settings.busy = options.busy;
  settings.denied = options.denied;
  settings.frames_per_second = options.frames_per_second;
  if (!options.lacks.empty()) {
    settings.formats = formatsWithout(options.lacks, options.frames_per_second);
  }
  return settings;
}

std::vector<VideoFault> neverAPicture() {
  VideoFault lost;
  lost.kind = VideoFaultKind::kLose;
  lost.first = 1;
  lost.last = std::numeric_limits<uint64_t>::max();
  return {lost};
}

}  // namespace

VirtualWorld::VirtualWorld(const VirtualOptions& options)
    : options_(options),
      setup_(options.mismatch && options.devices < 2 ? 2 : options.devices, mirnSettings(options),
             cameraSettings(options)) {}

VirtualWorld* VirtualWorld::create(const VirtualOptions& options, std::string* error) {
  FaultPlan plan;
  if (!FaultPlan::parse(options.faults, &plan, error)) {
    return nullptr;
  }
  std::vector<VideoFault> video;
  if (!parseVideoFaults(options.video_faults, &video, error)) {
    return nullptr;
  }
  if (!understood(options.lacks) || formatsWithout(options.lacks, options.frames_per_second).empty()) {
    *error = "\"" + options.lacks + "\": a camera can lack some of 720P, 1080P, best and normal, with commas between.";
    return nullptr;
  }
  static VirtualWorld* world = nullptr;
  if (world != nullptr) {
    *error = "There is a virtual device already.";
    return nullptr;
  }
  world = new VirtualWorld(options);
  world->mirn().setFaultPlan(plan);
  world->setup_.camera().setFaults(options.no_signal ? neverAPicture() : video);
  for (size_t index = 0; index < world->setup_.size(); ++index) {
    world->target(index).setStill(options.still);
    world->follow(index);
    world->mirn(index).plug();
  }
  if (!world->install(error)) {
    return nullptr;
  }
  if (options.unplugged) {
    for (size_t index = 0; index < world->setup_.size(); ++index) {
      world->unplug(index);
    }
  }
  if (options.mismatch) {
    // The first device's camera is away, as when only its HID half enumerated: the second one's is opened instead.
    world->setup_.camera(0).unplug();
  }
  return world;
}

void VirtualWorld::follow(size_t index) {
  VirtualMirn& device = setup_.mirn(index);
  VirtualCaptureDevice& camera = setup_.camera(index);
  VirtualUsbRegistry::Identity identity{device.vendorId(), device.productId()};
  // Plugging is one event for the whole stick, also when a fault plan pulls it in the middle of an exchange.
  device.addListener([this, index, identity, &camera](const VirtualMirnEvent& event) {
    if (event.kind == VirtualMirnEvent::Kind::kPlugged) {
      registry_.arrived(index, identity);
    } else if (event.kind == VirtualMirnEvent::Kind::kUnplugged) {
      camera.unplug();
      registry_.gone(index);
    }
  });
  if (device.plugged()) {
    registry_.arrived(index, identity);
  }
}

bool VirtualWorld::install(std::string* error) {
  setup_.install();
  setup_.hid().setDenied(options_.hid_denied);
  if (!hostInstallHidFunctions(&VirtualHid::functions()) || !hostInstallCaptureSystem(&setup_.capture()) ||
      !hostInstallUsbRegistry(&registry_)) {
    if (error != nullptr) {
      *error = "The virtual device can't be installed while the library is in use.";
    }
    return false;
  }
  return true;
}

void VirtualWorld::unplug(size_t index) {
  setup_.unplug(index);
}

void VirtualWorld::replug(size_t index) {
  setup_.replug(index);
}

void VirtualWorld::setSignal(bool there, size_t index) {
  setup_.camera(index).setFaults(there ? std::vector<VideoFault>() : neverAPicture());
}

}  // namespace mirn
