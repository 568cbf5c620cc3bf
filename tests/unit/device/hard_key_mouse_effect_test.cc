// Each command of the device against the virtual Mirn: what the device makes of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "device/hard_key_mouse.h"
#include "tests/unit/device/wire_fixture.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using namespace std::chrono_literals;

class HardKeyMouse : public WireTest {};

TEST_F(HardKeyMouse, ShakesHandsAndKeepsTheTexts) {
  EXPECT_EQ(device().version_text(), "1.0.0");
  EXPECT_EQ(device().detail_text(), "virtual-mirn");
  EXPECT_EQ(device().topology(), "virtual-1");
}

TEST_F(HardKeyMouse, AbsoluteMoveReachesTheTarget) {
  EXPECT_EQ(device().send_abs_mouse({.type = 1, .x = 32767, .y = 12345, .left = 1, .middle = 1, .wheel = 1}), 0);
  const VirtualInputState input = mirn_->input();
  EXPECT_EQ(input.x, 32767);
  EXPECT_EQ(input.y, 12345);
  EXPECT_EQ(input.buttons, 5);
  EXPECT_EQ(input.wheel, 1);
}

TEST_F(HardKeyMouse, KeyboardReachesTheTarget) {
  EXPECT_EQ(device().send_keyboard({.keys = {4, 0xAA, 0xCC, 0xBB}, .modifiers = 0xAA}), 0);
  EXPECT_EQ(mirn_->input().modifiers, 0xAA);
  EXPECT_THAT(mirn_->input().keys, ElementsAre(4, 0xAA, 0xCC, 0xBB, 0, 0));
}

std::vector<std::pair<int, int>> steps(const std::vector<VirtualRecord>& records) {
  std::vector<std::pair<int, int>> steps;
  for (const VirtualRecord& record : records) {
    const auto& mouse = std::get<VirtualMouse>(record);
    EXPECT_TRUE(mouse.relative);
    steps.emplace_back(mouse.x, mouse.y);
  }
  return steps;
}

TEST_F(HardKeyMouse, ARelativeMoveGoesInStepsOf127AndARemainder) {
  EXPECT_EQ(device().send_rla_mouse({.x = 300, .y = -20}), 0);
  EXPECT_THAT(steps(records()), ElementsAre(std::pair(127, 0), std::pair(127, 0), std::pair(46, -20)));
}

TEST_F(HardKeyMouse, ARelativeMoveOfNothingSendsOneReport) {
  EXPECT_EQ(device().send_rla_mouse({}), 0);
  EXPECT_THAT(steps(records()), ElementsAre(std::pair(0, 0)));
}

TEST_F(HardKeyMouse, ARelativeMoveOfWholeStepsEndsWithAnEmptyRemainder) {
  EXPECT_EQ(device().send_rla_mouse({.x = -254, .y = 127}), 0);
  EXPECT_THAT(steps(records()), ElementsAre(std::pair(-127, 127), std::pair(-127, 0), std::pair(0, 0)));
}

TEST_F(HardKeyMouse, TheLargestRelativeMovesArriveWhole) {
  for (const int delta : {32767, -32768}) {
    mirn_->clearReceived();
    EXPECT_EQ(device().send_rla_mouse({.x = static_cast<int16_t>(delta), .y = 1}), 0);
    int sum_x = 0;
    int sum_y = 0;
    for (const auto& [x, y] : steps(records())) {
      EXPECT_LE(std::abs(x), 127);
      sum_x += x;
      sum_y += y;
    }
    EXPECT_EQ(sum_x, delta);
    EXPECT_EQ(sum_y, 1);
  }
}

TEST_F(HardKeyMouse, EveryRelativeStepRepeatsButtonsAndWheel) {
  EXPECT_EQ(device().send_rla_mouse({.x = 200, .left = 1, .right = 1, .wheel = -1}), 0);
  ASSERT_EQ(records().size(), 2U);
  for (const VirtualRecord& record : records()) {
    const auto& mouse = std::get<VirtualMouse>(record);
    EXPECT_EQ(mouse.left, 1);
    EXPECT_EQ(mouse.right, 1);
    EXPECT_EQ(mouse.wheel, -1);
  }
}

TEST_F(HardKeyMouse, RelativeStepsAreThreeMillisecondsApart) {
  mirn_->setLatency(0ns, 0ns);
  while (mirn_->counters().answers < mirn_->settings().warm_up_answers) {
    device().get_led_status();
  }
  const auto start = clock().now();
  EXPECT_EQ(device().send_rla_mouse({.x = 127 * 10}), 0);
  EXPECT_EQ(elapsed(start), 30ms);
}

TEST_F(HardKeyMouse, AFailingRelativeStepEndsTheMove) {
  faults("refuse@2");
  EXPECT_EQ(device().send_rla_mouse({.x = 1000}), -1);
  EXPECT_EQ(records().size(), 2U);
}

TEST_F(HardKeyMouse, ACutMoveEndsBehindTheStepUnderWay) {
  device().cut_moves(true);
  EXPECT_EQ(device().send_rla_mouse({.x = 300, .left = 1}), -1);
  EXPECT_THAT(steps(records()), ElementsAre(std::pair(127, 0)));
  mirn_->clearReceived();
  EXPECT_EQ(device().send_rla_mouse({.x = 126}), 0) << "one exchange is not cut";
  device().cut_moves(false);
  EXPECT_EQ(device().send_rla_mouse({.x = 300}), 0);
  EXPECT_THAT(steps(records()), ElementsAre(std::pair(126, 0), std::pair(127, 0), std::pair(127, 0), std::pair(46, 0)));
}

