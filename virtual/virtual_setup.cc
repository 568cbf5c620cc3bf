#include "virtual/virtual_setup.h"

#include <string>
#include <utility>

#include "platform/capture.h"
#include "platform/hid_functions.h"

namespace mirn {
namespace {

// The n-th device, counted from 1, where the first has these settings.
std::string numbered(std::string first, size_t number) {
  while (!first.empty() && first.back() >= '0' && first.back() <= '9') {
    first.pop_back();
  }
  return first + std::to_string(number);
}

void show(const VirtualMirnEvent& event, VirtualTarget& target) {
  const VirtualInputState& input = event.input;
  switch (event.kind) {
    case VirtualMirnEvent::Kind::kKeyboard:
      target.keyboard(input.modifiers, input.keys);
      break;
    case VirtualMirnEvent::Kind::kPointer:
      // The device's own position, also after a relative move: both ends agree to the last count.
      target.pointerAbsolute(input.x, input.y, input.buttons, event.wheel);
      break;
    case VirtualMirnEvent::Kind::kLed:
      target.led(event.led.status, event.led.param);
      break;
    case VirtualMirnEvent::Kind::kFirmware:
      target.firmware(event.version);
      break;
    case VirtualMirnEvent::Kind::kPlugged:
    case VirtualMirnEvent::Kind::kUnplugged:
      target.keyboard(input.modifiers, input.keys);
      target.pointerAbsolute(input.x, input.y, input.buttons, 0);
      break;
    case VirtualMirnEvent::Kind::kName:
      break;
  }
}

}  // namespace

VirtualBinding::VirtualBinding(std::shared_ptr<VirtualMirn> mirn, const std::shared_ptr<VirtualTarget>& target)
    : mirn_(std::move(mirn)),
      listener_(mirn_->addListener([target](const VirtualMirnEvent& event) { show(event, *target); })) {
  target->firmware(mirn_->version());
  const VirtualLed led = mirn_->led();
  target->led(led.status, led.param);
}

VirtualBinding::~VirtualBinding() {
  mirn_->removeListener(listener_);
}

uint32_t expectedDigest(const VirtualMirn& mirn, bool caps_lock) {
  const VirtualInputState input = mirn.input();
  const VirtualLed led = mirn.led();
  TargetInputState state;
  state.modifiers = input.modifiers;
  state.keys = input.keys;
  state.caps_lock = caps_lock;
  state.pointer_x = input.x;
  state.pointer_y = input.y;
  state.buttons = input.buttons;
  state.wheel = static_cast<int32_t>(input.wheel);
  state.led_status = led.status;
  state.led_param = led.param;
  return state.digest();
}

VirtualSetup::VirtualSetup(size_t devices, VirtualMirnSettings mirn, VirtualCaptureSettings camera) {
  camera.topology = mirn.topology;
  for (size_t number = 1; number <= devices; ++number) {
    if (number > 1) {
      mirn.topology = numbered(mirn.topology, number);
      mirn.id_text = numbered(mirn.id_text, number);
      camera.topology = mirn.topology;
      camera.serial = numbered(camera.serial, number);
    }
    Unit unit;
    unit.mirn = std::make_shared<VirtualMirn>(mirn);
    unit.target = std::make_shared<VirtualTarget>();
    unit.binding = std::make_unique<VirtualBinding>(unit.mirn, unit.target);
    unit.camera = capture_.add(unit.target, camera);
    units_.push_back(std::move(unit));
  }
}

VirtualSetup::~VirtualSetup() {
  uninstall();
}

void VirtualSetup::install() {
  if (std::exchange(installed_, true)) {
    return;
  }
  for (const Unit& unit : units_) {
    VirtualHid::instance().add(unit.mirn);
  }
  setHidFunctions(&VirtualHid::functions());
  setCaptureSystem(&capture_);
}

void VirtualSetup::uninstall() {
  if (!std::exchange(installed_, false)) {
    return;
  }
  setCaptureSystem(nullptr);
  setHidFunctions(nullptr);
  for (const Unit& unit : units_) {
    VirtualHid::instance().remove(unit.mirn);
  }
}

void VirtualSetup::unplug(size_t index) {
  mirn(index).unplug();
  camera(index).unplug();
}

void VirtualSetup::replug(size_t index) {
  mirn(index).plug();
  camera(index).replug();
}

}  // namespace mirn
