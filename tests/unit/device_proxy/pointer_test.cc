#include <cstdlib>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PointerTest : public ProxyTest {
 protected:
  PointerTest() { start("2.0.0"); }

  // Moves until one is due in relative mode: every second one is sent.
  void sentMove(int x, int y) {
    proxy_->MouseMove(x, y, false);
    proxy_->MouseMove(x, y, false);
  }
};

std::string absolute(int x, int y, const char* buttons, int wheel = 0) {
  return "abs " + std::to_string(x) + " " + std::to_string(y) + " lrm " + buttons + " wheel " + std::to_string(wheel);
}
std::string relative(int x, int y, const char* buttons = "000", int wheel = 0) {
  return "rel " + std::to_string(x) + " " + std::to_string(y) + " lrm " + buttons + " wheel " + std::to_string(wheel);
}

TEST_F(PointerTest, EachOperationSendsItsRecordWithTheHeldButtons) {
  EXPECT_EQ(proxy_->MouseLButtonDown(1, 2), 0);
  EXPECT_EQ(proxy_->MouseRButtonDown(3, 4), 0);
  EXPECT_EQ(proxy_->MouseMButtonDown(5, 6), 0);
  EXPECT_EQ(proxy_->MouseWheelUp(7, 8, 0), 0);
  EXPECT_EQ(proxy_->MouseWheelDown(9, 10, 0), 0);
  EXPECT_EQ(proxy_->MouseMButtonUp(11, 12), 0);
  EXPECT_EQ(proxy_->MouseLButtonUp(13, 14), 0);
  EXPECT_EQ(proxy_->MouseX1ButtonDown(15, 16), 0);
  EXPECT_EQ(proxy_->MouseRButtonUp(17, 18), 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(1, 2, "100"), absolute(3, 4, "110"), absolute(5, 6, "111"),
                                     absolute(7, 8, "110", -1), absolute(9, 10, "110", 1), absolute(11, 12, "110"),
                                     absolute(13, 14, "010"), absolute(15, 16, "110"), absolute(17, 18, "000")));
}

TEST_F(PointerTest, TheEventTypesShowInTheRawReportsMask) {
  proxy_->SetMirnMouseMove(true);
  proxy_->MouseLButtonDown(0, 0);
  proxy_->MouseMove(0, 0, false);
  proxy_->MouseRButtonDown(0, 0);
  proxy_->MouseMButtonDown(0, 0);
  proxy_->MouseMove(0, 0, false);
  proxy_->MouseMButtonUp(0, 0);
  proxy_->MouseX1ButtonDown(0, 0);
  proxy_->MouseWheelUp(0, 0, 0);
  std::vector<std::string> expected;
  for (const int mask : {1, 1, 2, 4, 4, 0, 0})
    expected.push_back("raw 0 0 buttons " + std::to_string(mask) + " wheel 0");
  expected.emplace_back("raw 0 0 buttons 0 wheel -1");
  EXPECT_EQ(arrived(), expected);
}

TEST_F(PointerTest, TheOperationsWithoutARecordSayOneOrZero) {
  EXPECT_EQ(proxy_->MouseX1ButtonUp(1, 1), 1);
  EXPECT_EQ(proxy_->MouseX2ButtonDown(1, 1), 1);
  EXPECT_EQ(proxy_->MouseX2ButtonUp(1, 1), 1);
  EXPECT_EQ(proxy_->MouseLButtonUp(nullptr), 0);
  EXPECT_EQ(proxy_->GetMousePoint(1, 1, nullptr), 0);
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(PointerTest, TheFirstExtraButtonPressesLeftWithoutHoldingIt) {
  proxy_->MouseX1ButtonDown(5, 5);
  proxy_->MouseWheelUp(6, 6, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(5, 5, "100"), absolute(6, 6, "000", -1)));
}