TEST_F(HardKeyMouse, ARawReportReachesTheTarget) {
  EXPECT_EQ(device().send_new_mouse_logic_abs_mouse({.type = kMouseRightDown, .x = 0x00AA, .y = 0x00CC}), 0);
  EXPECT_EQ(mirn_->input().x, 0xAA);
  EXPECT_EQ(mirn_->input().y, 0xCC);
  EXPECT_EQ(mirn_->input().buttons, 2);
  EXPECT_THAT(records(), ElementsAre(VirtualRecord(VirtualRawMouse{2, 0, 0xAA, 0xCC})));
}

TEST_F(HardKeyMouse, LedStatusIsSetAndReadBack) {
  EXPECT_EQ(device().set_vx_led_status({.status = 0x1102, .param = 0xABCD}), 0);
  EXPECT_EQ(mirn_->led(), (VirtualLed{2, 0xABCD}));
  vx_led_status_def led;
  EXPECT_EQ(device().get_vx_led_status(&led), 0);
  EXPECT_EQ(led.status, 2U);
  EXPECT_EQ(led.param, 0xABCD);
  EXPECT_EQ(device().set_led_status(9), 0);
  EXPECT_EQ(device().get_led_status(), 9);
  EXPECT_EQ(mirn_->led(), (VirtualLed{9, 0xABCD}));
}

TEST_F(HardKeyMouse, DeviceInformationIsReadAndTheNameIsSet) {
  _get_dev_info_reply reply;
  std::string version;
  ASSERT_EQ(device().get_dev_info(&reply, &version), 0);
  EXPECT_STREQ(reply.info_text, "Nuvra Mirn");
  EXPECT_EQ(std::string(reply.id_text, sizeof(reply.id_text)), "VM0000000001");
  EXPECT_EQ(reply.flag, 1);
  EXPECT_EQ(version, "1.0.0");

  ASSERT_EQ(device().send_set_dev_info("12345678901234567890"), 0);
  EXPECT_EQ(mirn_->name(), "12345678901234567890");
  ASSERT_EQ(device().get_dev_info(&reply, &version), 0);
  EXPECT_EQ(std::string(reply.info_text, sizeof(reply.info_text)), "12345678901234567890");
  ASSERT_EQ(device().send_set_dev_info(""), 0);
  EXPECT_EQ(mirn_->name(), "");
}

TEST_F(HardKeyMouse, FirmwareIsTakenChunkByChunk) {
  EXPECT_EQ(device().new_firmware_handshake({}), 0);
  EXPECT_TRUE(mirn_->firmware().greeted);
  std::vector<uint8_t> image;
  upgrade_args_ex_type chunk;
  chunk.total = 3;
  for (chunk.id = 0; chunk.id < chunk.total; ++chunk.id) {
    std::memset(chunk.data, 0xCC - chunk.id * 0x11, sizeof(chunk.data));
    image.insert(image.end(), std::begin(chunk.data), std::end(chunk.data));
    EXPECT_EQ(device().upgrade_firmware(chunk), 0);
  }
  EXPECT_EQ(mirn_->firmware().completed, 1U);
  EXPECT_EQ(mirn_->firmware().image, image);
  EXPECT_EQ(device().version_text(), "1.0.0") << "known since the last handshake";
  EXPECT_EQ(device().shake_hand(), 0);
  EXPECT_EQ(device().version_text(), "1.0.1");
}

TEST_F(HardKeyMouse, ARefusedGreetingFails) {
  faults("refuse@1");
  EXPECT_EQ(device().new_firmware_handshake({}), -1);
  EXPECT_EQ(device().new_firmware_handshake({}), 0);
}

TEST_F(HardKeyMouse, AFailedChunkFailsUnlessItIsTheLast) {
  upgrade_args_ex_type chunk;
  chunk.total = 40;
  chunk.id = 38;
  EXPECT_EQ(device().upgrade_firmware(chunk), -1) << "the device refuses a chunk out of order";
  chunk.id = 39;
  EXPECT_EQ(device().upgrade_firmware(chunk), 0) << "refused, and yet a success: it is the last";
  EXPECT_EQ(mirn_->firmware().rejected_chunks, 2U);
  faults("lose@*");
  EXPECT_EQ(device().upgrade_firmware(chunk), 0) << "so is one without an answer";
}

TEST_F(HardKeyMouse, TheLastChunkRuleFollowsAWrappedTotal) {
  faults("refuse@*");
  upgrade_args_ex_type chunk;
  chunk.total = 1;  // 65,537 chunks, as they travel
  chunk.id = 0;
  EXPECT_EQ(device().upgrade_firmware(chunk), 0);
  chunk.id = 40000;
  EXPECT_EQ(device().upgrade_firmware(chunk), 0);
  chunk.total = 65535;
  chunk.id = 65533;
  EXPECT_EQ(device().upgrade_firmware(chunk), -1);
  chunk.id = 65535;  // id + 1 does not wrap to 0
  EXPECT_EQ(device().upgrade_firmware(chunk), 0);
  chunk.total = 0;
  chunk.id = 0;
  EXPECT_EQ(device().upgrade_firmware(chunk), 0);
}

}  // namespace
}  // namespace mirn
