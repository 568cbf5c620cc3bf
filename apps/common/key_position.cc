#include "apps/common/key_position.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

namespace mirn {
namespace {

constexpr std::array kPositions = {
    KeyPosition{1, 27, true, "esc"},
    KeyPosition{2, '1', true, "1"},
    KeyPosition{3, '2', true, "2"},
    KeyPosition{4, '3', true, "3"},
    KeyPosition{5, '4', true, "4"},
    KeyPosition{6, '5', true, "5"},
    KeyPosition{7, '6', true, "6"},
    KeyPosition{8, '7', true, "7"},
    KeyPosition{9, '8', true, "8"},
    KeyPosition{10, '9', true, "9"},
    KeyPosition{11, '0', true, "0"},
    KeyPosition{12, 189, true, "minus"},
    KeyPosition{13, 187, true, "equal"},
    KeyPosition{14, 8, true, "backspace"},
    KeyPosition{15, 9, true, "tab"},
    KeyPosition{16, 'Q', true, "q"},
    KeyPosition{17, 'W', true, "w"},
    KeyPosition{18, 'E', true, "e"},
    KeyPosition{19, 'R', true, "r"},
    KeyPosition{20, 'T', true, "t"},
    KeyPosition{21, 'Y', true, "y"},
    KeyPosition{22, 'U', true, "u"},
    KeyPosition{23, 'I', true, "i"},
    KeyPosition{24, 'O', true, "o"},
    KeyPosition{25, 'P', true, "p"},
    KeyPosition{26, 219, true, "leftbrace"},
    KeyPosition{27, 221, true, "rightbrace"},
    KeyPosition{28, 13, true, "enter"},
    KeyPosition{29, 162, true, "leftctrl"},
    KeyPosition{30, 'A', true, "a"},
    KeyPosition{31, 'S', true, "s"},
    KeyPosition{32, 'D', true, "d"},
    KeyPosition{33, 'F', true, "f"},
    KeyPosition{34, 'G', true, "g"},
    KeyPosition{35, 'H', true, "h"},
    KeyPosition{36, 'J', true, "j"},
    KeyPosition{37, 'K', true, "k"},
    KeyPosition{38, 'L', true, "l"},
    KeyPosition{39, 186, true, "semicolon"},
    KeyPosition{40, 222, true, "apostrophe"},
    KeyPosition{41, 192, true, "grave"},
    KeyPosition{42, 160, true, "leftshift"},
    KeyPosition{43, 220, true, "backslash"},
    KeyPosition{44, 'Z', true, "z"},
    KeyPosition{45, 'X', true, "x"},
    KeyPosition{46, 'C', true, "c"},
    KeyPosition{47, 'V', true, "v"},
    KeyPosition{48, 'B', true, "b"},
    KeyPosition{49, 'N', true, "n"},
    KeyPosition{50, 'M', true, "m"},
    KeyPosition{51, 188, true, "comma"},
    KeyPosition{52, 190, true, "dot"},
    KeyPosition{53, 191, true, "slash"},
    KeyPosition{54, 161, true, "rightshift"},
    KeyPosition{55, 106, true, "kpasterisk"},
    KeyPosition{56, 164, true, "leftalt"},
    KeyPosition{57, 32, true, "space"},
    KeyPosition{58, 20, true, "capslock"},
    KeyPosition{59, 112, true, "f1"},
    KeyPosition{60, 113, true, "f2"},
    KeyPosition{61, 114, true, "f3"},
    KeyPosition{62, 115, true, "f4"},
    KeyPosition{63, 116, true, "f5"},
    KeyPosition{64, 117, true, "f6"},
    KeyPosition{65, 118, true, "f7"},
    KeyPosition{66, 119, true, "f8"},
    KeyPosition{67, 120, true, "f9"},
    KeyPosition{68, 121, true, "f10"},
    KeyPosition{69, 144, true, "numlock"},
    KeyPosition{70, 145, true, "scrolllock"},
    KeyPosition{71, 103, true, "kp7"},
    KeyPosition{72, 104, true, "kp8"},
    KeyPosition{73, 105, true, "kp9"},
    KeyPosition{74, 109, true, "kpminus"},
    KeyPosition{75, 100, true, "kp4"},
    KeyPosition{76, 101, true, "kp5"},
    KeyPosition{77, 102, true, "kp6"},
    KeyPosition{78, 107, true, "kpplus"},
    KeyPosition{79, 97, true, "kp1"},
    KeyPosition{80, 98, true, "kp2"},
    KeyPosition{81, 99, true, "kp3"},
    KeyPosition{82, 96, true, "kp0"},
    KeyPosition{83, 110, true, "kpdot"},
    KeyPosition{86, 226, false, "102nd"},
    KeyPosition{87, 122, true, "f11"},
    KeyPosition{88, 123, true, "f12"},
    // Windows gives both Enter keys one code, so the target can't tell them apart.
    KeyPosition{96, 13, true, "kpenter"},
    KeyPosition{97, 163, true, "rightctrl"},
    KeyPosition{98, 111, true, "kpslash"},
    KeyPosition{99, 44, false, "printscreen"},
    KeyPosition{100, 165, true, "rightalt"},
    KeyPosition{102, 36, true, "home"},
    KeyPosition{103, 38, true, "up"},
    KeyPosition{104, 33, true, "pageup"},
    KeyPosition{105, 37, true, "left"},
    KeyPosition{106, 39, true, "right"},
    KeyPosition{107, 35, true, "end"},
    KeyPosition{108, 40, true, "down"},
    KeyPosition{109, 34, true, "pagedown"},
    KeyPosition{110, 45, true, "insert"},
    KeyPosition{111, 46, true, "delete"},
    KeyPosition{119, 19, false, "pause"},
    KeyPosition{125, 91, true, "leftwin"},
    KeyPosition{126, 92, true, "rightwin"},
    KeyPosition{127, 93, false, "menu"},
};

struct Alias {
  const char* name;
  int virtual_key;
};

constexpr Alias kAliases[] = {
    {"escape", 27}, {"return", 13}, {"shift", 160}, {"ctrl", 162}, {"control", 162}, {"alt", 164}, {"altgr", 165},
    {"win", 91},    {"super", 91},  {"meta", 91},   {"del", 46},   {"ins", 45},      {"pgup", 33}, {"pgdn", 34},
    {"bksp", 8},    {"caps", 20},   {"-", 189},     {"=", 187},    {"[", 219},       {"]", 221},   {";", 186},
    {"'", 222},     {"`", 192},     {"\\", 220},    {",", 188},    {".", 190},       {"/", 191},   {"prtsc", 44},
};

std::string lowered(std::string_view text) {
  std::string low(text);
  std::transform(low.begin(), low.end(), low.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return low;
}

// A code of two digits or more, or hexadecimal: one digit alone is the digit's key.
std::optional<int> numberOf(std::string_view text) {
  int base = 10;
  if (text.starts_with("0x")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.size() < 2) {
    return std::nullopt;
  }
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size() || value < 1 || value > 255) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::span<const KeyPosition> keyPositions() {
  return kPositions;
}

const KeyPosition* keyByEvdev(unsigned evdev) {
  auto found = std::lower_bound(kPositions.begin(), kPositions.end(), evdev,
                                [](const KeyPosition& key, unsigned code) { return key.evdev < code; });
  return found != kPositions.end() && found->evdev == evdev ? &*found : nullptr;
}

const KeyPosition* keyByHardwareCode(unsigned hardware_code) {
  return hardware_code < kHardwareCodeOffset ? nullptr : keyByEvdev(hardware_code - kHardwareCodeOffset);
}

std::optional<int> virtualKeyByName(std::string_view name) {
  std::string low = lowered(name);
  for (const KeyPosition& key : kPositions) {
    if (low == key.name) {
      return key.virtual_key;
    }
  }
  for (const Alias& alias : kAliases) {
    if (low == alias.name) {
      return alias.virtual_key;
    }
  }
  return numberOf(low);
}

std::optional<std::vector<int>> virtualKeysOfChord(std::string_view chord, std::string* unknown) {
  std::vector<int> keys;
  size_t begin = 0;
  while (begin <= chord.size()) {
    size_t end = std::min(chord.find('+', begin), chord.size());
    std::string_view part = chord.substr(begin, end - begin);
    std::optional<int> key = virtualKeyByName(part);
    if (!key) {
      if (unknown != nullptr) {
        *unknown = std::string(part);
      }
      return std::nullopt;
    }
    keys.push_back(*key);
    begin = end + 1;
  }
  return keys;
}

bool deviceHasKey(int virtual_key) {
  return isModifierKey(virtual_key) || std::any_of(kPositions.begin(), kPositions.end(), [&](const KeyPosition& key) {
           return key.on_device && key.virtual_key == virtual_key;
         });
}

bool isModifierKey(int virtual_key) {
  return (virtual_key >= 16 && virtual_key <= 18) || virtual_key == 91 || virtual_key == 92 ||
         (virtual_key >= 160 && virtual_key <= 165);
}

}  // namespace mirn