TEST_F(PointerTest, TheFirstExtraButtonIsNotHeldBackAndSendsTheHeldMoveFirst) {
  proxy_->MouseX1ButtonDown(5, 5);
  EXPECT_THAT(arrived(), ElementsAre(absolute(5, 5, "100")));
  proxy_->MouseMove(1, 1, false);
  proxy_->MouseX1ButtonDown(5, 5);
  EXPECT_THAT(arrived(), ElementsAre(absolute(1, 1, "000"), absolute(5, 5, "100")));
}

TEST_F(PointerTest, LettingAnExtraButtonGoLeavesTheHeldLeftOne) {
  proxy_->MouseLButtonDown(5, 5);
  proxy_->MouseX1ButtonUp(5, 5);
  proxy_->MouseX2ButtonUp(5, 5);
  proxy_->MouseWheelUp(6, 6, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(5, 5, "100"), absolute(6, 6, "100", -1)));
}

TEST_F(PointerTest, TheWheelsDeltaIsIgnored) {
  proxy_->MouseWheelUp(1, 2, 5);
  proxy_->MouseWheelUp(1, 2, -5);
  proxy_->MouseWheelDown(1, 2, 1200);
  EXPECT_THAT(arrived(), ElementsAre(absolute(1, 2, "000", -1), absolute(1, 2, "000", -1), absolute(1, 2, "000", 1)));
}

TEST_F(PointerTest, TheMiddleButtonIsNotRemembered) {
  proxy_->MouseLButtonDown(0, 0);
  proxy_->MouseMButtonDown(0, 0);
  proxy_->MouseMove(4, 4, false);
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(0, 0, "100"), absolute(0, 0, "101"), absolute(4, 4, "100"),
                                     "keys 00 00 00 00 00 00 mod 00"));
}

TEST_F(PointerTest, PositionsAreCutTo16Bits) {
  proxy_->MouseLButtonDown(32767, -1);
  proxy_->MouseLButtonDown(32768, 65535);
  proxy_->MouseLButtonDown(65536, -32769);
  proxy_->MouseLButtonDown(0x7FFFFFFF, static_cast<int>(0x80000000));
  EXPECT_THAT(arrived(), ElementsAre(absolute(32767, -1, "100"), absolute(-32768, -1, "100"), absolute(0, 32767, "100"),
                                     absolute(-1, 0, "100")));
}

// ---- Relative mode ----

TEST_F(PointerTest, TheFirstMoveAfterSwitchingOnGoesBackToTheOrigin) {
  proxy_->Init({{0, 0, 1000, 500}});
  proxy_->SetMouseMoveRelative(true);
  // No speed is set: this very position becomes the origin, and the move itself counts as (0, 0).
  proxy_->MouseMove(16384, 32767, false);
  proxy_->MouseMove(16384, 32767, false);
  // 16384 * 1000 / 32767 = 500.015: origin 500, position 500.
  EXPECT_THAT(arrived(), ElementsAre(relative(0, 0)));
  proxy_->SetMouseMoveRelative(false);
  proxy_->MouseMove(0, 0, false);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(3277, 6554, false);  // 100.009.., 100.009..
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(relative(-100, -100), "keys 00 00 00 00 00 00 mod 00"));
}

TEST_F(PointerTest, WithASpeedSetSwitchingOnKeepsTheOrigin) {
  proxy_->Init({{0, 0, 1000, 1000}});
  proxy_->SetRelativeOrigin(100, 3277, 6554);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(32767, 32767, false);
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(relative(0, -127), relative(-100, -73), "keys 00 00 00 00 00 00 mod 00"));
}

TEST_F(PointerTest, StepsOfARelativeRecordAddUp) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(100, 0, 0);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(0, 0, false);
  proxy_->MouseMove(300, -10, false);
  EXPECT_THAT(arrived(), ElementsAre(relative(127, 0), relative(127, 0), relative(46, -10)));
}

