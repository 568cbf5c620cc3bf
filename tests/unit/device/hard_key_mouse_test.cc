// Each command of the device against a script: its exact bytes and calls, its time-out, its result and its log lines.
#include "device/hard_key_mouse.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <utility>

#include "tests/unit/device/scripted_hid.h"
#include "tests/unit/device/wire_fixture.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

class ScriptedDevice : public ::testing::Test {
 protected:
  ScriptedDevice() {
    settleDecoder();
    hid_.present = {{g_vid, g_pid}};
    // version "1.0.0", detail "d"
    hid_.answer(frame(1, {'1', '.', '0', '.', '0', 0, 0, 0, 0, 0, 'd', 0}));
    device_ = makeRef<OpenHardKeyMouse>(g_vid, g_pid);
    greeting_ = hid_.writes.at(0);
    hid_.writes.clear();
    hid_.read_timeouts.clear();
  }

  // Written by hand for answers without AA and CC in them.
  static Bytes frame(uint8_t command, const Bytes& payload) {
    const auto length = static_cast<uint8_t>(payload.size() + 6);
    uint16_t sum = static_cast<uint16_t>(command + 0xBB);
    for (const uint8_t byte : payload) {
      sum = static_cast<uint16_t>(sum + byte);
    }
    Bytes bytes{0xAA, length, 0, 0, 1, static_cast<uint8_t>(sum), static_cast<uint8_t>(sum >> 8), command};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    bytes.push_back(0xBB);
    return bytes;
  }

  void answer(const Bytes& payload) { hid_.answer(frame(1, payload)); }

  ScopedVirtualClock clock_;
  ScriptedHid hid_;
  Bytes greeting_;
  CRefObj<OpenHardKeyMouse> device_;
};

TEST_F(ScriptedDevice, GreetsOnConstructionWithFrameIndex256) {
  EXPECT_THAT(greeting_, ElementsAre(0, 0xAA, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB));
  EXPECT_EQ(device_->version_text(), "1.0.0");
  EXPECT_EQ(device_->detail_text(), "d");
  EXPECT_EQ(device_->topology(), "9-9");
  EXPECT_TRUE(device_->device_opened());
}

TEST_F(ScriptedDevice, TheGreetingWaitsTwoSeconds) {
  EXPECT_EQ(device_->shake_hand(), -1);
  EXPECT_THAT(hid_.read_timeouts, ElementsAre(2000));
  EXPECT_EQ(device_->version_text(), "1.0.0") << "a failed greeting changes nothing";
}

TEST_F(ScriptedDevice, AnEmptyGreetingAnswerGivesEmptyTexts) {
  answer({});
  EXPECT_EQ(device_->shake_hand(), 0);
  EXPECT_EQ(device_->version_text(), "");
  EXPECT_EQ(device_->detail_text(), "");
}

TEST_F(ScriptedDevice, AVersionWithoutItsNulRunsOnToTheNextOne) {
  answer({'1', '2', '3', '4', '5', '6', '7', '8', '9', '0', 'x', 'y'});
  EXPECT_EQ(device_->shake_hand(), 0);
  EXPECT_EQ(device_->version_text(), "1234567890xy");
  EXPECT_EQ(device_->detail_text(), "xy");
}

TEST_F(ScriptedDevice, AnAbsoluteMove) {
  answer({0});
  EXPECT_EQ(device_->send_abs_mouse({.type = 1, .x = 0x0102, .y = 0x0304, .left = 1, .wheel = -1}), 0);
  ASSERT_EQ(hid_.writes.size(), 1U);
  // length 14; checksum 2 + 2 + 1 + 4 + 3 + 1 + FF + BB = 0x1C7
  EXPECT_THAT(hid_.writes[0], ElementsAre(0, 0xAA, 0x0E, 0x00, 0x00, 0x01, 0xC7, 0x01, 0x02, 0x02, 0x01, 0x04, 0x03, 1,
                                          0, 0, 0xFF, 0xBB));
  EXPECT_THAT(hid_.read_timeouts, ElementsAre(50));
}

TEST_F(ScriptedDevice, AKeyboardRecord) {
  answer({0});
  EXPECT_EQ(device_->send_keyboard({.keys = {4}, .modifiers = 2}), 0);
  // length 13; checksum 3 + 2 + 4 + BB = 0xC4
  EXPECT_THAT(hid_.writes,
              ElementsAre(ElementsAre(0, 0xAA, 0x0D, 0x00, 0x00, 0x01, 0xC4, 0x00, 0x03, 2, 4, 0, 0, 0, 0, 0, 0xBB)));
  EXPECT_THAT(hid_.read_timeouts, ElementsAre(200));
}

