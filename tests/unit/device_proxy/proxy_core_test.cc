#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Kind = Outcome::Kind;

class ProxyCoreTest : public ProxyTest {
 protected:
  // Moves to (first, 0), (first + 1, 0), ...
  void moves(int first, int count) {
    for (int i = 0; i < count; ++i) EXPECT_EQ(proxy_->MouseMove(first + i, 0, false), 0);
  }
};

std::string absolute(int x, const char* buttons = "000") {
  return "abs " + std::to_string(x) + " 0 lrm " + buttons + " wheel 0";
}
std::string relative(int x) {
  return "rel " + std::to_string(x) + " 0 lrm 000 wheel 0";
}
std::string raw(int x) {
  return "raw " + std::to_string(x) + " 0 buttons 0 wheel 0";
}

constexpr char kNoKeys[] = "keys 00 00 00 00 00 00 mod 00";

FaultPlan plan(const std::string& text) {
  FaultPlan result;
  std::string error;
  EXPECT_TRUE(FaultPlan::parse(text, &result, &error)) << error;
  return result;
}

// ---- Thinning ----

TEST_F(ProxyCoreTest, OfSevenAbsoluteMovesOnlyTheSeventhIsSent) {
  start();
  moves(1, 7);
  EXPECT_THAT(arrived(), ElementsAre(absolute(7)));
  proxy_->MouseLButtonDown(50, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(50, "100"))) << "nothing is held back";
}

TEST_F(ProxyCoreTest, AButtonSendsTheHeldMoveFirst) {
  start();
  moves(1, 8);
  EXPECT_THAT(arrived(), ElementsAre(absolute(7)));
  proxy_->MouseLButtonDown(50, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(8), absolute(50, "100")));
}

TEST_F(ProxyCoreTest, OnlyTheNewestHeldMoveIsSent) {
  start();
  moves(1, 13);
  proxy_->MouseLButtonDown(50, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(7), absolute(13), absolute(50, "100")));
  // The counter starts anew.
  moves(20, 6);
  EXPECT_THAT(arrived(), IsEmpty());
  moves(26, 1);
  EXPECT_THAT(arrived(), ElementsAre(absolute(26, "100")));
}

TEST_F(ProxyCoreTest, KeyWheelAndChunkFlushTheHeldMoveTheHandshakeDoesNot) {
  start("2.0.0");
  moves(1, 3);
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(3), kNoKeys));
  moves(4, 1);
  proxy_->MouseWheelUp(9, 0, 120);
  EXPECT_THAT(arrived(), ElementsAre(absolute(4), "abs 9 0 lrm 000 wheel -1"));
  moves(5, 2);
  EXPECT_EQ(proxy_->ReqUpgradeFirmwareHandShake(), 1);
  EXPECT_THAT(arrived(), ElementsAre("greeting"));
  EXPECT_EQ(proxy_->UpgradeFirmware(uint16_t{0}, 1, nullptr, 0), 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(6), "chunk 0/1"));
}

TEST_F(ProxyCoreTest, DirectOperationsAndOperationsThatSendNothingFlushNothing) {
  start();
  moves(1, 3);
  proxy_->GetLedStatus();
  proxy_->MouseX1ButtonUp(0, 0);
  proxy_->MouseX2ButtonDown(0, 0);
  proxy_->MouseLButtonUp(nullptr);
  EXPECT_THAT(arrived(), ElementsAre("led?"));
}

TEST_F(ProxyCoreTest, InRelativeModeEverySecondMoveIsSent) {
  start();
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetRelativeOrigin(100, 0, 0);
  proxy_->SetMouseMoveRelative(true);
  // The first one after switching on counts as (0, 0).
  moves(1, 5);
  EXPECT_THAT(arrived(), ElementsAre(relative(2), relative(4)));
  proxy_->MouseWheelDown(0, 0, 0);
  EXPECT_THAT(arrived(), ElementsAre(relative(5), "rel 0 0 lrm 000 wheel 1"));
}

