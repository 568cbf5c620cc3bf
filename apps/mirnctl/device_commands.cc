// devices, info, set-name, led.
#include <memory>

#include "apps/common/utf8.h"
#include "apps/mirnctl/commands.h"
#include "apps/mirnctl/doctor_facts.h"

namespace mirn {
namespace {

Json nodeNames(const std::vector<NodeFact>& nodes) {
  Json names = Json::array();
  for (const NodeFact& node : nodes) {
    names.push_back(node.path);
  }
  return names;
}

int runDevices(Context& context) {
  DoctorFacts facts = context.world() != nullptr ? virtualDoctorFacts(*context.world()) : systemDoctorFacts();
  std::vector<std::string> cameras = context.session().captureNames();
  Json mirns = Json::array();
  std::string text;
  for (const MirnOnBus& device : facts.devices) {
    mirns.push_back({{"port", device.port},
                     {"product", printable(device.product)},
                     {"serial", printable(device.serial)},
                     {"keyboard", nodeNames(device.hid)},
                     {"camera", nodeNames(device.video)}});
    text += "Mirn at port " + device.port + ", serial " + printable(device.serial) + "\n";
    for (const NodeFact& node : device.hid) {
      text += "  keyboard  " + node.path + "\n";
    }
    for (const NodeFact& node : device.video) {
      text += "  camera    " + node.path + "\n";
    }
  }
  if (facts.devices.empty()) {
    text += "No Mirn is plugged in.\n";
  }
  Json names = Json::array();
  for (const std::string& camera : cameras) {
    names.push_back(printable(camera));
    text += "Capture device: " + printable(camera) + "\n";
  }
  return context.report().success(text, {{"devices", mirns}, {"capture_devices", names}});
}

int runInfo(Context& context) {
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  std::optional<DeviceInfo> info = context.session().info();
  if (!info) {
    return context.report().failure(kExitDevice, "The Mirn doesn't answer.");
  }
  int led = context.session().led();
  std::string port = hostHidTopologyPath();
  std::string text = "name     " + printable(info->name) + "\nid       " + printable(info->id) + "\nflag     " +
                     (info->flag ? "1" : "0") + "\nversion  " + printable(info->version) + "\nled      " +
                     (led < 0 ? "unknown" : std::to_string(led)) + "\nport     " + port + "\n";
  return context.report().success(text, {{"name", printable(info->name)},
                                         {"id", printable(info->id)},
                                         {"flag", info->flag},
                                         {"version", printable(info->version)},
                                         {"led", led < 0 ? Json(nullptr) : Json(led)},
                                         {"port", port}});
}

int runSetName(Context& context, const std::string& name) {
  NameCheck check = checkDeviceName(name);
  if (!check.ok) {
    return context.report().failure(kExitUsage, check.reason, {{"bytes", check.bytes}});
  }
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  // The command's reply is 0 whatever the device said: only reading back tells.
  context.session().setName(name);
  std::optional<DeviceInfo> info = context.session().info();
  if (!info || info->name != name) {
    return context.report().failure(kExitDevice, "The Mirn did not take the name.");
  }
  return context.report().success("name     " + name + "\n", {{"name", name}, {"bytes", check.bytes}});
}

int runLedGet(Context& context) {
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  int status = context.session().led();
  if (status < 0) {
    return context.report().failure(kExitDevice, "The Mirn doesn't say its LED status.");
  }
  return context.report().success("led      " + std::to_string(status) + "\n", {{"led", status}});
}

int runLedSet(Context& context, int wanted) {
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  context.session().setLed(wanted);
  int status = context.session().led();
  if (status != wanted) {
    return context.report().failure(kExitDevice, "The Mirn did not take the LED status.");
  }
  return context.report().success("led      " + std::to_string(status) + "\n", {{"led", status}});
}

}  // namespace

void addDevicesCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("devices", "List the Mirns on the USB bus and all capture devices");
  command->callback([&chosen] { chosen = &runDevices; });
}

void addInfoCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("info", "Show the device's name, id, flag, firmware version and LED");
  command->callback([&chosen] { chosen = &runInfo; });
}

void addSetNameCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("set-name", "Give the device a name (at most 20 bytes of UTF-8)");
  auto name = std::make_shared<std::string>();
  command->add_option("NAME", *name, "The new name")->required();
  command->callback([&chosen, name] { chosen = [name](Context& context) { return runSetName(context, *name); }; });
}

void addLedCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* led = app.add_subcommand("led", "Read or set the LED");
  led->require_subcommand(1);
  led->add_subcommand("get", "Show the LED's status")->callback([&chosen] { chosen = &runLedGet; });
  CLI::App* set = led->add_subcommand("set", "Set the LED's status");
  auto status = std::make_shared<int>(0);
  set->add_option("STATUS", *status, "0..255")->required()->check(CLI::Range(0, 255));
  set->callback([&chosen, status] { chosen = [status](Context& context) { return runLedSet(context, *status); }; });
}

}  // namespace mirn