TEST_F(ScriptedDevice, TheTimeOutsOfTheOtherCommands) {
  vx_led_status_def led;
  _get_dev_info_reply reply;
  std::string version;
  upgrade_args_ex_type chunk;
  chunk.total = 2;
  device_->send_rla_mouse({});
  device_->set_vx_led_status(led);
  device_->set_led_status(1);
  device_->get_vx_led_status(&led);
  device_->get_led_status();
  device_->new_firmware_handshake({});
  device_->upgrade_firmware(chunk);
  device_->get_dev_info(&reply, &version);
  device_->send_set_dev_info("x");
  EXPECT_THAT(hid_.read_timeouts, ElementsAre(50, 200, 500, 2000, 500, 1000, 10000, 50, 500));
  EXPECT_THAT(hid_.read_lengths, ::testing::Each(65U));
}

TEST_F(ScriptedDevice, ARawMouseReportIsNotFramedAndReadsNothing) {
  EXPECT_EQ(device_->send_new_mouse_logic_abs_mouse({.type = 2, .x = 258, .y = 3, .wheel = 1}), 0);
  EXPECT_THAT(hid_.writes, ElementsAre(ElementsAre(0, 0x01, 1, 1, 2, 1, 3, 0)));
  EXPECT_TRUE(hid_.read_timeouts.empty());
}

TEST_F(ScriptedDevice, ARawMouseReportFailsWithItsWrite) {
  hid_.write_results = {-1};
  EXPECT_EQ(device_->send_new_mouse_logic_abs_mouse({.type = 1}), -1);
}

TEST_F(ScriptedDevice, TheRawButtonMaskFollowsTheEventTypes) {
  const auto mask = [&](uint8_t type) {
    device_->send_new_mouse_logic_abs_mouse({.type = type});
    return hid_.writes.back().at(2);
  };
  EXPECT_EQ(mask(kMouseMove), 0) << "starts with nothing held";
  EXPECT_EQ(mask(kMouseLeftDown), 1);
  EXPECT_EQ(mask(kMouseMove), 1) << "a move repeats what is held";
  EXPECT_EQ(mask(kMouseRightDown), 2);
  EXPECT_EQ(mask(kMouseMove), 2);
  EXPECT_EQ(mask(kMouseMiddleDown), 4);
  EXPECT_EQ(mask(kMouseMove), 4);
  for (const uint8_t releasing : {0, 3, 4, 6, 7, 9, 10, 11, 14, 200}) {
    EXPECT_EQ(mask(kMouseLeftDown), 1);
    EXPECT_EQ(mask(releasing), 0) << int{releasing};
    EXPECT_EQ(mask(kMouseMove), 0) << int{releasing};
  }
}

TEST_F(ScriptedDevice, AFailedRawReportStillChangesTheHeldButtons) {
  hid_.write_results = {-1};
  EXPECT_EQ(device_->send_new_mouse_logic_abs_mouse({.type = kMouseLeftDown}), -1);
  device_->send_new_mouse_logic_abs_mouse({.type = kMouseMove});
  EXPECT_EQ(hid_.writes.back().at(2), 1);
}

TEST_F(ScriptedDevice, AChunkOfEscapesGoesOutWhole) {
  upgrade_args_ex_type chunk;
  std::memset(chunk.data, 0xCC, sizeof(chunk.data));
  chunk.id = 0xAAAA;
  chunk.total = 0xCCCC;
  answer({0});
  EXPECT_EQ(device_->upgrade_firmware(chunk), 0);
  const Bytes& report = hid_.writes.at(0);
  EXPECT_EQ(report.size(), 1 + 9 + 2 * kFirmwarePayloadBytes);
  EXPECT_EQ(report.back(), 0xBB);
  EXPECT_EQ(report[1], 0xAA);
  for (size_t i = 9; i + 1 < report.size(); i += 2) {
    ASSERT_EQ(report[i], 0xCC) << i;
  }
}

TEST_F(ScriptedDevice, AWriteErrorFailsAtOnceWithoutReading) {
  hid_.write_results = {-1};
  EXPECT_EQ(device_->send_keyboard({}), -1);
  EXPECT_TRUE(hid_.read_timeouts.empty());
}

TEST_F(ScriptedDevice, AShortWriteCountsAsWritten) {
  hid_.write_results = {5};
  answer({0});
  EXPECT_EQ(device_->send_keyboard({}), 0);
}

TEST_F(ScriptedDevice, AReadErrorFails) {
  hid_.reads = {{-1, frame(1, {0})}};
  EXPECT_EQ(device_->send_keyboard({}), -1) << "what stands in the buffer of a failed read is not looked at";
}