TEST_F(ProxyCoreTest, ARelativeCallThinsAsRelativeModeDoes) {
  start();
  proxy_->Init({{0, 0, 32767, 32767}});
  for (int i = 1; i <= 4; ++i) proxy_->MouseMove(i, 0, true);
  EXPECT_THAT(arrived(), ElementsAre(relative(2), relative(4)));
}

TEST_F(ProxyCoreTest, MirnMovesOfTheFirstFirmwareAreHalvedAndFramed) {
  start("1.0.0");
  proxy_->SetMirnMouseMove(true);
  moves(1, 5);
  EXPECT_THAT(arrived(), ElementsAre(absolute(2), absolute(4)));
  proxy_->MouseRButtonDown(9, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(5), absolute(9, "010")));
}

TEST_F(ProxyCoreTest, MirnMovesOfALaterFirmwareAllGoOutRaw) {
  for (const char* version : {"1.0.1", "1.0.00", "1.0", "2.1.0"}) {
    start(version);
    proxy_->SetMirnMouseMove(true);
    moves(1, 4);
    EXPECT_THAT(arrived(), ElementsAre(raw(1), raw(2), raw(3), raw(4))) << version;
    proxy_->MouseLButtonDown(5, 0);
    moves(6, 1);
    EXPECT_THAT(arrived(), ElementsAre("raw 5 0 buttons 1 wheel 0", "raw 6 0 buttons 1 wheel 0")) << version;
  }
}

TEST_F(ProxyCoreTest, TheRelativeFlagWinsOverTheRawReport) {
  start("2.0.0");
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->SetMirnMouseMove(true);
  proxy_->MouseMove(3, 0, true);
  proxy_->MouseMove(4, 0, true);
  EXPECT_THAT(arrived(), ElementsAre(relative(3), relative(4))) << "not thinned, but relative";
}

TEST_F(ProxyCoreTest, SwitchingTheModeWithMovesHeldBackNeverOverrunsTheLimit) {
  start("1.0.0");
  moves(1, 5);
  proxy_->SetMirnMouseMove(true);
  moves(6, 1);
  EXPECT_THAT(arrived(), ElementsAre(absolute(6))) << "six counted, above the limit of two";
  proxy_->SetMirnMouseMove(false);
  moves(7, 6);
  proxy_->SetMouseMoveRelative(true);
  proxy_->MouseMove(13, 0, false);
  EXPECT_THAT(arrived(), ElementsAre(relative(0)));
}

TEST_F(ProxyCoreTest, AMoveOfALaterFirmwareDropsTheOneHeldBackBefore) {
  start("2.0.0");
  moves(1, 3);
  proxy_->SetMirnMouseMove(true);
  moves(4, 1);
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(raw(4), kNoKeys));
}

TEST_F(ProxyCoreTest, TheFlagsOfAMoveAreThoseOfItsSubmission) {
  start("2.0.0");
  moves(1, 1);
  proxy_->SetMirnMouseMove(true);
  proxy_->MouseLButtonDown(2, 0);
  EXPECT_THAT(arrived(), ElementsAre(absolute(1), "raw 2 0 buttons 1 wheel 0"));
}

// A long random walk against the rule, written as a list of decisions.
TEST_F(ProxyCoreTest, ThinningFollowsTheRuleInEveryMixture) {
  for (const char* version : {"1.0.0", "1.2.0"}) {
    start(version);
    const bool first_firmware = std::string(version) == "1.0.0";
    std::mt19937 random(7);
    std::vector<std::string> expected;
    std::string held;
    int counter = 0;
    bool mirn = false;
    for (int i = 0; i < 4000; ++i) {
      const int action = static_cast<int>(random() % 20);
      if (action == 0) {
        mirn = !mirn;
        proxy_->SetMirnMouseMove(mirn);
      } else if (action <= 2) {
        if (counter > 0) expected.push_back(held);
        counter = 0;
        proxy_->KeyBoardUp(0, 0);
        expected.push_back(kNoKeys);
      } else {
        moves(i, 1);
        const std::string record = mirn && !first_firmware ? raw(i) : absolute(i);
        const int limit = mirn ? (first_firmware ? 1 : 0) : 6;
        if (++counter > limit) {
          expected.push_back(record);
          counter = 0;
        } else {
          held = record;
        }
      }
    }
    EXPECT_EQ(arrived(), expected) << version;
  }
}

