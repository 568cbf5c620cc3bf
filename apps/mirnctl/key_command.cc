#include <algorithm>
#include <memory>

#include "apps/common/chords.h"
#include "apps/common/key_position.h"
#include "apps/mirnctl/answer_wait.h"
#include "apps/mirnctl/commands.h"

namespace mirn {
namespace {

// The device holds six keys beside the modifiers.
constexpr size_t kKeySlots = 6;

std::string keyName(int virtual_key) {
  for (const KeyPosition& key : keyPositions()) {
    if (key.virtual_key == virtual_key) {
      return key.name;
    }
  }
  return std::to_string(virtual_key);
}

std::string faultOf(const std::string& chord) {
  std::string unknown;
  auto keys = virtualKeysOfChord(chord, &unknown);
  if (!keys) {
    return "Unknown key \"" + printable(unknown) + "\" in \"" + printable(chord) +
           "\"; \"mirnctl key --list\" shows all names.";
  }
  for (auto key = keys->begin(); key != keys->end(); ++key) {
    if (!deviceHasKey(*key)) {
      return "The device has no such key: " + keyName(*key) + ".";
    }
    // A key that is held already can't be pressed; the two Enter keys are one to the device.
    if (std::find(keys->begin(), key, *key) != key) {
      return "\"" + printable(chord) + "\" holds one key twice.";
    }
  }
  auto plain =
      static_cast<size_t>(std::count_if(keys->begin(), keys->end(), [](int key) { return !isModifierKey(key); }));
  return plain > kKeySlots ? "\"" + printable(chord) + "\" holds more than six keys at once; the device can't." : "";
}

int runKey(Context& context, const std::vector<std::string>& chords) {
  for (const std::string& chord : chords) {
    std::string fault = faultOf(chord);
    if (!fault.empty()) {
      return context.report().failure(kExitUsage, fault);
    }
  }
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  AnsweredInput input(context.session());
  for (const std::string& chord : chords) {
    playChord(input, chord);
  }
  if (!input.wait()) {
    return input.failure(context.report(), "The Mirn refused a key or didn't answer.");
  }
  std::string text = "pressed";
  for (const std::string& chord : chords) {
    text += " " + chord;
  }
  return context.report().success(text + "\n", {{"pressed", chords}});
}

int runList(Context& context) {
  Json keys = Json::array();
  std::string text;
  for (const KeyPosition& key : keyPositions()) {
    keys.push_back({{"name", key.name}, {"code", key.virtual_key}, {"on_device", key.on_device}});
    text += std::string(key.name) + std::string(14 - std::string(key.name).size(), ' ') +
            std::to_string(key.virtual_key) + (key.on_device ? "" : "  (the device has no such key)") + "\n";
  }
  return context.report().success(text, {{"keys", keys}});
}

}  // namespace

void addKeyCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("key", "Press keys or chords, e.g. \"ctrl+alt+del\", \"enter\", \"0x41\"");
  auto chords = std::make_shared<std::vector<std::string>>();
  auto list = std::make_shared<bool>(false);
  command->add_option("KEY", *chords, "Key names joined by +, pressed in this order and released in reverse");
  command->add_flag("--list", *list, "Show all key names and their Windows codes");
  command->callback([&chosen, chords, list] {
    if (!*list && chords->empty()) {
      throw CLI::RequiredError("KEY");
    }
    chosen = [chords, list](Context& context) { return *list ? runList(context) : runKey(context, *chords); };
  });
}

}  // namespace mirn