TEST_F(ScriptedDevice, TheFirst64BytesCountWhateverTheReadReturned) {
  hid_.reads = {{1, frame(1, {0})}};
  EXPECT_EQ(device_->send_keyboard({}), 0);
  // a frame that reaches into byte 65 is not complete
  Bytes late(60, 0);
  const Bytes answer = frame(1, {});
  ASSERT_EQ(answer.size(), 9U);
  late.insert(late.end(), answer.begin(), answer.end());
  late.resize(65);
  hid_.reads = {{65, late}};
  EXPECT_EQ(device_->send_keyboard({}), -1);
}

// 71 bytes: seven more than one report carries.
TEST_F(ScriptedDevice, AFrameOfTwoReportsIsCompleteWithTheSecond) {
  const Bytes whole = frame(1, Bytes(62, 0));
  hid_.answer({whole.begin(), whole.begin() + 64});
  hid_.answer({whole.begin() + 64, whole.end()});
  EXPECT_EQ(device_->send_abs_mouse({}), -1) << "not yet";
  EXPECT_EQ(device_->send_abs_mouse({}), 0);
}

// A time-out, too, pushes 64 bytes, zeros, and in the middle of a frame they are taken for its rest.
TEST_F(ScriptedDevice, ATimeOutInMidFrameSpoilsTheFrame) {
  const Bytes whole = frame(1, Bytes(62, 0));
  hid_.answer({whole.begin(), whole.begin() + 64});
  hid_.timeout();
  hid_.answer({whole.begin() + 64, whole.end()});
  answer({0});
  EXPECT_EQ(device_->send_abs_mouse({}), -1) << "not yet";
  EXPECT_EQ(device_->send_abs_mouse({}), -1) << "a zero stands where the tail should";
  EXPECT_EQ(device_->send_abs_mouse({}), -1) << "the real rest comes outside of any frame";
  EXPECT_EQ(device_->send_abs_mouse({}), 0);
}

// A clock on which somebody does something while another sleeps.
class BusyPause : public VirtualClock {
 public:
  std::function<void()> during;  // once
  void sleepFor(Duration duration) override {
    if (during) {
      std::exchange(during, nullptr)();
    }
    VirtualClock::sleepFor(duration);
  }
};

TEST_F(ScriptedDevice, AnotherExchangeFitsBetweenTheStepsOfARelativeMove) {
  BusyPause pausing;
  setClock(&pausing);
  for (int i = 0; i < 3; ++i) {
    answer({0});
  }
  std::future<int> led;
  pausing.during = [&] {
    led = std::async(std::launch::async, [&] { return device_->get_led_status(); });
    EXPECT_EQ(led.wait_for(std::chrono::seconds(60)), std::future_status::ready) << "the device mutex is held";
  };
  EXPECT_EQ(device_->send_rla_mouse({.x = 130}), 0);
  setClock(&clock_.get());
  EXPECT_EQ(led.get(), 0);
  constexpr size_t kCommandAt = 8;
  ASSERT_EQ(hid_.writes.size(), 3U);
  EXPECT_EQ(hid_.writes[0][kCommandAt], 4);
  EXPECT_EQ(hid_.writes[1][kCommandAt], 6);
  EXPECT_EQ(hid_.writes[2][kCommandAt], 4);
}

TEST_F(ScriptedDevice, CommandAndIndexOfTheAnswerAreNotCompared) {
  Bytes strange = frame(0x55, {0});
  strange[3] = 9;  // the index is in no checksum
  hid_.answer(strange);
  EXPECT_EQ(device_->send_keyboard({}), 0);
}

TEST_F(ScriptedDevice, AnEmptyAnswerIsOk) {
  answer({});
  EXPECT_EQ(device_->send_keyboard({}), 0);
  answer({});
  EXPECT_EQ(device_->get_led_status(), 0);
}

TEST_F(ScriptedDevice, LedOperationsReturnTheFirstByteWhateverItIs) {
  answer({0xFF});
  EXPECT_EQ(device_->get_led_status(), 255);
  EXPECT_EQ(hid_.writes.back().size(), 11U) << "asked with one byte";
  EXPECT_EQ(hid_.writes.back().at(9), 0);
  answer({7, 1, 2});
  EXPECT_EQ(device_->set_led_status(3), 7);
  EXPECT_EQ(hid_.writes.back().at(9), 3);
  EXPECT_EQ(device_->get_led_status(), -1);
  EXPECT_EQ(device_->set_led_status(3), -1);
}