// ---- Queue and listener ----

TEST_F(ProxyCoreTest, EachTaskIsReportedOnceByItsKindOnTheSendingThread) {
  start("1.1.0");
  proxy_->MouseLButtonDown(1, 2);
  proxy_->KeyBoardDown(0, 'A');
  proxy_->ReqUpgradeFirmwareHandShake();
  const uint8_t data[3] = {1, 2, 3};
  proxy_->UpgradeFirmware(uint16_t{0}, 7, data, 3);
  proxy_->drain();
  EXPECT_THAT(listener_.outcomes(), ElementsAre(Outcome{Kind::kMouse, 0}, Outcome{Kind::kKeyboard, 0},
                                                Outcome{Kind::kHandshake, 0}, Outcome{Kind::kUpgrade, 0, 0, 7}));
  EXPECT_EQ(listener_.upgrade_steps, 0);
  const std::vector<std::thread::id> threads = listener_.threads();
  EXPECT_THAT(threads, Each(threads.front()));
  EXPECT_NE(threads.front(), std::this_thread::get_id());
}

TEST_F(ProxyCoreTest, OtherKindsOfTasksRunAndAreNotReported) {
  start();
  proxy_->drain();
  EXPECT_EQ(listener_.count(), 0u);
}

TEST_F(ProxyCoreTest, WithoutAListenerEverythingIsSentAllTheSame) {
  start();
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(nullptr);
  proxy_->initKeyMap();
  seen_ = mirn_->receivedCount();
  proxy_->KeyBoardDown(0, 'A');
  EXPECT_THAT(arrived(), ElementsAre("keys 04 00 00 00 00 00 mod 00"));
}

TEST_F(ProxyCoreTest, AFailingTaskStopsNeitherTheLoopNorTheQueue) {
  start();
  mirn_->setFaultPlan(plan("drop@1;refuse=3@2;corrupt@3;write-error@4"));
  for (int i = 0; i < 6; ++i) proxy_->KeyBoardUp(0, 0);
  proxy_->drain();
  EXPECT_THAT(listener_.outcomes(),
              ElementsAre(Outcome{Kind::kKeyboard, -1}, Outcome{Kind::kKeyboard, -1}, Outcome{Kind::kKeyboard, -1},
                          Outcome{Kind::kKeyboard, -1}, Outcome{Kind::kKeyboard, 0}, Outcome{Kind::kKeyboard, 0}));
}

