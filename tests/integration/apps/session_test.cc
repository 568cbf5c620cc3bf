// What reaches the device when a program connects, upgrades and connects again: counted from before the connection.
#include "apps/common/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <variant>

#include "apps/common/gated_input.h"
#include "apps/common/virtual_world.h"
#include "device/hard_key_mouse.h"
#include "host/main_loop.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::chrono::seconds kPatience{20};
constexpr int kX = 23893;
constexpr int kY = 9102;

// A process has one world; the cases leave it as they find it.
VirtualWorld& world() {
  static VirtualWorld* const world = [] {
    VirtualOptions options;
    options.devices = 2;
    std::string error;
    VirtualWorld* made = VirtualWorld::create(options, &error);
    EXPECT_NE(made, nullptr) << error;
    return made;
  }();
  return *world;
}

// Keyboard and pointer records, in words.
std::vector<std::string> inputAfter(const VirtualMirn& device, uint64_t number) {
  std::vector<std::string> words;
  for (const VirtualReceived& received : device.receivedAfter(number)) {
    if (const auto* keys = std::get_if<VirtualKeyboard>(&received.record)) {
      words.emplace_back(*keys == VirtualKeyboard{} ? "all keys up" : "key down");
    } else if (const auto* mouse = std::get_if<VirtualMouse>(&received.record)) {
      words.push_back((mouse->left + mouse->right + mouse->middle == 0 ? "up " : "down ") + std::to_string(mouse->x) +
                      "," + std::to_string(mouse->y));
    }
  }
  return words;
}

class SessionTest : public testing::Test {
 protected:
  SessionTest() {
    world();
    before_ = device().receivedCount();
  }
  ~SessionTest() override {
    hostReleaseProxy();
    session_.closePicture();
    for (size_t index : {0U, 1U}) {
      world().setup().camera(index).setBusy(false);
      world().setup().camera(index).setDenied(false);
      world().replug(index);
    }
  }

  static VirtualMirn& device() { return world().mirn(); }
  std::vector<std::string> input() const { return inputAfter(device(), before_); }

  void connect(Session& session) {
    ASSERT_TRUE(runLoopUntil([&] { return session.isPlugged(); }, kPatience));
    ASSERT_TRUE(session.connectKeyboard());
    ASSERT_TRUE(runLoopUntil([&] { return session.releasesAnswered(); }, kPatience));
  }
  void put(Session& session, int x, int y) {
    uint64_t sent = hostLinkStatistics().mouseSent;
    session.input().mouseButton("lbdown", x, y);
    session.input().mouseButton("lbup", x, y);
    ASSERT_TRUE(runLoopUntil([&] { return hostLinkStatistics().mouseSent == sent + 2; }, kPatience));
    ASSERT_TRUE(pointerAt(x, y));
    before_ = device().receivedCount();
  }
  static bool pointerAt(int x, int y) { return device().input().x == x && device().input().y == y; }

  uint64_t before_ = 0;
  Session session_;
};

std::vector<std::string> releasesAt(int x, int y) {
  std::string up = "up " + std::to_string(x) + "," + std::to_string(y);
  return {"all keys up", up, up, up};
}

TEST_F(SessionTest, TheFirstConnectionReleasesEverythingInTheMiddle) {
  connect(session_);
  EXPECT_EQ(input(), releasesAt(16383, 16383));
}

TEST_F(SessionTest, ANewProxyReleasesEverythingWhereThePointerIs) {
  connect(session_);
  put(session_, kX, kY);
  hostReleaseProxy();  // a proxy that goes may let go of the keys itself
  before_ = device().receivedCount();
  connect(session_);
  EXPECT_EQ(input(), releasesAt(kX, kY));
  EXPECT_TRUE(pointerAt(kX, kY));
}

TEST_F(SessionTest, AfterRepluggingThePointerIsPutBack) {
  connect(session_);
  put(session_, kX, kY);
  hostReleaseProxy();
  world().unplug();
  world().unplug(1);
  ASSERT_TRUE(runLoopUntil([&] { return !session_.isPlugged(); }, kPatience));
  world().replug();
  before_ = device().receivedCount();
  connect(session_);
  EXPECT_EQ(input(), releasesAt(kX, kY));
  EXPECT_TRUE(pointerAt(kX, kY));
}