TEST_F(PointerTest, ANonZeroDeltaNeverVanishes) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(50, 0, 0);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(0, 0, false);
  proxy_->KeyBoardUp(0, 0);
  arrived();
  sentMove(1, -1);
  sentMove(-3, 3);
  sentMove(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(relative(1, -1), relative(-1, 1), relative(0, 0)));
  proxy_->SetRelativeOrigin(1, 0, 0);
  sentMove(99, -99);
  EXPECT_THAT(arrived(), ElementsAre(relative(1, -1)));
}

TEST_F(PointerTest, TheSpeedIsForMovesInRelativeModeAlone) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(200, 0, 0);
  proxy_->MouseLButtonDown(10, 10);
  proxy_->MouseMove(10, 10, true);
  proxy_->MouseMove(10, 10, true);
  EXPECT_THAT(arrived(), ElementsAre(absolute(10, 10, "100"), relative(10, 10, "100"))) << "a relative call";
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(0, 0, false);
  proxy_->MouseMove(10, 10, false);
  proxy_->MouseLButtonUp(10, 10);
  EXPECT_THAT(arrived(), ElementsAre(relative(20, 20, "100"), relative(10, 10, "000")));
}

TEST_F(PointerTest, ARelativeCallForgetsTheOriginAndMakesButtonsRelativeUntilTheNextMove) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(0, 100, 100);
  proxy_->MouseMove(7, 8, true);
  proxy_->MouseLButtonDown(7, 8);
  EXPECT_THAT(arrived(), ElementsAre(relative(7, 8), relative(7, 8, "100")));
  proxy_->MouseMove(7, 8, false);
  proxy_->MouseLButtonUp(9, 9);
  EXPECT_THAT(arrived(), ElementsAre(absolute(7, 8, "100"), absolute(9, 9, "000")));
}

TEST_F(PointerTest, ARelativeCallForgetsTheOriginInRelativeModeToo) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(100, 100, false);  // its origin
  proxy_->MouseMove(7, 8, true);
  proxy_->MouseLButtonDown(9, 9);
  EXPECT_THAT(arrived(), ElementsAre(relative(7, 8), relative(9, 9, "100")));
}

TEST_F(PointerTest, TheFirstMoveAfterSwitchingOffGoesWhereItSays) {
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(1, 1, false);
  proxy_->SetMouseMoveRelative(false);
  proxy_->MouseMove(40, 50, false);
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(40, 50, "000"), "keys 00 00 00 00 00 00 mod 00"));
}

TEST_F(PointerTest, SpeedZeroKeepsTheOldSpeed) {
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(300, 0, 0);
  proxy_->SetRelativeOrigin(0, 0, 0);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(0, 0, false);
  proxy_->MouseMove(5, 5, false);
  EXPECT_THAT(arrived(), ElementsAre(relative(15, 15)));
}

TEST_F(PointerTest, BeforeInitEveryRelativePositionIsZeroMinusTheOrigin) {
  proxy_->SetMouseMoveRelative(true);
  sentMove(30000, 30000);
  proxy_->MouseRButtonDown(12345, 23456);
  EXPECT_THAT(arrived(), ElementsAre(relative(0, 0), relative(0, 0, "010")));
}

TEST_F(PointerTest, TheStoredFlagsChangeNothing) {
  proxy_->SetSupportAutoRelativeMouse(true);
  proxy_->SetCursorLockState(true);
  proxy_->MouseLButtonDown(1, 1);
  EXPECT_THAT(arrived(), ElementsAre(absolute(1, 1, "100")));
}

// ---- Monitors ----

TEST_F(PointerTest, InitFillsTheKeyMapToo) {
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(&listener_);
  seen_ = mirn_->receivedCount();
  EXPECT_EQ(proxy_->Init({{0, 0, 10, 10}}), 0);
  proxy_->KeyBoardDown(0, 'A');
  EXPECT_THAT(arrived(), ElementsAre("keys 04 00 00 00 00 00 mod 00"));
}

