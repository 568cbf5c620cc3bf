#include "apps/mirn-virtual/fleet.h"

#include <cctype>
#include <charconv>

#include "virtual/usb/frame_source.h"

namespace mirn {

namespace {

constexpr char kCommands[] = "unplug [N], replug [N], faults [N] PLAN, hold [N], release [N], status, help, quit";

std::string_view takeWord(std::string_view* text) {
  const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text->empty() && blank(text->front())) text->remove_prefix(1);
  size_t length = 0;
  while (length < text->size() && !blank((*text)[length])) ++length;
  const std::string_view word = text->substr(0, length);
  text->remove_prefix(length);
  while (!text->empty() && blank(text->front())) text->remove_prefix(1);
  return word;
}

VirtualMirnSettings settingsOf(const VirtualOptions& options, int index) {
  VirtualMirnSettings settings;
  if (!options.name.empty()) settings.name = options.name;
  if (!options.version.empty()) settings.version = options.version;
  const std::string suffix = index == 0 ? "" : "-" + std::to_string(index + 1);
  settings.serial = (options.serial.empty() ? settings.id_text : options.serial) + suffix;
  return settings;
}

}  // namespace

VirtualExit exitStatusOf(VhciError error) {
  switch (error) {
    case VhciError::kNone:
      return VirtualExit::kEnded;
    case VhciError::kNoModule:
      return VirtualExit::kNoModule;
    case VhciError::kNotAllowed:
      return VirtualExit::kNotAllowed;
    case VhciError::kNoSuchPort:
    case VhciError::kPortTaken:
    case VhciError::kNoFreePort:
      return VirtualExit::kPort;
    case VhciError::kFailed:
      break;
  }
  return VirtualExit::kFailed;
}

VirtualFleet::VirtualFleet(const VirtualOptions& options, const std::function<void()>& on_end) {
  for (int i = 0; i < options.devices; ++i) {
    Device device;
    device.mirn = std::make_shared<VirtualMirn>(settingsOf(options, i));
    device.mirn->setFaultPlan(options.faults);
    std::shared_ptr<FrameSource> frames;
    if (options.picture == VirtualPicture::kTarget) {
      device.target = std::make_shared<VirtualTarget>();
      device.binding = std::make_unique<VirtualBinding>(device.mirn, device.target);
      frames = std::make_shared<TargetFrames>(device.target);
    } else {
      frames = std::make_shared<TestPattern>();
    }
    UsbPlug::Settings settings;
    settings.shape = options.shape;
    if (options.first_port) settings.port = *options.first_port + i;
    device.plug = std::make_unique<UsbPlug>(settings, device.mirn, frames);
    device.plug->setEndListener([on_end](UsbIpEnd) { on_end(); });
    devices_.push_back(std::move(device));
  }
}

VhciError VirtualFleet::plug(Device& device, std::string* detail) {
  const VhciError error = device.plug->plug(detail);
  device.wanted = error == VhciError::kNone;
  return error;
}

VhciError VirtualFleet::plugAll(std::string* detail) {
  for (Device& device : devices_) {
    if (const VhciError error = plug(device, detail); error != VhciError::kNone) return error;
  }
  return VhciError::kNone;
}

void VirtualFleet::unplugAll() {
  for (Device& device : devices_) {
    device.plug->unplug();
    device.wanted = false;
  }
}

std::vector<VirtualFleet::Device*> VirtualFleet::chosen(std::string_view* arguments) {
  std::vector<Device*> all;
  for (Device& device : devices_) all.push_back(&device);
  if (arguments->empty() || std::isdigit(static_cast<unsigned char>(arguments->front())) == 0) return all;
  const std::string_view word = takeWord(arguments);
  size_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size() || number < 1 || number > all.size()) return {};
  return {all[number - 1]};
}

std::string VirtualFleet::command(std::string_view line, bool* quit) {
  const std::string verb(takeWord(&line));
  if (verb == "quit") {
    *quit = true;
    return "ok";
  }
  if (verb == "status") return status();
  if (verb == "help") return kCommands;
  const std::vector<Device*> devices = chosen(&line);
  if (devices.empty()) return "error: there is no such device";
  if (verb == "faults") return faults(devices, line);
  if (!line.empty()) return "error: unexpected \"" + std::string(line) + "\"";
  for (Device* device : devices) {
    std::string detail;
    if (verb == "unplug") {
      device->plug->unplug();
      device->wanted = false;
    } else if (verb == "replug") {
      if (plug(*device, &detail) != VhciError::kNone) return "error: " + detail;
    } else if (verb == "hold" || verb == "release") {
      device->plug->holdOutput(verb == "hold");
    } else {
      return std::string("error: the commands are ") + kCommands;
    }
  }
  return "ok";
}

std::string VirtualFleet::faults(const std::vector<Device*>& devices, std::string_view plan) {
  FaultPlan parsed;
  std::string error;
  if (!FaultPlan::parse(plan, &parsed, &error)) return "error: " + error;
  for (Device* device : devices) device->mirn->setFaultPlan(parsed);
  return "ok";
}

std::vector<std::string> VirtualFleet::cleanUp() {
  std::vector<std::string> lines;
  for (size_t i = 0; i < devices_.size(); ++i) {
    Device& device = devices_[i];
    if (!device.wanted || device.plug->plugged()) continue;
    device.wanted = false;
    device.plug->unplug();
    lines.push_back("device " + std::to_string(i + 1) + ": left the bus");
  }
  return lines;
}

std::string VirtualFleet::status() const {
  std::string text;
  for (size_t i = 0; i < devices_.size(); ++i) {
    const Device& device = devices_[i];
    if (!text.empty()) text += "\n";
    text += "device " + std::to_string(i + 1) + ": ";
    const bool plugged = device.plug->plugged() && device.plug->port().has_value();
    text += plugged ? "plugged, port " + std::to_string(*device.plug->port()) : "unplugged";
    const VirtualMirnCounters counters = device.mirn->counters();
    text += ", " + std::to_string(counters.writes) + " writes, " + std::to_string(counters.answers) + " answers, " +
            std::to_string(counters.bad_frames) + " bad frames, firmware " + device.mirn->version();
  }
  return text;
}

}  // namespace mirn
