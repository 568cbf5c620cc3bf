#include "apps/common/key_position.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <iterator>
#include <set>

namespace mirn {
namespace {

using testing::ElementsAre;

struct Expected {
  unsigned evdev;
  int virtual_key;
};

// Every key of a full-size ISO keyboard, row by row as it stands on the board.
constexpr Expected kBoard[] = {
    {KEY_ESC, 0x1B},        {KEY_F1, 0x70},        {KEY_F2, 0x71},         {KEY_F3, 0x72},
    {KEY_F4, 0x73},         {KEY_F5, 0x74},        {KEY_F6, 0x75},         {KEY_F7, 0x76},
    {KEY_F8, 0x77},         {KEY_F9, 0x78},        {KEY_F10, 0x79},        {KEY_F11, 0x7A},
    {KEY_F12, 0x7B},        {KEY_SYSRQ, 0x2C},     {KEY_SCROLLLOCK, 0x91}, {KEY_PAUSE, 0x13},

    {KEY_GRAVE, 0xC0},      {KEY_1, '1'},          {KEY_2, '2'},           {KEY_3, '3'},
    {KEY_4, '4'},           {KEY_5, '5'},          {KEY_6, '6'},           {KEY_7, '7'},
    {KEY_8, '8'},           {KEY_9, '9'},          {KEY_0, '0'},           {KEY_MINUS, 0xBD},
    {KEY_EQUAL, 0xBB},      {KEY_BACKSPACE, 0x08}, {KEY_INSERT, 0x2D},     {KEY_HOME, 0x24},
    {KEY_PAGEUP, 0x21},     {KEY_NUMLOCK, 0x90},   {KEY_KPSLASH, 0x6F},    {KEY_KPASTERISK, 0x6A},
    {KEY_KPMINUS, 0x6D},

    {KEY_TAB, 0x09},        {KEY_Q, 'Q'},          {KEY_W, 'W'},           {KEY_E, 'E'},
    {KEY_R, 'R'},           {KEY_T, 'T'},          {KEY_Y, 'Y'},           {KEY_U, 'U'},
    {KEY_I, 'I'},           {KEY_O, 'O'},          {KEY_P, 'P'},           {KEY_LEFTBRACE, 0xDB},
    {KEY_RIGHTBRACE, 0xDD}, {KEY_DELETE, 0x2E},    {KEY_END, 0x23},        {KEY_PAGEDOWN, 0x22},
    {KEY_KP7, 0x67},        {KEY_KP8, 0x68},       {KEY_KP9, 0x69},        {KEY_KPPLUS, 0x6B},

    {KEY_CAPSLOCK, 0x14},   {KEY_A, 'A'},          {KEY_S, 'S'},           {KEY_D, 'D'},
    {KEY_F, 'F'},           {KEY_G, 'G'},          {KEY_H, 'H'},           {KEY_J, 'J'},
    {KEY_K, 'K'},           {KEY_L, 'L'},          {KEY_SEMICOLON, 0xBA},  {KEY_APOSTROPHE, 0xDE},
    {KEY_BACKSLASH, 0xDC},  {KEY_ENTER, 0x0D},     {KEY_KP4, 0x64},        {KEY_KP5, 0x65},
    {KEY_KP6, 0x66},

    {KEY_LEFTSHIFT, 0xA0},  {KEY_102ND, 0xE2},     {KEY_Z, 'Z'},           {KEY_X, 'X'},
    {KEY_C, 'C'},           {KEY_V, 'V'},          {KEY_B, 'B'},           {KEY_N, 'N'},
    {KEY_M, 'M'},           {KEY_COMMA, 0xBC},     {KEY_DOT, 0xBE},        {KEY_SLASH, 0xBF},
    {KEY_RIGHTSHIFT, 0xA1}, {KEY_UP, 0x26},        {KEY_KP1, 0x61},        {KEY_KP2, 0x62},
    {KEY_KP3, 0x63},        {KEY_KPENTER, 0x0D},

    {KEY_LEFTCTRL, 0xA2},   {KEY_LEFTMETA, 0x5B},  {KEY_LEFTALT, 0xA4},    {KEY_SPACE, 0x20},
    {KEY_RIGHTALT, 0xA5},   {KEY_RIGHTMETA, 0x5C}, {KEY_COMPOSE, 0x5D},    {KEY_RIGHTCTRL, 0xA3},
    {KEY_LEFT, 0x25},       {KEY_DOWN, 0x28},      {KEY_RIGHT, 0x27},      {KEY_KP0, 0x60},
    {KEY_KPDOT, 0x6E},
};

TEST(KeyPosition, TableIsSortedSoThatLookingUpFindsEveryRow) {
  for (const KeyPosition& key : keyPositions()) {
    EXPECT_EQ(keyByEvdev(key.evdev), &key) << key.name;
  }
}

TEST(KeyPosition, FullSizeKeyboardIsComplete) {
  // 105 keys: the ISO board, which has one more than the ANSI board.
  EXPECT_EQ(keyPositions().size(), 105U);
  std::set<std::string> names;
  for (const KeyPosition& key : keyPositions()) {
    EXPECT_TRUE(names.insert(key.name).second) << key.name << " stands twice";
  }
}

TEST(KeyPosition, EveryPositionGivesItsWindowsCode) {
  ASSERT_EQ(std::size(kBoard), 105U);
  std::set<unsigned> positions;
  for (const Expected& expected : kBoard) {
    EXPECT_TRUE(positions.insert(expected.evdev).second) << expected.evdev << " stands twice";
    const KeyPosition* key = keyByEvdev(expected.evdev);
    ASSERT_NE(key, nullptr) << "position " << expected.evdev;
    EXPECT_EQ(key->virtual_key, expected.virtual_key) << key->name;
    EXPECT_EQ(virtualKeyByName(key->name), expected.virtual_key) << key->name;
  }
}

TEST(KeyPosition, KeysThatTheDeviceLacksAreMarked) {
  std::set<int> missing;
  for (const KeyPosition& key : keyPositions()) {
    if (!key.on_device) {
      missing.insert(key.virtual_key);
    }
  }
  EXPECT_EQ(missing, (std::set<int>{19, 44, 93, 226}));
}

TEST(KeyPosition, TheDeviceHasKeysAndTheGenericModifiersButNothingElse) {
  for (int code : {int{'A'}, 13, 16, 17, 18, 46, 91, 92, 160, 165, 222}) {
    EXPECT_TRUE(deviceHasKey(code)) << code;
  }
  for (int code : {0, 1, 19, 44, 93, 200, 226, 255, 'A' + 256}) {
    EXPECT_FALSE(deviceHasKey(code)) << code;
  }
}

TEST(KeyPosition, HardwareCodesAreEightHigher) {
  EXPECT_EQ(keyByHardwareCode(38)->virtual_key, 65);
  EXPECT_EQ(keyByHardwareCode(0), nullptr);
  EXPECT_EQ(keyByHardwareCode(7), nullptr);
  EXPECT_EQ(keyByHardwareCode(8), nullptr);
  EXPECT_EQ(keyByHardwareCode(0xFFFFFFFFU), nullptr);
}

TEST(KeyPosition, NamesAliasesAndNumbersNameKeys) {
  EXPECT_EQ(virtualKeyByName("Enter"), 13);
  EXPECT_EQ(virtualKeyByName("a"), 65);
  EXPECT_EQ(virtualKeyByName("5"), 53);
  EXPECT_EQ(virtualKeyByName("65"), 65);
  EXPECT_EQ(virtualKeyByName("0x2E"), 46);
  EXPECT_EQ(virtualKeyByName("AltGr"), 165);
  EXPECT_EQ(virtualKeyByName(""), std::nullopt);
  EXPECT_EQ(virtualKeyByName("256"), std::nullopt);
  EXPECT_EQ(virtualKeyByName("65x"), std::nullopt);
  EXPECT_EQ(virtualKeyByName("0x"), std::nullopt);
  EXPECT_EQ(virtualKeyByName("nokey"), std::nullopt);
}

TEST(KeyPosition, ChordsKeepTheirOrderAndNameTheUnknownPart) {
  std::string unknown;
  EXPECT_THAT(*virtualKeysOfChord("ctrl+alt+del", &unknown), ElementsAre(162, 164, 46));
  EXPECT_FALSE(virtualKeysOfChord("ctrl+bogus", &unknown));
  EXPECT_EQ(unknown, "bogus");
  EXPECT_FALSE(virtualKeysOfChord("ctrl+", &unknown));
  EXPECT_EQ(unknown, "");
  EXPECT_FALSE(virtualKeysOfChord("", nullptr));
}

}  // namespace
}  // namespace mirn