TEST_F(ProxyCoreTest, WithoutADeviceConstructionSucceedsAndEverythingFails) {
  start();
  mirn_->unplug();
  proxy_.reset();
  const size_t heard = listener_.count();  // of the first proxy's releases, as many as its thread has taken
  proxy_ = std::make_unique<TestProxy>(&listener_);
  proxy_->initKeyMap();
  proxy_->KeyBoardDown(0, 'A');
  proxy_->MouseLButtonDown(0, 0);
  EXPECT_EQ(proxy_->ReqUpgradeFirmwareHandShake(), 1) << "no version is not the first one";
  proxy_->UpgradeFirmware(uint16_t{0}, 2, nullptr, 0);
  proxy_->UpgradeFirmware(uint16_t{1}, 2, nullptr, 0);
  proxy_->drain();
  std::vector<Outcome> outcomes = listener_.outcomes();
  outcomes.erase(outcomes.begin(), outcomes.begin() + static_cast<std::ptrdiff_t>(heard));
  EXPECT_THAT(outcomes,
              ElementsAre(Outcome{Kind::kKeyboard, -1}, Outcome{Kind::kMouse, -1}, Outcome{Kind::kHandshake, -1},
                          Outcome{Kind::kUpgrade, -1, 0, 2}, Outcome{Kind::kUpgrade, 0, 1, 2}))
      << "the last chunk counts as accepted";
  _get_dev_info_reply info{};
  std::string version = "unchanged";
  EXPECT_EQ(proxy_->GetDevInfo(info, version), -1);
  EXPECT_EQ(proxy_->SendSetDevInfo("name"), -1);
  EXPECT_EQ(proxy_->GetLedStatus(), -1);
  EXPECT_EQ(proxy_->SetLedStatus(1), -1);
  vx_info_type vx;
  EXPECT_EQ(proxy_->GetVXInfo(vx), -1);
  EXPECT_EQ(proxy_->SetVXLedStatus({1, 2}), 0) << "its outcome is never told";
  EXPECT_EQ(proxy_->DeviceTopology(), "");
}

TEST_F(ProxyCoreTest, AfterUnpluggingTheProxyNeverComesBackANewOneDoes) {
  start();
  mirn_->unplug();
  mirn_->plug();
  proxy_->KeyBoardUp(0, 0);
  proxy_->drain();
  EXPECT_THAT(listener_.outcomes(), ElementsAre(Outcome{Kind::kKeyboard, -1}));
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(&listener_);
  proxy_->KeyBoardUp(0, 0);
  proxy_->drain();
  EXPECT_EQ(listener_.outcomes().back(), (Outcome{Kind::kKeyboard, 0}));
}

TEST_F(ProxyCoreTest, AFirstFirmwareGetsNoGreeting) {
  start("1.0.0");
  EXPECT_EQ(proxy_->ReqUpgradeFirmwareHandShake(), 0);
  EXPECT_THAT(arrived(), IsEmpty());
  EXPECT_EQ(listener_.count(), 0u);
}

TEST_F(ProxyCoreTest, AChunkIsZeroBehindItsLengthAndCutAt1024) {
  start();
  const std::vector<uint8_t> data(2000, 0xCC);
  proxy_->UpgradeFirmware(uint16_t{0}, 3, data.data(), 5);
  proxy_->UpgradeFirmware(uint16_t{1}, 3, data.data(), 2000);
  proxy_->UpgradeFirmware(uint16_t{2}, 3, data.data(), 0);
  proxy_->drain();
  const std::vector<VirtualReceived> received = mirn_->receivedAfter(seen_);
  ASSERT_EQ(received.size(), 3u);
  std::vector<uint8_t> expected(1024, 0);
  EXPECT_EQ(std::get<VirtualFirmwareChunk>(received[2].record).data, expected);
  std::fill_n(expected.begin(), 5, 0xCC);
  EXPECT_EQ(std::get<VirtualFirmwareChunk>(received[0].record).data, expected);
  EXPECT_EQ(std::get<VirtualFirmwareChunk>(received[1].record).data, std::vector<uint8_t>(1024, 0xCC));
}

TEST_F(ProxyCoreTest, AWidePathUpgradesNothing) {
  start();
  EXPECT_EQ(proxy_->UpgradeFirmware(L"/tmp/image.hex"), 0);
  EXPECT_THAT(arrived(), IsEmpty());
}

// ---- Direct operations ----

