// Each fault of the link gives exactly its result, and the next good exchange works again.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/unit/device/wire_fixture.h"

namespace mirn {
namespace {

using namespace std::chrono_literals;

class WireFaults : public WireTest {
 protected:
  int key() { return device().send_keyboard({.keys = {4}}); }
};

// Nobody compares answers with questions, and a new connection is no exception: what the device still had to say to the
// one before is the first thing that it hears.
TEST_F(WireFaults, ALateAnswerIsTakenForTheGreetingsByTheNextConnection) {
  mirn_->setLed({0x33, 0});
  faults("delay=1500@1");
  EXPECT_EQ(device().set_led_status(0x33), -1) << "half a second";
  device_.reset();
  mirn_->setFaultPlan({});
  EXPECT_EQ(device().version_text(), "") << "the LED's answer";
  EXPECT_EQ(device().get_led_status(), '1') << "the greeting's, version 1.0.0";
  EXPECT_EQ(device().get_led_status(), 0x33) << "one behind from now on";
}

TEST_F(WireFaults, AConnectionThatBeginsWhenTheDeviceIsDoneIsInStep) {
  mirn_->setLed({0x33, 0});
  faults("delay=1500@1");
  EXPECT_EQ(device().set_led_status(0x33), -1);
  device_.reset();
  mirn_->setFaultPlan({});
  clock_.get().sleepFor(std::chrono::seconds(2));
  EXPECT_EQ(device().version_text(), "1.0.0");
  EXPECT_EQ(device().get_led_status(), 0x33);
}

TEST_F(WireFaults, AnAnswerThatNeverComesEndsWithTheTimeOut) {
  faults("drop@1");
  const auto start = clock().now();
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(elapsed(start), 200ms);
  EXPECT_EQ(records().size(), 1U) << "the device did take it";
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, ALostRequestEndsWithTheTimeOut) {
  faults("lose@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(records().size(), 0U);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, ALateAnswerIsTakenAsTheNextCommandsAnswer) {
  device().set_led_status(0x33);
  faults("delay=300@1");
  EXPECT_EQ(key(), -1);  // its answer (0) comes while the LED query waits
  EXPECT_EQ(device().get_led_status(), 0);
  EXPECT_EQ(key(), -1) << "the LED's answer is still to come: 0x33 is not ok";
  EXPECT_EQ(key(), 0) << "one answer late, but each says ok";
}

TEST_F(WireFaults, AWrongChecksumFailsAndTheNextExchangeWorks) {
  faults("corrupt@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, GarbageInFrontOfTheAnswerIsSkipped) {
  faults("garbage=20@1 garbage=50@2 garbage=200@3");
  EXPECT_EQ(key(), 0);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, GarbageThatFillsTheReportDelaysTheAnswerByOneExchange) {
  faults("garbage=60@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AFrameCutOpenInGarbageIsRestartedByTheNextHead) {
  faults("garbage=xAA0700@1");
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AnEscapeByteInFrontOfTheAnswerSwallowsIt) {
  faults("garbage=xCC@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AnEscapeByteAtAReportsEndSwallowsTheNextAnswer) {
  // 63 zeros and CC: a report of its own in front of the answer
  faults("garbage=x" + std::string(126, '0') + "CC@1");
  EXPECT_EQ(key(), -1);  // the report of garbage
  EXPECT_EQ(key(), -1);  // the first answer, its head swallowed
  EXPECT_EQ(key(), 0);   // the second answer, one exchange late
}

TEST_F(WireFaults, TheSwallowedHeadOutlivesTheCommandLayer) {
  faults("garbage=x" + std::string(126, '0') + "CC@1");
  EXPECT_EQ(key(), -1);
  device_.reset();
  mirn_->setFaultPlan({});
  const auto next = makeRef<OpenHardKeyMouse>(g_vid, g_pid);
  EXPECT_EQ(next->version_text(), "") << "the handshake's answer was swallowed";
  EXPECT_EQ(next->shake_hand(), 0);
}

TEST_F(WireFaults, AFrameSplitOverTwoReportsComesWithTheSecondExchange) {
  faults("split=5@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0) << "the rest of the first answer";
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, ATruncatedAnswerFailsAndTheNextHeadRestarts) {
  faults("truncate=4@1 truncate=9@2");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, ADuplicatedAnswerIsTakenByTheNextExchange) {
  device().set_led_status(0x44);
  faults("duplicate@1");
  EXPECT_EQ(key(), 0);
  EXPECT_EQ(device().get_led_status(), 0) << "the second copy";
  EXPECT_EQ(key(), -1) << "the LED's answer 0x44";
}

TEST_F(WireFaults, ARefusedCommandFailsAndLeavesTheDeviceAlone) {
  faults("refuse=7@1-3");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(device().get_led_status(), 7);
  EXPECT_EQ(device().send_abs_mouse({.x = 5}), -1);
  EXPECT_EQ(mirn_->input(), VirtualInputState{});
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AWriteErrorFailsAtOnce) {
  faults("write-error@1");
  const auto start = clock().now();
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(elapsed(start), 0ms);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AReadErrorFails) {
  faults("read-error@1");
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), 0);
}

TEST_F(WireFaults, AStalledDeviceAnswersLater) {
  faults("stall=100@1");
  EXPECT_EQ(device().send_abs_mouse({}), -1);  // 50 ms
  EXPECT_EQ(key(), 0);                         // the first answer, within 200 ms
}

TEST_F(WireFaults, UnpluggedBeforeTheWriteFailsAtOnceAndStaysFailed) {
  faults("unplug@2");
  EXPECT_EQ(key(), 0);
  const auto start = clock().now();
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(key(), -1);
  mirn_->plug();
  EXPECT_EQ(key(), -1) << "a dead handle never revives";
  EXPECT_EQ(elapsed(start), 0ms);
  device_.reset();
  EXPECT_EQ(key(), 0) << "a new one works";
}

TEST_F(WireFaults, UnpluggedBetweenRequestAndAnswerFailsAtOnce) {
  faults("unplug-after@1");
  const auto start = clock().now();
  EXPECT_EQ(key(), -1);
  EXPECT_EQ(elapsed(start), 0ms);
}

TEST_F(WireFaults, AFailedHandshakeFailsNothingElse) {
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("drop@1", &plan, &error));
  mirn_->setFaultPlan(plan);
  EXPECT_EQ(device().version_text(), "");
  _get_dev_info_reply reply;
  std::string version = "x";
  EXPECT_EQ(device().get_dev_info(&reply, &version), 0);
  EXPECT_EQ(version, "");
}

TEST_F(WireFaults, EveryTimeOutCostsNothingOnAVirtualClock) {
  faults("drop@*");
  upgrade_args_ex_type chunk;
  chunk.total = 1000;
  const auto start = std::chrono::steady_clock::now();
  const auto virtual_start = clock().now();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(device().upgrade_firmware(chunk), -1);
  }
  EXPECT_EQ(elapsed(virtual_start), 1000s);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
}

// Keys from one thread, LED queries from others: the device mutex keeps every answer with its question.
TEST_F(WireFaults, KeysAndLedQueriesRunInParallel) {
#if defined(MIRN_SANITIZED)
  constexpr int kRounds = 300;
#else
  constexpr int kRounds = 3000;
#endif
  device().set_led_status(0x55);
  std::atomic<int> wrong{0};
  std::thread keys([&] {
    for (int i = 0; i < kRounds; ++i) {
      wrong += device().send_keyboard({.keys = {static_cast<uint8_t>(i)}}) != 0 ? 1 : 0;
      wrong += device().send_rla_mouse({.x = 200}) != 0 ? 1 : 0;
    }
  });
  std::vector<std::thread> queries;
  for (int thread = 0; thread < 2; ++thread) {
    queries.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        wrong += device().get_led_status() != 0x55 ? 1 : 0;
        _get_dev_info_reply reply;
        std::string version;
        wrong += device().get_dev_info(&reply, &version) != 0 || version != "1.0.0" ? 1 : 0;
        wrong += i % 16 == 0 && device().shake_hand() != 0 ? 1 : 0;
      }
    });
  }
  keys.join();
  for (std::thread& query : queries) {
    query.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(WireTwoDevices, TheFirstPluggedInWithTheIdentifiersIsOpened) {
  settleDecoder();
  const ScopedVirtualClock clock;
  const auto first = std::make_shared<VirtualMirn>(VirtualMirnSettings{.topology = "virtual-1"});
  const auto second = std::make_shared<VirtualMirn>(VirtualMirnSettings{.topology = "virtual-2"});
  const ScopedVirtualHid hid({first, second});
  EXPECT_EQ(makeRef<hard_key_mouse>(g_vid, g_pid)->topology(), "virtual-1");
  first->unplug();
  EXPECT_EQ(makeRef<hard_key_mouse>(g_vid, g_pid)->topology(), "virtual-2");
  first->plug();
  EXPECT_EQ(makeRef<hard_key_mouse>(g_vid, g_pid)->topology(), "virtual-1");
}

TEST(WireTwoDevices, TheSecondVendorIdentifierFindsADeviceToo) {
  settleDecoder();
  const ScopedVirtualClock clock;
  const auto mirn = std::make_shared<VirtualMirn>(VirtualMirnSettings{.vendor_id = g_fallback_vid});
  const ScopedVirtualHid hid({mirn});
  EXPECT_EQ(makeRef<hard_key_mouse>(g_vid, g_pid)->version_text(), "1.0.0");
}

}  // namespace
}  // namespace mirn
