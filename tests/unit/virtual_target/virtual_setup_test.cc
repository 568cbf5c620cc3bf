#include "virtual/virtual_setup.h"

#include <gtest/gtest.h>

#include "platform/hid_functions.h"
#include "virtual/frame_strip.h"
#include "virtual/wire.h"

namespace mirn {
namespace {

// A request as the device wants it on the wire.
void tell(VirtualMirn& mirn, uint8_t command, const std::vector<uint8_t>& payload) {
  EXPECT_EQ(mirn.hostWrite(buildWireFrame(command, 256, payload), std::chrono::nanoseconds(0)),
            VirtualWriteResult::kAccepted);
}

uint32_t shownDigest(VirtualTarget& target) {
  const std::vector<uint8_t> pixels = target.picture(1280, 720);
  const auto strip = readStripBgra(pixels.data(), 1280, 720, 1280 * 4);
  return strip.has_value() ? strip->input_digest : 0;
}

TEST(VirtualSetup, WhatTheDeviceTakesTheTargetShows) {
  VirtualSetup setup;
  tell(setup.mirn(), 3, {0x02, 0x0B, 0, 0, 0, 0, 0});
  tell(setup.mirn(), 3, {0x00, 0x0C, 0, 0, 0, 0, 0});
  EXPECT_EQ(setup.target().text(), "Hi");
  EXPECT_EQ(shownDigest(setup.target()), expectedDigest(setup.mirn()));
  tell(setup.mirn(), 2, {0x10, 0x27, 0x20, 0x4E, 1, 0, 0, 1});  // (10000, 20000), left held, one step down
  EXPECT_EQ(setup.target().inputState().pointer_x, 10000);
  EXPECT_EQ(setup.target().inputState().pointer_y, 20000);
  EXPECT_EQ(setup.target().inputState().buttons, kTargetLeftButton);
  EXPECT_EQ(setup.target().scrollRow(), 3);
  EXPECT_EQ(shownDigest(setup.target()), expectedDigest(setup.mirn()));
  tell(setup.mirn(), 4, {0x05, 0x00, 0xFB, 0xFF, 0, 0, 0, 0});
  EXPECT_EQ(setup.target().inputState().pointer_x, setup.mirn().input().x);
  EXPECT_EQ(setup.target().inputState().buttons, 0);
  tell(setup.mirn(), 5, {1, 0x34, 0x12});
  EXPECT_EQ(setup.target().inputState().led_param, 0x1234);
  EXPECT_EQ(shownDigest(setup.target()), expectedDigest(setup.mirn()));
}

TEST(VirtualSetup, UnpluggingReleasesWhatWasHeld) {
  VirtualSetup setup;
  tell(setup.mirn(), 3, {0x02, 0x0B, 0, 0, 0, 0, 0});
  tell(setup.mirn(), 2, {0, 0, 0, 0, 1, 0, 0, 0});
  setup.unplug();
  EXPECT_EQ(setup.target().inputState().modifiers, 0);
  EXPECT_EQ(setup.target().inputState().buttons, 0);
  EXPECT_FALSE(setup.mirn().plugged());
  EXPECT_TRUE(setup.capture().devices().empty());
  setup.replug();
  EXPECT_TRUE(setup.mirn().plugged());
  EXPECT_EQ(setup.capture().devices().size(), 1U);
}

TEST(VirtualSetup, BothEndsOfEachStickStandAtTheSamePlace) {
  VirtualSetup setup(12);
  for (size_t i = 0; i < setup.size(); ++i) {
    EXPECT_EQ(setup.camera(i).topologyPath(), "virtual-" + std::to_string(i + 1));
    EXPECT_EQ(setup.mirn(i).topology(), setup.camera(i).topologyPath());
    for (size_t j = 0; j < i; ++j) {
      EXPECT_NE(setup.camera(i).uniqueID(), setup.camera(j).uniqueID());
      EXPECT_NE(setup.mirn(i).serial(), setup.mirn(j).serial());
    }
  }
}

TEST(VirtualSetup, NothingIsInForceUntilItIsInstalledAndNothingStays) {
  CaptureSystem* const real = &captureSystem();
  const HidFunctions* const real_hid = &hidFunctions();
  {
    VirtualSetup setup(2);
    EXPECT_EQ(&captureSystem(), real);
    EXPECT_EQ(&hidFunctions(), real_hid);
    setup.install();
    EXPECT_EQ(captureSystem().devices().size(), 2U);
    EXPECT_EQ(&hidFunctions(), &VirtualHid::functions());
    EXPECT_EQ(setup.hid().devices().size(), 2U);
    setup.install();
    EXPECT_EQ(setup.hid().devices().size(), 2U) << "a second installing changes nothing";
  }
  EXPECT_EQ(&captureSystem(), real);
  EXPECT_EQ(&hidFunctions(), real_hid);
  EXPECT_TRUE(VirtualHid::instance().devices().empty());
}

}  // namespace
}  // namespace mirn