TEST_F(ProxyCoreTest, DirectOperationsRunOnTheCallersThreadAndPassTheQueue) {
  start("3.1.4");
  EXPECT_EQ(proxy_->SetLedStatus(5), 0);
  EXPECT_EQ(proxy_->GetLedStatus(), 5);
  EXPECT_EQ(proxy_->SetVXLedStatus({0x102, 300}), 0);
  vx_info_type vx;
  EXPECT_EQ(proxy_->GetVXInfo(vx), 0);
  EXPECT_EQ(vx.version, "3.1.4");
  EXPECT_EQ(vx.detail, "virtual-mirn");
  EXPECT_EQ(vx.led.status, 2u) << "one byte travels";
  EXPECT_EQ(vx.led.param, 300);
  EXPECT_EQ(proxy_->SendSetDevInfo("Fred"), 0);
  EXPECT_EQ(proxy_->SendSetDevInfo("one that is far too long"), -1);
  _get_dev_info_reply info{};
  std::string version;
  EXPECT_EQ(proxy_->GetDevInfo(info, version), 0);
  EXPECT_STREQ(info.info_text, "Fred");
  EXPECT_EQ(std::string(info.id_text, 12), "VM0000000001");
  EXPECT_EQ(info.flag, 1);
  EXPECT_EQ(version, "3.1.4");
  EXPECT_EQ(proxy_->DeviceTopology(), "virtual-1");
  EXPECT_EQ(listener_.count(), 0u);
}

TEST_F(ProxyCoreTest, TheTextsOfTheGreetingAreThereAlsoWhenTheLedCannotBeRead) {
  start("3.1.4");
  mirn_->unplug();
  vx_info_type vx;
  EXPECT_EQ(proxy_->GetVXInfo(vx), -1);
  EXPECT_EQ(vx.version, "3.1.4");
  EXPECT_EQ(vx.detail, "virtual-mirn");
}

TEST_F(ProxyCoreTest, ADirectOperationOvertakesTheQueue) {
  start();
  // The sending thread waits in a task: what is queued behind it can't have run when the LED is read.
  auto reached = std::make_shared<Signal>();
  auto go_on = std::make_shared<Signal>();
  proxy_->addTask(new MarkerTask([reached, go_on] {
    reached->set();
    go_on->wait();
  }));
  ASSERT_TRUE(reached->wait());
  proxy_->KeyBoardUp(0, 0);
  EXPECT_EQ(proxy_->GetLedStatus(), 0);
  go_on->set();
  EXPECT_THAT(arrived(), ElementsAre("led?", kNoKeys));
}

// ---- The thread's own life ----

TEST_F(ProxyCoreTest, AStoppedSendThreadDropsWhatComesAndStartsAgain) {
  start();
  EXPECT_EQ(proxy_->send_thread().Stop(), 1);
  EXPECT_EQ(proxy_->send_thread().Stop(), 1);
  EXPECT_EQ(proxy_->KeyBoardUp(0, 0), 0);
  EXPECT_EQ(proxy_->send_thread().Start(), 1);
  EXPECT_EQ(proxy_->send_thread().Start(), 1) << "running already";
  EXPECT_THAT(arrived(), IsEmpty());
  proxy_->KeyBoardUp(0, 0);
  EXPECT_THAT(arrived(), ElementsAre(kNoKeys));
  // What stopping cuts short goes whole again.
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->MouseMove(0, 0, true);
  proxy_->MouseMove(200, 0, true);
  EXPECT_THAT(arrived(), ElementsAre(relative(127), relative(73)));
  // The form with a time stops as well: it has no limit, and an open queue would make it wait for ever.
  EXPECT_EQ(proxy_->send_thread().Stop(5), 1);
  EXPECT_FALSE(proxy_->send_thread().IsRunning());
}

TEST_F(ProxyCoreTest, AReferenceKeepsTheProxyUntilItIsGivenBack) {
  start();
  KeyMouseProxy* const proxy = proxy_.release();
  EXPECT_EQ(proxy->AddRef(), 1);
  EXPECT_EQ(proxy->AddRef(), 2);
  EXPECT_EQ(proxy->Release(), 1);
  EXPECT_EQ(VirtualHid::instance().openHandles(), 1u);
  EXPECT_EQ(proxy->Release(), 0);
  EXPECT_EQ(VirtualHid::instance().openHandles(), 0u);
}

}  // namespace
}  // namespace mirn
