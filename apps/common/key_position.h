// The keys of a full-size keyboard by position: Linux input code (evdev) -> Windows virtual-key code.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

struct KeyPosition {
  uint16_t evdev;       // code of linux/input-event-codes.h
  uint8_t virtual_key;  // Windows virtual-key code
  bool on_device;       // false: the Mirn has no key for it (Print Screen, Pause, Menu, the extra ISO key)
  const char* name;     // what `mirnctl key` calls it
};

// All positions, in rising evdev order.
std::span<const KeyPosition> keyPositions();

const KeyPosition* keyByEvdev(unsigned evdev);

// X11 and Wayland number keys 8 higher than evdev does.
constexpr unsigned kHardwareCodeOffset = 8;
const KeyPosition* keyByHardwareCode(unsigned hardware_code);

// A name of the table or an alias ("ctrl", "del", "win", ...), a letter, a digit, or a number ("65", "0x41").
std::optional<int> virtualKeyByName(std::string_view name);

// "ctrl+alt+del" -> its codes in the order of pressing; nothing when one part is unknown, which `unknown` then holds.
std::optional<std::vector<int>> virtualKeysOfChord(std::string_view chord, std::string* unknown);

// The device has a key for this code. It knows Shift, Ctrl and Alt in their generic codes, too.
bool deviceHasKey(int virtual_key);

// Shift, Ctrl, Alt and the Windows keys, in their generic and their left and right codes.
bool isModifierKey(int virtual_key);

}  // namespace mirn
