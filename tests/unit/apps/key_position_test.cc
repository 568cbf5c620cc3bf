#include "apps/common/key_position.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/input-event-codes.h>

#include <set>

namespace mirn {
namespace {

using testing::ElementsAre;

int codeAt(unsigned evdev) {
  const KeyPosition* key = keyByEvdev(evdev);
  return key != nullptr ? key->virtual_key : -1;
}

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

TEST(KeyPosition, PositionsGiveWindowsCodes) {
  EXPECT_EQ(codeAt(KEY_A), 65);
  EXPECT_EQ(codeAt(KEY_Z), 90);
  EXPECT_EQ(codeAt(KEY_0), 48);
  EXPECT_EQ(codeAt(KEY_1), 49);
  EXPECT_EQ(codeAt(KEY_ENTER), 13);
  EXPECT_EQ(codeAt(KEY_KPENTER), 13);
  EXPECT_EQ(codeAt(KEY_F1), 112);
  EXPECT_EQ(codeAt(KEY_F10), 121);
  EXPECT_EQ(codeAt(KEY_F12), 123);
  EXPECT_EQ(codeAt(KEY_LEFTSHIFT), 160);
  EXPECT_EQ(codeAt(KEY_RIGHTSHIFT), 161);
  EXPECT_EQ(codeAt(KEY_LEFTCTRL), 162);
  EXPECT_EQ(codeAt(KEY_RIGHTCTRL), 163);
  EXPECT_EQ(codeAt(KEY_LEFTALT), 164);
  EXPECT_EQ(codeAt(KEY_RIGHTALT), 165);
  EXPECT_EQ(codeAt(KEY_LEFTMETA), 91);
  EXPECT_EQ(codeAt(KEY_RIGHTMETA), 92);
  EXPECT_EQ(codeAt(KEY_KP0), 96);
  EXPECT_EQ(codeAt(KEY_KP7), 103);
  EXPECT_EQ(codeAt(KEY_KPDOT), 110);
  EXPECT_EQ(codeAt(KEY_DELETE), 46);
  EXPECT_EQ(codeAt(KEY_GRAVE), 192);
  EXPECT_EQ(codeAt(KEY_BACKSLASH), 220);
  EXPECT_EQ(codeAt(KEY_SYSRQ), 44);
  EXPECT_EQ(codeAt(KEY_PAUSE), 19);
  EXPECT_EQ(codeAt(KEY_COMPOSE), 93);
  EXPECT_EQ(codeAt(KEY_102ND), 226);
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
