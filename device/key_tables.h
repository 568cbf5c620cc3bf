// What a Windows virtual-key code, and a character of a US layout, is on a HID keyboard (HID Usage Tables, page 0x07).
// All of it is data of the device's product definition: odd entries are meant.
#pragma once

#include <array>
#include <cstdint>

namespace mirn {

// Modifier bits of the HID boot-keyboard report.
inline constexpr uint8_t kLeftCtrl = 0x01;
inline constexpr uint8_t kLeftShift = 0x02;
inline constexpr uint8_t kLeftAlt = 0x04;
inline constexpr uint8_t kLeftGui = 0x08;
inline constexpr uint8_t kRightCtrl = 0x10;
inline constexpr uint8_t kRightShift = 0x20;
inline constexpr uint8_t kRightAlt = 0x40;
inline constexpr uint8_t kRightGui = 0x80;

struct ModifierKey {
  int code;  // the whole virtual-key code, not its low 8 bits
  uint8_t bit;
};

inline constexpr std::array<ModifierKey, 11> kModifierKeys{{
    {0x10, kLeftShift},   // Shift, either: folds onto the left one
    {0x11, kLeftCtrl},    // Ctrl, either
    {0x12, kLeftAlt},     // Alt, either
    {0x5B, kLeftGui},     //
    {0x5C, kRightGui},    //
    {0xA0, kLeftShift},   //
    {0xA1, kRightShift},  //
    {0xA2, kLeftCtrl},    //
    {0xA3, kRightCtrl},   //
    {0xA4, kLeftAlt},     //
    {0xA5, kRightAlt},    //
}};

struct KeyUsage {
  uint8_t code;
  uint8_t usage;
};

// clang-format off
inline constexpr std::array<KeyUsage, 97> kKeyUsages{{
    // Letters
    {'A', 0x04}, {'B', 0x05}, {'C', 0x06}, {'D', 0x07}, {'E', 0x08}, {'F', 0x09}, {'G', 0x0A}, {'H', 0x0B},
    {'I', 0x0C}, {'J', 0x0D}, {'K', 0x0E}, {'L', 0x0F}, {'M', 0x10}, {'N', 0x11}, {'O', 0x12}, {'P', 0x13},
    {'Q', 0x14}, {'R', 0x15}, {'S', 0x16}, {'T', 0x17}, {'U', 0x18}, {'V', 0x19}, {'W', 0x1A}, {'X', 0x1B},
    {'Y', 0x1C}, {'Z', 0x1D},
    // Digits
    {'1', 0x1E}, {'2', 0x1F}, {'3', 0x20}, {'4', 0x21}, {'5', 0x22}, {'6', 0x23}, {'7', 0x24}, {'8', 0x25},
    {'9', 0x26}, {'0', 0x27},
    // F1..F12
    {112, 0x3A}, {113, 0x3B}, {114, 0x3C}, {115, 0x3D}, {116, 0x3E}, {117, 0x3F}, {118, 0x40}, {119, 0x41},
    {120, 0x42}, {121, 0x43}, {122, 0x44}, {123, 0x45},
    // Keypad 1..9, 0, then * + - . /
    {97, 0x59}, {98, 0x5A}, {99, 0x5B}, {100, 0x5C}, {101, 0x5D}, {102, 0x5E}, {103, 0x5F}, {104, 0x60},
    {105, 0x61}, {96, 0x62},
    {106, 0x55}, {107, 0x57}, {109, 0x56}, {110, 0x63}, {111, 0x54},
    // Backspace, Tab, Enter, Caps Lock, Escape, Space
    {8, 0x2A}, {9, 0x2B}, {13, 0x28}, {20, 0x39}, {27, 0x29}, {32, 0x2C},
    // Page Up, Page Down, End, Home, Left, Up, Right, Down, Insert, Delete
    {33, 0x4B}, {34, 0x4E}, {35, 0x4D}, {36, 0x4A}, {37, 0x50}, {38, 0x52}, {39, 0x4F}, {40, 0x51}, {45, 0x49},
    {46, 0x4C},
    // Num Lock, Scroll Lock
    {144, 0x53}, {145, 0x47},
    // ; = , - . / ` [ \ ] '
    {186, 0x33}, {187, 0x2E}, {188, 0x36}, {189, 0x2D}, {190, 0x37}, {191, 0x38}, {192, 0x35}, {219, 0x2F},
    {220, 0x31}, {221, 0x30}, {222, 0x34},
    // Shift, Ctrl, Alt, left Alt, right Alt: in the map with these values on purpose. The modifier rule takes these
    // codes first, so only a code that has them as its low 8 bits (272 = 0x110) ever gets here.
    {16, 0x04}, {17, 0x04}, {18, 0x04}, {164, 0x04}, {165, 0x40},
}};

struct TypedCharacter {
  char character;
  uint8_t usage;
  bool shifted;
};

// What TypeString types: upper case, space and punctuation. Lower case and digits are left out on purpose.
inline constexpr std::array<TypedCharacter, 59> kTypedCharacters{{
    {'A', 0x04, true}, {'B', 0x05, true}, {'C', 0x06, true}, {'D', 0x07, true}, {'E', 0x08, true},
    {'F', 0x09, true}, {'G', 0x0A, true}, {'H', 0x0B, true}, {'I', 0x0C, true}, {'J', 0x0D, true},
    {'K', 0x0E, true}, {'L', 0x0F, true}, {'M', 0x10, true}, {'N', 0x11, true}, {'O', 0x12, true},
    {'P', 0x13, true}, {'Q', 0x14, true}, {'R', 0x15, true}, {'S', 0x16, true}, {'T', 0x17, true},
    {'U', 0x18, true}, {'V', 0x19, true}, {'W', 0x1A, true}, {'X', 0x1B, true}, {'Y', 0x1C, true},
    {'Z', 0x1D, true},
    {' ', 0x2C, false},
    {'!', 0x1E, true}, {'"', 0x34, true}, {'#', 0x20, true}, {'$', 0x21, true}, {'%', 0x22, true},
    {'&', 0x24, true}, {'\'', 0x34, false}, {'(', 0x26, true}, {')', 0x27, true}, {'*', 0x25, true},
    {'+', 0x2E, true}, {',', 0x36, false}, {'-', 0x2D, false}, {'.', 0x37, false}, {'/', 0x38, false},
    {':', 0x33, true}, {';', 0x33, false}, {'<', 0x36, true}, {'=', 0x2E, false}, {'>', 0x37, true},
    {'?', 0x38, true}, {'@', 0x1F, true}, {'[', 0x2F, false}, {'\\', 0x31, false}, {']', 0x30, false},
    {'^', 0x23, true}, {'_', 0x2D, true}, {'`', 0x35, false}, {'{', 0x2F, true}, {'|', 0x31, true},
    {'}', 0x30, true}, {'~', 0x35, true},
}};
// clang-format on

// The bit of a modifier code, or 0 for every other key.
constexpr uint8_t modifierBit(int key) {
  for (const ModifierKey& modifier : kModifierKeys) {
    if (modifier.code == key) return modifier.bit;
  }
  return 0;
}

}  // namespace mirn
