// What mirnctl's commands do to the target's keyboard and pointer besides what they are told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "apps/common/key_position.h"
#include "apps/mirnctl/answer_wait.h"
#include "device/hard_key_mouse.h"
#include "device/key_tables.h"
#include "platform/mirn_identity.h"
#include "tests/integration/apps/mirnctl_fixture.h"

namespace mirn {
namespace {

using testing::Each;
using testing::IsEmpty;

class MirnctlInputTest : public MirnctlFixture {
 protected:
  // Positions of the pointer records that a command brings; its exit status is 0.
  std::vector<std::string> pointerRecordsOf(const std::string& line) {
    EXPECT_EQ(run(line), 0) << line;
    std::vector<std::string> positions;
    for (const VirtualMouse& mouse : pointerRecords()) {
      positions.push_back(std::to_string(mouse.x) + "," + std::to_string(mouse.y));
    }
    return positions;
  }
};

TEST_F(MirnctlInputTest, CommandsThatAreNotAboutThePointerLeaveItAlone) {
  for (const char* line : {"info", "set-name Desk", "led get", "led set 1", "key ctrl+a", "type Hello",
                           "latency --count 2 --answers-only"}) {
    EXPECT_THAT(pointerRecordsOf(line), IsEmpty()) << line;
  }
}

TEST_F(MirnctlInputTest, AnUpgradeLeavesThePointerAlone) {
  std::string path = testing::TempDir() + "mirnctl-upgrade.bin";
  std::ofstream(path) << "MIRN-VERSION=4.0" << std::string(1, '\0') << std::string(2000, 'x');
  EXPECT_THAT(pointerRecordsOf("upgrade --expect 4.0 " + path), IsEmpty());
  std::remove(path.c_str());
}

TEST_F(MirnctlInputTest, PointerCommandsSendNoOtherPlaceThanTheirOwn) {
  for (const char* line : {"mouse move 300 400", "mouse click 300 400", "mouse wheel 2 --at 300 400"}) {
    std::vector<std::string> records = pointerRecordsOf(line);
    EXPECT_GE(records.size(), 4U) << line << ": three releases and the command itself";
    EXPECT_THAT(records, Each("300,400")) << line;
    EXPECT_EQ(device().input().buttons, 0) << line;
  }
}

TEST_F(MirnctlInputTest, WhatACrashLeftHeldIsLetGo) {
  // Another program's connection, which lets nothing go.
  hard_key_mouse crashed(g_vid, g_pid);
  ASSERT_EQ(crashed.send_keyboard({.keys = {4}}), 0);
  ASSERT_EQ(crashed.send_abs_mouse({.type = kMouseLeftDown, .x = 5, .y = 6, .left = 1}), 0);
  EXPECT_THAT(pointerRecordsOf("info"), IsEmpty());
  EXPECT_EQ(device().input().keys, (std::array<uint8_t, 6>{}));
  EXPECT_EQ(device().input().buttons, 1) << "a button's release would move the pointer";
  pointerRecordsOf("mouse move 5 6");
  EXPECT_EQ(device().input().buttons, 0);
}

TEST_F(MirnctlInputTest, TheReleaseIsOutBeforeACommandGoesOn) {
  // A command that ends soon, or is killed, would take it along.
  setFaults("delay=150@1/c3");
  begin();
  ASSERT_FALSE(context().needKeyboard());
  EXPECT_TRUE(context().session().releasesAnswered());
}

TEST_F(MirnctlInputTest, AButtonWhoseReleaseIsLostIsLetGoAgain) {
  // Three releases, the move, the press, its release.
  setFaults("lose@6/c2");
  EXPECT_EQ(run("mouse click 300 400"), kExitDevice);
  EXPECT_EQ(said(), "mirnctl: The Mirn refused a pointer command or didn't answer.\n");
  EXPECT_EQ(device().input().buttons, 0);
  for (const VirtualMouse& mouse : pointerRecords()) {
    EXPECT_TRUE(mouse.x == 300 && mouse.y == 400) << mouse.x << "," << mouse.y;
  }
}

TEST_F(MirnctlInputTest, AKeyWhoseReleaseIsLostIsLetGoAgain) {
  // The connection's release, the press, its release.
  setFaults("lose@3/c3");
  EXPECT_EQ(run("key a"), kExitDevice);
  EXPECT_EQ(said(), "mirnctl: The Mirn refused a key or didn't answer.\n");
  EXPECT_EQ(device().input().keys, (std::array<uint8_t, 6>{}));
  EXPECT_TRUE(pointerRecords().empty());
}

TEST_F(MirnctlInputTest, AfterARefusalNoMoreIsPlayedThanWhatWasOnItsWay) {
  setFaults("refuse@5/c2");
  EXPECT_EQ(run("mouse wheel 1000"), kExitDevice);
  // The refused one, those sent meanwhile, and the three releases at the end.
  EXPECT_LE(pointerRecords().size(), 5 + AnsweredInput::kInFlight + 3);
}

TEST_F(MirnctlInputTest, AReleaseThatIsNotTakenIsSaid) {
  setFaults("refuse@3+/c3");
  EXPECT_EQ(run("key a b"), kExitDevice);
  EXPECT_EQ(said(),
            "mirnctl: The Mirn refused a key or didn't answer. The device didn't confirm that everything is let go.\n");
}

TEST_F(MirnctlInputTest, KeysAreTakenWhereTheDeviceHasThem) {
  for (int code = 1; code <= 255; ++code) {
    bool known = modifierBit(code) != 0 || std::any_of(kKeyUsages.begin(), kKeyUsages.end(),
                                                       [&](const KeyUsage& key) { return key.code == code; });
    EXPECT_EQ(deviceHasKey(code), known) << code;
  }
}

TEST_F(MirnctlInputTest, EveryCharacterThatCanBeTypedArrivesAsItself) {
  std::string text;
  for (char character = ' '; character <= '~'; ++character) {
    text += character;
    if (character % 32 == 31) {
      text += '\n';
    }
  }
  target().reset();
  EXPECT_EQ(runWords({"type", "\t" + text}), 0);
  EXPECT_EQ(target().text(), "    " + text) << "the target's tab stops are four columns apart";
}

}  // namespace
}  // namespace mirn
