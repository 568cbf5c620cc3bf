// What a crash leaves held is let go by the next start: the device outlives the session that pressed the key.
#include <gtest/gtest.h>

#include <string>
#include <variant>

#include "apps/common/session.h"
#include "apps/common/virtual_world.h"
#include "device/hard_key_mouse.h"
#include "host/main_loop.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

constexpr uint8_t kUsageA = 4;
constexpr std::chrono::seconds kPatience{20};

bool holdsA(const VirtualMirn& device) {
  return device.input().keys[0] == kUsageA;
}

TEST(SessionRelease, TheNextStartLetsGoWhatACrashLeftHeld) {
  std::string error;
  VirtualWorld* world = VirtualWorld::create({}, &error);
  ASSERT_NE(world, nullptr) << error;
  VirtualMirn& device = world->mirn();
  {
    // A program that died: its handle closes, and nothing was let go. (A proxy that goes may say so itself.)
    hard_key_mouse died(g_vid, g_pid);
    ASSERT_EQ(died.send_keyboard({.keys = {kUsageA}}), 0);
    ASSERT_EQ(died.send_abs_mouse({.type = kMouseLeftDown, .x = 100, .y = 100, .left = 1}), 0);
  }
  const uint64_t before = device.receivedCount();
  ASSERT_TRUE(holdsA(device));
  ASSERT_EQ(device.input().buttons, 1);

  Session session;
  ASSERT_TRUE(session.connectKeyboard());
  EXPECT_TRUE(runLoopUntil([&] { return device.input().keys[0] == 0 && device.input().buttons == 0; }, kPatience));
  for (const VirtualReceived& received : device.receivedAfter(before)) {
    if (const auto* keys = std::get_if<VirtualKeyboard>(&received.record)) {
      EXPECT_EQ(*keys, VirtualKeyboard{}) << "releases alone";
    }
  }
  hostReleaseProxy();
}

}  // namespace
}  // namespace mirn