TEST_F(ScriptedDevice, LedStatusWithAMissingParameterReadsZero) {
  vx_led_status_def led{.status = 9, .param = 9};
  answer({5});
  EXPECT_EQ(device_->get_vx_led_status(&led), 0);
  EXPECT_EQ(led.status, 5U);
  EXPECT_EQ(led.param, 0);
  answer({5, 0x34, 0x12});
  EXPECT_EQ(device_->get_vx_led_status(&led), 0);
  EXPECT_EQ(led.param, 0x1234);
}

TEST_F(ScriptedDevice, AShortInformationAnswerIsFilledWithZeros) {
  _get_dev_info_reply reply;
  std::memset(&reply, 0x5E, sizeof(reply));
  std::string version;
  answer({'h', 'i'});
  EXPECT_EQ(device_->get_dev_info(&reply, &version), 0);
  EXPECT_STREQ(reply.info_text, "hi");
  EXPECT_EQ(reply.flag, 0);
  EXPECT_EQ(version, "1.0.0");
}

TEST_F(ScriptedDevice, AnAnswerThatDoesNotFitOneReportComesPieceByPiece) {
  // 3 reports full of one frame: the exchange that brings its end gets it
  Bytes whole = frame(1, Bytes(110, 3));
  ASSERT_EQ(whole.size(), 119U);
  hid_.answer({whole.begin(), whole.begin() + 64});
  EXPECT_EQ(device_->get_led_status(), -1);
  hid_.answer({whole.begin() + 64, whole.end()});
  EXPECT_EQ(device_->get_led_status(), 3);
}

TEST_F(ScriptedDevice, ManyFramesInEachReportNeverBreakAnything) {
  Bytes crowded;
  for (int i = 0; i < 6; ++i) {
    const Bytes one = frame(1, {9});
    crowded.insert(crowded.end(), one.begin(), one.end());
  }
  crowded.resize(64);
  for (int i = 0; i < 1000; ++i) {
    hid_.answer(crowded);
    const int status = device_->get_led_status();
    ASSERT_TRUE(status == 9 || status == -1) << status;
  }
}

TEST_F(ScriptedDevice, LeftOversOf4096BytesAreForgotten) {
  // Six frames in each report of which one is taken: 64 bytes come, 10 go (and 4 more at a report's end).
  const auto left_over = [](size_t exchanges) {
    return 64 * exchanges - ((exchanges - 1) / 6 * 64 + ((exchanges - 1) % 6 + 1) * 10);
  };
  size_t exchange = 1;
  for (; exchange == 1 || left_over(exchange - 1) + 64 < 4096; ++exchange) {
    Bytes crowded;
    for (int i = 0; i < 6; ++i) {
      const Bytes one = frame(1, {static_cast<uint8_t>(exchange)});
      crowded.insert(crowded.end(), one.begin(), one.end());
    }
    hid_.answer(crowded);
    ASSERT_EQ(device_->get_led_status(), static_cast<int>((exchange + 5) / 6)) << exchange;
  }
  EXPECT_EQ(exchange, 77U);
  Bytes last(54, 0);  // behind the byte that makes the positions meet
  const Bytes one = frame(1, {0x7E});
  last.insert(last.end(), one.begin(), one.end());
  hid_.answer(last);
  EXPECT_EQ(device_->get_led_status(), 0x7E);
}

TEST_F(ScriptedDevice, APayloadThatNoCommandHasIsRefused) {
  OpenHardKeyMouse::Answer answer;
  const Bytes large(kMaxRequestPayloadBytes + 1);
  EXPECT_EQ(device_->_send_msg_to_hid(DeviceCommand::kFirmware, large, 10, &answer), -1);
  EXPECT_EQ(device_->_send_msg_to_hid(DeviceCommand::kRawMouse, large, 10, nullptr), -1);
  EXPECT_TRUE(hid_.writes.empty());
}

TEST_F(ScriptedDevice, ThePackIndexRunsFrom256To65535AndNoCommandMovesIt) {
  EXPECT_EQ(device_->pack_index, 256);
  device_->send_keyboard({});
  EXPECT_EQ(device_->pack_index, 256);
  device_->_inc_pack_index();
  EXPECT_EQ(device_->pack_index, 257);
  device_->pack_index = 65535;
  device_->_inc_pack_index();
  EXPECT_EQ(device_->pack_index, 256);
}

TEST_F(ScriptedDevice, ATextOfMoreThanTwentyBytesIsRefusedAndNothingIsSent) {
  EXPECT_EQ(device_->send_set_dev_info("123456789012345678901"), -1);
  EXPECT_TRUE(hid_.writes.empty());
  answer({0});
  EXPECT_EQ(device_->send_set_dev_info("12345678901234567890"), 0);
  EXPECT_EQ(hid_.writes.at(0).size(), 1 + 9 + 20U);
}