// The keys come first, so a list of monitors that is refused costs only the monitors.
TEST_F(PointerTest, ARefusedListOfMonitorsLeavesTheKeysMapped) {
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(&listener_);
  seen_ = mirn_->receivedCount();
  EXPECT_THROW(proxy_->Init({}), std::out_of_range);
  proxy_->KeyBoardDown(0, 'A');
  EXPECT_THAT(arrived(), ElementsAre("keys 04 00 00 00 00 00 mod 00"));
}

TEST_F(PointerTest, AMonitorIndexBeyondTheListThrowsOutOfRange) {
  EXPECT_THROW(proxy_->Init({}), std::out_of_range);
  proxy_->SetMonitorIndex(1);
  EXPECT_THROW(proxy_->Init({{0, 0, 10, 10}}), std::out_of_range);
  proxy_->SetMonitorIndex(-1);
  EXPECT_THROW(proxy_->Init({{0, 0, 10, 10}}), std::out_of_range);
  proxy_->SetMonitorIndex(0);
  EXPECT_EQ(proxy_->Init({{0, 0, 10, 10}}), 0);
}

TEST_F(PointerTest, TheSelectedMonitorGivesTheSize) {
  proxy_->SetMonitorIndex(1);
  proxy_->Init({{0, 0, 1920, 1080}, {-1280, 0, 0, 1024}});
  proxy_->MouseMove(32767, 32767, true);
  proxy_->MouseLButtonDown(32767, 32767);
  proxy_->drain();
  int x = 0;
  int y = 0;
  for (const VirtualReceived& received : mirn_->receivedAfter(seen_)) {
    const auto& mouse = std::get<VirtualMouse>(received.record);
    if (mouse.left == 0) continue;
    x += mouse.x;
    y += mouse.y;
  }
  EXPECT_EQ(x, 1280);
  EXPECT_EQ(y, 1024);
}

// Whole path: random modes and events; the relative steps that arrive, added up, against exact arithmetic.
TEST_F(PointerTest, RandomButtonEventsArriveWhereTheModelSays) {
  std::mt19937 random(20);
  for (int round = 0; round < 40; ++round) {
    const int width = static_cast<int>(random() % 4000) + 1;
    const int height = static_cast<int>(random() % 4000) + 1;
    const int origin_x = static_cast<int>(random() % 32768);
    const int origin_y = static_cast<int>(random() % 32768);
    start("2.0.0");
    proxy_->Init({{0, 0, width, height}});
    proxy_->SetRelativeOrigin(100, origin_x, origin_y);
    proxy_->SetMouseMoveRelative(true);
    for (int event = 0; event < 20; ++event) {
      const int x = static_cast<int>(random() % 32768);
      const int y = static_cast<int>(random() % 32768);
      proxy_->MouseRButtonDown(x, y);
      proxy_->drain();
      int sum_x = 0;
      int sum_y = 0;
      for (const VirtualReceived& received : mirn_->receivedAfter(seen_)) {
        const auto& mouse = std::get<VirtualMouse>(received.record);
        EXPECT_TRUE(mouse.relative);
        EXPECT_EQ(mouse.right, 1);
        EXPECT_LE(std::abs(mouse.x), 127);
        EXPECT_LE(std::abs(mouse.y), 127);
        sum_x += mouse.x;
        sum_y += mouse.y;
      }
      seen_ = mirn_->receivedCount();
      // Rounding half up of an odd denominator: (2ab + 32767) / 65534.
      const auto origin = [](int64_t value, int64_t size) { return (2 * value * size + 32767) / 65534; };
      EXPECT_EQ(sum_x, int64_t{x} * width / 32767 - origin(origin_x, width)) << x << " of " << width;
      EXPECT_EQ(sum_y, int64_t{y} * height / 32767 - origin(origin_y, height)) << y << " of " << height;
    }
  }
}

}  // namespace
}  // namespace mirn