TEST_F(SessionTest, WithoutAProxyAskingForInformationReleasesWhereThePointerIs) {
  connect(session_);
  put(session_, kX, kY);
  hostReleaseProxy();
  before_ = device().receivedCount();
  ASSERT_TRUE(session_.info());
  ASSERT_TRUE(runLoopUntil([&] { return session_.releasesAnswered(); }, kPatience));
  EXPECT_EQ(input(), releasesAt(kX, kY));
}

TEST_F(SessionTest, AnUpgradeReleasesBeforeItsFirstChunkAndLeavesThePointer) {
  connect(session_);
  put(session_, kX, kY);
  session_.input().keyDown(65);
  std::string path = testing::TempDir() + "session-upgrade.bin";
  std::ofstream(path) << "MIRN-VERSION=1.2.3" << std::string(1, '\0') << std::string(2000, 'x');
  uint64_t whole = device().firmware().completed;
  ASSERT_EQ(session_.startUpgrade(path), 1);
  ASSERT_TRUE(runLoopUntil([&] { return device().firmware().completed > whole; }, kPatience));
  std::vector<std::string> expected = releasesAt(kX, kY);
  expected.insert(expected.begin(), "key down");
  EXPECT_EQ(input(), expected);
  bool chunk = false;
  for (const VirtualReceived& received : device().receivedAfter(before_)) {
    chunk = chunk || std::holds_alternative<VirtualFirmwareChunk>(received.record);
    EXPECT_FALSE(chunk && std::holds_alternative<VirtualMouse>(received.record)) << "a release behind a chunk";
  }
  EXPECT_TRUE(chunk);
  connect(session_);
  EXPECT_TRUE(pointerAt(kX, kY));
  std::remove(path.c_str());
}

TEST_F(SessionTest, WhatACrashLeftHeldIsLetGoByTheNextStart) {
  // Another program's connection, which lets nothing go.
  hard_key_mouse crashed(g_vid, g_pid);
  ASSERT_EQ(crashed.send_keyboard({.keys = {4}}), 0);
  ASSERT_EQ(crashed.send_abs_mouse({.type = kMouseLeftDown, .x = kX, .y = kY, .left = 1}), 0);
  ASSERT_EQ(device().input().buttons, 1);
  before_ = device().receivedCount();
  connect(session_);
  EXPECT_EQ(device().input().buttons, 0);
  EXPECT_EQ(device().input().keys, (std::array<uint8_t, 6>{}));
  EXPECT_EQ(input(), releasesAt(16383, 16383));
}

TEST_F(SessionTest, AProgramThatLeavesThePointerAloneReleasesKeysAlone) {
  Session keys(Release::kKeys);
  connect(keys);
  EXPECT_THAT(input(), ElementsAre("all keys up"));
}

class OneOfTwoTest : public SessionTest, public testing::WithParamInterface<size_t> {};

TEST_P(OneOfTwoTest, AMirnThatIsUnpluggedLeavesTheOtherPlugged) {
  size_t gone = GetParam();
  auto flag = [&] { return session_.channel().call("isVidPidExist").asBool(); };
  ASSERT_TRUE(runLoopUntil(flag, kPatience));
  ASSERT_TRUE(session_.isPlugged());
  world().unplug(gone);
  ASSERT_TRUE(runLoopUntil([&] { return !flag(); }, kPatience)) << "the command's answer is of the last event";
  EXPECT_TRUE(session_.isPlugged());
  EXPECT_TRUE(session_.facts().present);
  EXPECT_FALSE(session_.upgradeFacts().present) << "it may be the one that restarts after its upgrade";
  EXPECT_EQ(session_.departures(), 1U);
  EXPECT_TRUE(runLoopUntil([&] { return session_.upgradeFacts().present; }, kPatience)) << "not for ever";
  world().unplug(1 - gone);
  EXPECT_TRUE(runLoopUntil([&] { return !session_.isPlugged(); }, kPatience));
  EXPECT_EQ(session_.departures(), 1U) << "the flag had gone before";
  world().replug(gone);
  EXPECT_TRUE(runLoopUntil([&] { return session_.isPlugged(); }, kPatience));
}

