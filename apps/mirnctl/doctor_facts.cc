#include "apps/mirnctl/doctor_facts.h"

#include "apps/common/virtual_world.h"
#include "platform/capture.h"

namespace mirn {
namespace {

std::vector<PictureFormat> formatsOf(CaptureDevice& camera) {
  std::vector<PictureFormat> formats;
  for (const CaptureFormatRef& format : camera.formats()) {
    formats.push_back({format->width, format->height, fourCharText(format->mediaSubtype),
                       fourCharText(format->pixelFormat), format->interval.framesPerSecond()});
  }
  return formats;
}

// "/sys/devices/.../1-4" and "1-4" are one place.
std::string placeOf(const std::string& topology) {
  size_t slash = topology.rfind('/');
  return slash == std::string::npos ? topology : topology.substr(slash + 1);
}

}  // namespace

DoctorFacts systemDoctorFacts() {
  DoctorFacts facts = readSystem({});
  for (const std::shared_ptr<CaptureDevice>& camera : defaultCaptureSystem().devices()) {
    for (MirnOnBus& device : facts.devices) {
      if (placeOf(camera->topologyPath()) == device.port) {
        device.formats = formatsOf(*camera);
      }
    }
  }
  return facts;
}

DoctorFacts virtualDoctorFacts(VirtualWorld& world) {
  DoctorFacts facts;
  facts.is_virtual = true;
  for (size_t index = 0; index < world.setup().size(); ++index) {
    VirtualMirn& mirn = world.mirn(index);
    if (!mirn.plugged()) {
      continue;
    }
    MirnOnBus device;
    device.port = mirn.topology();
    device.product = "Nuvra Mirn";
    device.serial = mirn.serial();
    device.hid.push_back({"virtual-hid:" + mirn.topology(), !world.options().hid_denied, "virtual", {}});
    VirtualCaptureDevice& camera = world.setup().camera(index);
    if (camera.isConnected()) {
      const VirtualOptions& options = world.options();
      NodeFact node{camera.nodeName(), !options.denied, "virtual", {}};
      if (options.busy) {
        node.holders.push_back({1, "another program"});
      }
      device.video.push_back(node);
      device.formats = formatsOf(camera);
    }
    facts.devices.push_back(device);
  }
  return facts;
}

}  // namespace mirn
