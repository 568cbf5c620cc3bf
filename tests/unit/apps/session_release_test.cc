// What a crash leaves held is let go by the next start: the device outlives the session that pressed the key.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <variant>

#include "apps/common/session.h"
#include "apps/common/virtual_world.h"
#include "host/main_loop.h"

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
  auto first = std::make_unique<Session>();
  ASSERT_TRUE(runLoopUntil([&] { return first->isPlugged(); }, kPatience));
  ASSERT_TRUE(first->connectKeyboard());
  first->input().keyDown('A');
  first->input().mouseButton("lbdown", 100, 100);
  ASSERT_TRUE(runLoopUntil([&] { return holdsA(device) && device.input().buttons == 1; }, kPatience));

  // Gone without a word, as a killed program goes.
  uint64_t before = device.receivedCount();
  hostReleaseProxy();
  first.reset();
  EXPECT_EQ(device.receivedCount(), before) << "nobody released anything";
  EXPECT_TRUE(holdsA(device));

  Session second;
  ASSERT_TRUE(second.connectKeyboard());
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