INSTANTIATE_TEST_SUITE_P(Either, OneOfTwoTest, testing::Values(0U, 1U));

TEST_F(SessionTest, AnOpenThatFailedLeavesNothingBehindAndCanBeTriedAgain) {
  struct Trouble {
    void (VirtualCaptureDevice::*set)(bool);
    OpenFailure failure;
  };
  VirtualCaptureDevice& camera = world().setup().camera(0);
  for (const Trouble& trouble : {Trouble{&VirtualCaptureDevice::setBusy, OpenFailure::kBusy},
                                 Trouble{&VirtualCaptureDevice::setDenied, OpenFailure::kPermission}}) {
    (camera.*trouble.set)(true);
    EXPECT_FALSE(session_.openPicture());
    EXPECT_FALSE(session_.pictureRuns());
    EXPECT_EQ(session_.facts().failure, trouble.failure);
    EXPECT_FALSE(hostSessionStatistics().open) << "no session object";
    EXPECT_EQ(hostCaptureTopologyPath(), "") << "no camera";
    (camera.*trouble.set)(false);
    EXPECT_TRUE(session_.openPicture());
    EXPECT_TRUE(session_.pictureRuns());
    EXPECT_NE(session_.waitForPicture({}, kPatience), nullptr);
    session_.closePicture();
  }
}

TEST_F(SessionTest, ACameraThatIsNotThereIsToldFromOneThatIsRefused) {
  session_.texture();
  world().setup().camera(0).setBusy(true);
  ASSERT_FALSE(session_.openPicture());
  world().setup().camera(0).unplug();
  world().setup().camera(1).unplug();
  EXPECT_FALSE(session_.openPicture());
  DeviceFacts facts = session_.facts();
  EXPECT_EQ(facts.failure, OpenFailure::kNotFound);
  EXPECT_EQ(facts.failure_detail, "") << "the last error was another camera's";
}

// The first device's camera is away: the second one's is opened beside the first one's keyboard interface.
class MismatchTest : public SessionTest {
 protected:
  void open() {
    world().setup().camera(0).unplug();
    session_.texture();
    ASSERT_TRUE(session_.openPicture());
    ASSERT_NE(session_.waitForPicture({}, kPatience), nullptr);
  }
};

TEST_F(MismatchTest, NothingAtAllGoesIntoAnotherComputerThanTheOneOnTheScreen) {
  open();
  GatedInput gate(
      session_.input(), [] { return false; }, [] {}, &keyboardIsElsewhere);
  ASSERT_TRUE(session_.isPlugged());
  ASSERT_TRUE(session_.connectKeyboard());
  ASSERT_TRUE(keyboardIsElsewhere());
  gate.gateChanged(kX, kY);
  gate.releaseEverything(kX, kY);
  EXPECT_TRUE(session_.releasesAnswered()) << "none is waited for";
  // An exchange of its own: whatever was queued before it would have had its turn.
  ASSERT_TRUE(session_.info());
  session_.input().keyUp(0);
  uint64_t answered = hostLinkStatistics().keyboardSent;
  ASSERT_TRUE(
      runLoopUntil([&] { return hostLinkStatistics().keyboardSent > answered || !input().empty(); }, kPatience));
  EXPECT_THAT(input(), ElementsAre("all keys up")) << "this test's own";
}

TEST_F(MismatchTest, WhatWasOwedFollowsWhenBothBelongTogether) {
  open();
  GatedInput gate(
      session_.input(), [] { return true; }, [] {}, &keyboardIsElsewhere);
  ASSERT_TRUE(session_.isPlugged());
  ASSERT_TRUE(session_.connectKeyboard());
  gate.gateChanged(kX, kY);
  EXPECT_THAT(input(), IsEmpty());
  world().setup().camera(0).replug();
  session_.closePicture();
  ASSERT_TRUE(session_.openPicture());
  ASSERT_FALSE(keyboardIsElsewhere());
  gate.gateChanged(kX, kY);
  ASSERT_TRUE(runLoopUntil([&] { return input().size() == 4; }, kPatience));
  EXPECT_EQ(input(), releasesAt(kX, kY));
}

}  // namespace
}  // namespace mirn