// What `action` logs; without an open file lines go to standard output.
template <typename Action>
std::string logged(Action action) {
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

TEST_F(ScriptedDevice, TheGreetingsOutcomeIsLogged) {
  device_.reset();
  const auto greet = [] { makeRef<hard_key_mouse>(g_vid, g_pid); };
  EXPECT_THAT(logged(greet), EndsWith("\t* Error *\thid hand shake failed !\n"));
  answer({});
  EXPECT_THAT(logged(greet), EndsWith("\t- Info  -\thid hand shake success!\n"));
}

TEST_F(ScriptedDevice, FailedFirmwareExchangesAreLoggedWithResultAndLength) {
  const auto greet = [&] { device_->new_firmware_handshake({}); };
  EXPECT_THAT(logged(greet), EndsWith("\t* Error *\t[new_firmware_handshake] nRet=-1, recv_size=0\n"));
  answer({5, 6, 7});
  EXPECT_THAT(logged(greet), EndsWith("\t* Error *\t[new_firmware_handshake] nRet=0, recv_size=3\n"));
  answer({0});
  EXPECT_EQ(logged(greet), "");

  upgrade_args_ex_type chunk;
  chunk.id = 38;
  chunk.total = 40;
  const auto send = [&] { device_->upgrade_firmware(chunk); };
  EXPECT_THAT(logged(send), EndsWith("\t* Error *\t[upgrade_firmware] id=38, total=40, nRet=-1, recv_size=0\n"));
  answer({1, 0});
  EXPECT_THAT(logged(send), EndsWith("\t* Error *\t[upgrade_firmware] id=38, total=40, nRet=0, recv_size=2\n"));
  answer({0});
  EXPECT_EQ(logged(send), "");
  chunk.id = 39;
  EXPECT_EQ(logged(send), "") << "the last one's failure is none";
}

TEST_F(ScriptedDevice, ARefusedNameIsLogged) {
  EXPECT_THAT(logged([&] { device_->send_set_dev_info(std::string(21, 'n')); }), HasSubstr("\t* Error *\t"));
  answer({0});
  EXPECT_EQ(logged([&] { device_->send_set_dev_info(std::string(20, 'n')); }), "");
}

TEST(HardKeyMouseAlone, WithoutADeviceEverythingFailsAtOnce) {
  settleDecoder();
  const ScopedVirtualClock clock;
  const ScriptedHid hid;
  const auto device = makeRef<OpenHardKeyMouse>(g_vid, g_pid);
  vx_led_status_def led;
  _get_dev_info_reply reply;
  std::string version = "x";
  upgrade_args_ex_type chunk;
  chunk.total = 2;
  EXPECT_FALSE(device->device_opened());
  EXPECT_EQ(device->topology(), "");
  EXPECT_EQ(device->shake_hand(), -1);
  EXPECT_EQ(device->send_abs_mouse({}), -1);
  EXPECT_EQ(device->send_keyboard({}), -1);
  EXPECT_EQ(device->send_rla_mouse({.x = 1000}), -1);
  EXPECT_EQ(device->send_new_mouse_logic_abs_mouse({}), -1);
  EXPECT_EQ(device->set_vx_led_status(led), -1);
  EXPECT_EQ(device->get_vx_led_status(&led), -1);
  EXPECT_EQ(device->set_led_status(1), -1);
  EXPECT_EQ(device->get_led_status(), -1);
  EXPECT_EQ(device->new_firmware_handshake({}), -1);
  EXPECT_EQ(device->upgrade_firmware(chunk), -1);
  EXPECT_EQ(device->get_dev_info(&reply, &version), -1);
  EXPECT_EQ(device->send_set_dev_info("x"), -1);
  EXPECT_EQ(device->version_text(), "");
  EXPECT_EQ(hid.writes.size(), 0U);
}

TEST(HardKeyMouseAlone, IsReferenceCounted) {
  settleDecoder();
  ScriptedHid hid;
  hid.present = {{g_vid, g_pid}};
  auto* const device = new hard_key_mouse(g_vid, g_pid);
  EXPECT_EQ(device->AddRef(), 1);
  EXPECT_EQ(device->AddRef(), 2);
  EXPECT_EQ(device->Release(), 1);
  EXPECT_EQ(hid.closes, 0);
  EXPECT_EQ(device->Release(), 0);
  EXPECT_EQ(hid.closes, 1);
}

}  // namespace
}  // namespace mirn
