// What mirnctl's commands do to the target's keyboard and pointer besides what they are told.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <variant>

#include "apps/mirnctl/commands.h"
#include "device/hard_key_mouse.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

using testing::Each;
using testing::IsEmpty;

// A process has one virtual device, so all commands of a case share one context, each with a new proxy as in a process
// of its own.
class MirnctlInputTest : public testing::Test {
 protected:
  static Context& context() {
    static Context* const context = [] {
      GlobalOptions options;
      options.use_virtual = true;
      int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      auto* made = new Context(options, null, null);
      EXPECT_FALSE(made->prepare());
      return made;
    }();
    return *context;
  }

  MirnctlInputTest() { context(); }

  static VirtualMirn& device() { return context().world()->mirn(); }

  // Positions of the pointer records that a command brings; its exit status is 0.
  static std::vector<std::string> pointerRecordsOf(const std::string& line) {
    hostReleaseProxy();
    uint64_t before = device().receivedCount();
    CLI::App app;
    ChosenCommand chosen;
    addInfoCommand(app, chosen);
    addSetNameCommand(app, chosen);
    addLedCommand(app, chosen);
    addKeyCommand(app, chosen);
    addTypeCommand(app, chosen);
    addMouseCommand(app, chosen);
    addLatencyCommand(app, chosen);
    addUpgradeCommand(app, chosen);
    app.parse(line);
    EXPECT_EQ(chosen(context()), 0) << line;
    std::vector<std::string> positions;
    for (const VirtualReceived& received : device().receivedAfter(before)) {
      if (const auto* mouse = std::get_if<VirtualMouse>(&received.record)) {
        positions.push_back(std::to_string(mouse->x) + "," + std::to_string(mouse->y));
      }
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

}  // namespace
}  // namespace mirn
