// Every command with a device: channel bytes in, what the device received and what the textures show out.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "tests/integration/channel/channel_world.h"
#include "tests/integration/channel/file_reads.h"
#include "tests/unit/embedding/notation.h"
#include "video/mirn_texture.h"

namespace mirn::test {
namespace {

using Keys = std::array<uint8_t, 6>;

class WithADevice : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(world_.reply("initKmProxy"), success(true));
    begin_ = mirn().receivedCount();
  }

  VirtualMirn& mirn() { return world_.mirn(); }

  // What the device got of one kind since SetUp, as soon as there are `count` of them.
  template <typename Record>
  std::vector<Record> atLeast(size_t count) {
    EXPECT_TRUE(world_.eventually([&] { return world_.received<Record>(begin_).size() >= count; }));
    return world_.received<Record>(begin_);
  }

  // Everything submitted so far has reached the device: a key-up of its own comes behind it.
  void flush() {
    const size_t before = world_.received<VirtualKeyboard>(begin_).size();
    world_.reply("keyUp", ValueMap{{"key", 0}});
    EXPECT_TRUE(world_.eventually([&] { return world_.received<VirtualKeyboard>(begin_).size() > before; }));
  }

  std::string temporaryFile(const std::string& name, const std::string& content) {
    std::string path = testing::TempDir() + name + std::to_string(getpid());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  ChannelWorld world_;
  uint64_t begin_ = 0;
};

TEST_F(WithADevice, InitKmProxyGreetsTheDeviceAndAsksForItsInformation) {
  EXPECT_EQ(world_.received<VirtualHandshake>().size(), 1U);
  EXPECT_EQ(world_.received<VirtualGetInfo>().size(), 1U);
  EXPECT_EQ(world_.reply("initKmProxy"), success(true));
  EXPECT_EQ(world_.received<VirtualHandshake>().size(), 2U);
  EXPECT_EQ(world_.setup().hid().openHandles(), 1U);
}

TEST_F(WithADevice, TheInformationIsAListOfFourTexts) {
  mirn().setName("Desk");
  mirn().setIdText("ABCDEFGHIJKL");
  mirn().setFlag(1);
  EXPECT_EQ(world_.reply("getMirnDevInfo"), success(ValueList{"Desk", "ABCDEFGHIJKL", "1", "1.0.0"}));
  mirn().setIdText("");
  mirn().setFlag(2);
  mirn().setName("");
  EXPECT_EQ(world_.reply("getMirnDevInfo"), success(ValueList{"", "", "0", "1.0.0"}));
  // Twenty bytes fill their field to the end.
  mirn().setName("12345678901234567890");
  EXPECT_EQ(world_.reply("getMirnDevInfo"), success(ValueList{"12345678901234567890", "", "0", "1.0.0"}));
}

TEST_F(WithADevice, ATextOfTheDeviceThatIsNoTextBecomesEmpty) {
  for (const char* bad : {"\xFF\xFE", "half \xC3", "\xC0\xAF", "\xED\xA0\x80"}) {
    mirn().setName(bad);
    mirn().setIdText(bad);
    EXPECT_EQ(world_.reply("getMirnDevInfo"), success(ValueList{"", "", "1", "1.0.0"})) << bad;
  }
}

TEST_F(WithADevice, TheFirstQueryForInformationOpensTheDevice) {
  hostReleaseProxy();
  EXPECT_EQ(world_.setup().hid().openHandles(), 0U);
  EXPECT_EQ(world_.value("getMirnDevInfo").asList()->size(), 4U);
  EXPECT_EQ(world_.setup().hid().openHandles(), 1U);
}

TEST_F(WithADevice, SettingTheNameAnswersZeroWhateverTheDeviceSays) {
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", "Büro"}}), success(0));
  EXPECT_EQ(mirn().name(), "Büro");
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("refuse=7@1", &plan, &error)) << error;
  mirn().setFaultPlan(plan);
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", "Other"}}), success(0));
  EXPECT_EQ(mirn().name(), "Büro");
  // More than twenty bytes are refused before anything is sent.
  const uint64_t before = mirn().receivedCount();
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", "123456789012345678901"}}), success(0));
  EXPECT_EQ(mirn().receivedCount(), before);
}

TEST_F(WithADevice, TheLedGetsTheLowEightBits) {
  EXPECT_EQ(world_.reply("setLedStatus", ValueMap{{"ledStatus", 0x1A5}}), success());
  EXPECT_EQ(mirn().led().status, 0xA5);
  EXPECT_EQ(hostLedStatus(), 0xA5);
  EXPECT_EQ(world_.reply("setLedStatus", ValueMap{{"ledStatus", "3 of them"}}), success());
  EXPECT_EQ(mirn().led().status, 3);
  EXPECT_EQ(world_.reply("setLedStatus", ValueMap{}), success());
  EXPECT_EQ(mirn().led().status, 0);
}

TEST_F(WithADevice, KeysArriveAsUsages) {
  EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", 65}}), success());
  EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", 16}}), success());
  EXPECT_EQ(world_.reply("keyUp", ValueMap{{"key", 65}}), success());
  const auto records = atLeast<VirtualKeyboard>(3);
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0], (VirtualKeyboard{0, Keys{0x04}}));
  EXPECT_EQ(records[1], (VirtualKeyboard{0x02, Keys{0x04}}));
  EXPECT_EQ(records[2], (VirtualKeyboard{0x02, Keys{}}));
}

TEST_F(WithADevice, AKeyDownWithoutAKeySendsNothingAndAKeyUpWithoutOneLetsEverythingGo) {
  world_.reply("keyDown", ValueMap{{"key", 66}});
  ASSERT_EQ(atLeast<VirtualKeyboard>(1).size(), 1U);
  EXPECT_EQ(world_.reply("keyDown", ValueMap{}), success());
  EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", Value()}}), success());
  EXPECT_EQ(world_.reply("keyUp", ValueMap{}), success());
  const auto records = atLeast<VirtualKeyboard>(2);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[1], VirtualKeyboard{});
}

TEST_F(WithADevice, AKeyCodeTravelsWhole) {
  world_.reply("keyDown", ValueMap{{"key", 66}});
  world_.reply("keyUp", ValueMap{{"key", 0x10000}});  // not 0, which would let everything go
  const auto records = atLeast<VirtualKeyboard>(2);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[1], records[0]);
}

TEST_F(WithADevice, NumbersOfEveryKindNameAKey) {
  const std::vector<Value> sixty_fives = {65, int64_t{65}, (int64_t{1} << 32) + 65, 65.9, "65", " 65 and more"};
  for (const Value& key : sixty_fives) {
    EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", key}}), success());
    EXPECT_EQ(world_.reply("keyUp", ValueMap{{"key", key}}), success());
  }
  const auto records = atLeast<VirtualKeyboard>(2 * sixty_fives.size());
  ASSERT_EQ(records.size(), 2 * sixty_fives.size());
  for (size_t i = 0; i < sixty_fives.size(); ++i) {
    EXPECT_EQ(records[2 * i], (VirtualKeyboard{0, Keys{0x04}})) << "spelling " << i;
    EXPECT_EQ(records[2 * i + 1], VirtualKeyboard{}) << "spelling " << i;
  }
}

TEST_F(WithADevice, OneMoveInSevenIsSentAndTheLastOneGoesInFrontOfAButton) {
  for (int i = 1; i <= 8; ++i) EXPECT_EQ(world_.reply("mouseMove", ValueMap{{"x", i * 100}, {"y", i}}), "no-reply");
  EXPECT_EQ(world_.reply("mouseEventButtons", ValueMap{{"x", 900}, {"y", 9}, {"type", "lbdown"}}), "no-reply");
  const auto records = atLeast<VirtualMouse>(3);
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].x, 700);
  EXPECT_EQ(records[1].x, 800);
  EXPECT_EQ(records[2].x, 900);
  EXPECT_EQ(records[1].left, 0);
  EXPECT_EQ(records[2].left, 1);
}

TEST_F(WithADevice, AMoveWithOneKeyMissingDoesNothing) {
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(world_.reply("mouseMove", ValueMap{{"x", 1}}), "no-reply");
    EXPECT_EQ(world_.reply("mouseMove", ValueMap{{"x", 1}, {"y", Value()}}), "no-reply");
    EXPECT_EQ(world_.reply("mouseWheel", ValueMap{{"x", 1}, {"y", 1}}), "no-reply");
    EXPECT_EQ(world_.reply("mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", 1}}), "no-reply");
  }
  flush();
  EXPECT_TRUE(world_.received<VirtualMouse>(begin_).empty());
}

TEST_F(WithADevice, EachButtonWordPressesItsButton) {
  for (const char* word : {"lbdown", "rbdown", "mbdown", "lbup", "rbup", "mbup"}) {
    world_.reply("mouseEventButtons", ValueMap{{"x", 5}, {"y", 6}, {"type", word}});
  }
  const auto records = atLeast<VirtualMouse>(6);
  ASSERT_EQ(records.size(), 6U);
  EXPECT_EQ(records[0].left, 1);
  EXPECT_EQ(records[1].right, 1);
  EXPECT_EQ(records[2].middle, 1);
  EXPECT_EQ(records[3].left, 0);
  EXPECT_EQ(records[4].right, 0);
  EXPECT_EQ(records[5].middle, 0);
  for (const VirtualMouse& record : records) {
    EXPECT_EQ(record.x, 5);
    EXPECT_EQ(record.y, 6);
  }
}

TEST_F(WithADevice, OtherButtonWordsDoNothing) {
  for (const char* word : {"LBDOWN", "lbdown ", "", "x1down", "lb"}) {
    EXPECT_EQ(world_.reply("mouseEventButtons", ValueMap{{"x", 5}, {"y", 6}, {"type", word}}), "no-reply");
  }
  flush();
  EXPECT_TRUE(world_.received<VirtualMouse>(begin_).empty());
}

TEST_F(WithADevice, DeltasBelowOneAreANotchUp) {
  for (const int delta : {-120, 0, 1, 120}) {
    world_.reply("mouseWheel", ValueMap{{"x", 1}, {"y", 2}, {"delta", delta}});
  }
  const auto records = atLeast<VirtualMouse>(4);
  ASSERT_EQ(records.size(), 4U);
  EXPECT_EQ(records[0].wheel, records[1].wheel);
  EXPECT_EQ(records[2].wheel, records[3].wheel);
  EXPECT_EQ(records[0].wheel, -records[2].wheel);
  EXPECT_NE(records[0].wheel, 0);
}

TEST_F(WithADevice, AnImageGoesOutInChunksAndTheProgressIsThatOfTheLastOneSent) {
  EXPECT_EQ(world_.reply("getUpgradeProgress"), success(ValueList{0, 0}));
  const std::string image(2500, 'i');
  const std::string path = temporaryFile("image.bin", image);
  EXPECT_EQ(world_.reply("reqUpgradeFirmware", ValueMap{{"path", path}}), success(1));
  const auto chunks = atLeast<VirtualFirmwareChunk>(3);
  ASSERT_EQ(chunks.size(), 3U);
  EXPECT_EQ(chunks[2].id, 2);
  EXPECT_EQ(chunks[2].total, 3);
  EXPECT_EQ(std::string(chunks[2].data.begin(), chunks[2].data.begin() + 452), std::string(452, 'i'));
  EXPECT_TRUE(world_.eventually([&] { return world_.reply("getUpgradeProgress") == success(ValueList{2, 3}); }));
  EXPECT_EQ(mirn().firmware().completed, 1U);
  // Without a connection the list is empty; the pair is still there after the next one.
  hostReleaseProxy();
  EXPECT_EQ(world_.reply("getUpgradeProgress"), success(ValueList{}));
  EXPECT_EQ(world_.reply("initKmProxy"), success(true));
  EXPECT_EQ(world_.reply("getUpgradeProgress"), success(ValueList{2, 3}));
  std::filesystem::remove(path);
}

TEST_F(WithADevice, AFileThatIsNotThereAnswersZero) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(world_.reply("reqUpgradeFirmware", ValueMap{{"path", "/nowhere/image.bin"}}), success(0));
  EXPECT_EQ(world_.reply("reqUpgradeFirmware", ValueMap{{"path", ""}}), success(0));
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("reqUpgradeFirmware send upgrade data finished, bRet=0\n"), std::string::npos) << printed;
}

TEST_F(WithADevice, AnUpgradeNeedsTheCameraForItself) {
  ASSERT_EQ(world_.reply("open"), success(true));
  const std::string path = temporaryFile("image2.bin", std::string(10, 'i'));
  EXPECT_EQ(world_.reply("reqUpgradeFirmware", ValueMap{{"path", path}}), success(1));
  EXPECT_EQ(world_.setup().camera().configurationLocks(), 0);
  std::filesystem::remove(path);
}

// Nobody may change the picture's format while the image is read and queued, to its last byte.
TEST_F(WithADevice, AnUpgradeHoldsTheConfigurationWhileItReadsItsFile) {
  ASSERT_EQ(world_.reply("open"), success(true));
  const std::string path = temporaryFile("image3.bin", std::string(2500, 'i'));
  const FileReads reads(path, [this] { return world_.setup().camera().configurationLocks(); });
  EXPECT_EQ(world_.reply("reqUpgradeFirmware", ValueMap{{"path", path}}), success(1));
  const std::vector<int> locks = reads.observed();
  EXPECT_GE(locks.size(), 4U) << "three chunks and the end";
  EXPECT_EQ(locks, std::vector<int>(locks.size(), 1));
  EXPECT_EQ(world_.setup().camera().configurationLocks(), 0);
  std::filesystem::remove(path);
}

// A key that occurs twice has its last value; a null is no value.
TEST_F(WithADevice, ADoubledArgumentWithALastNullIsMissing) {
  mirn().setName("Before");
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", "Other"}, {"name", Value()}}), success(-3));
  EXPECT_EQ(mirn().name(), "Before");
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", Value()}, {"name", "After"}}), success(0));
  EXPECT_EQ(mirn().name(), "After");
  EXPECT_EQ(world_.reply("setMirnDevInfo", ValueMap{{"name", "Other"}, {"name", 7}}), success(-3)) << "no text";
  EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", 65}, {"key", Value()}}), success());
  EXPECT_EQ(world_.reply("mouseMove", ValueMap{{"x", 1}, {"y", 2}, {"y", Value()}}), "no-reply");
  EXPECT_EQ(world_.reply("bindTexture", ValueMap{{"textureId", 1}, {"textureId", Value()}}), argumentsError());
  EXPECT_EQ(world_.reply("keyDown", ValueMap{{"key", Value()}, {"key", 66}}), success());
  const auto records = atLeast<VirtualKeyboard>(1);
  ASSERT_EQ(records.size(), 1U) << "the key without a value was not pressed";
  EXPECT_EQ(records[0].keys, (Keys{5}));
  EXPECT_TRUE(world_.received<VirtualMouse>(begin_).empty());
}

TEST_F(WithADevice, PresenceFollowsThePlug) {
  EXPECT_EQ(world_.reply("isVidPidExist"), success(true));
  world_.unplug();
  EXPECT_TRUE(world_.eventually([&] { return world_.reply("isVidPidExist") == success(false); }));
  world_.replug();
  EXPECT_TRUE(world_.eventually([&] { return world_.reply("isVidPidExist") == success(true); }));
}

TEST_F(WithADevice, BothTexturesShowThePicture) {
  const int64_t first = std::get<int64_t>(world_.value("createTexture"));
  const int64_t second = std::get<int64_t>(world_.value("createTexture"));
  EXPECT_NE(first, second);
  EXPECT_EQ(world_.reply("getDeviceList"), success(ValueList{"Nuvra Mirn"}));
  EXPECT_EQ(world_.reply("bindTexture", ValueMap{{"textureId", first}}), success());
  EXPECT_EQ(world_.reply("open"), success(true));
  Engine& engine = world_.engine();
  EXPECT_TRUE(world_.eventually(
      [&] { return engine.latestPicture(first) != nullptr && engine.latestPicture(second) != nullptr; }));
  EXPECT_EQ(world_.reply("release"), success());
  // releaseTexture does nothing: both are still there.
  EXPECT_EQ(world_.reply("releaseTexture"), success());
  EXPECT_EQ(engine.textureCount(), 2U);
  destroyTexture(first);
  destroyTexture(second);
  EXPECT_EQ(engine.textureCount(), 0U);
}

TEST_F(WithADevice, QualityAndColourChooseTheFormat) {
  const int64_t texture = std::get<int64_t>(world_.value("createTexture"));
  EXPECT_EQ(world_.reply("setVideoQuality", ValueMap{{"quality", "720P"}}), success(false));
  ASSERT_EQ(world_.reply("open"), success(true));
  EXPECT_EQ(world_.reply("getSize"), success(ValueMap{{"width", 0.0}, {"height", 0.0}}));
  const auto expect = [&](int width, int height, const char* subtype) {
    const CaptureFormatRef format = world_.setup().camera().activeFormat();
    ASSERT_NE(format, nullptr);
    EXPECT_EQ(format->width, width);
    EXPECT_EQ(format->height, height);
    EXPECT_EQ(fourCharText(format->mediaSubtype), subtype);
    EXPECT_EQ(world_.reply("getSize"),
              success(ValueMap{{"width", static_cast<double>(width)}, {"height", static_cast<double>(height)}}));
  };
  EXPECT_EQ(world_.reply("setVideoQuality", ValueMap{{"quality", "720P"}}), success(true));
  expect(1280, 720, "420v");
  EXPECT_EQ(world_.reply("bestColor"), success());
  expect(1280, 720, "yuvs");
  EXPECT_EQ(world_.reply("setVideoQuality", ValueMap{{"quality", "1080P"}}), success(true));
  expect(1920, 1080, "yuvs");
  EXPECT_EQ(world_.reply("normalColor"), success());
  expect(1920, 1080, "420v");
  EXPECT_TRUE(world_.eventually([&] {
    const PixelBufferRef picture = world_.engine().latestPicture(texture);
    return picture != nullptr && picture->width() == 1920 && picture->height() == 1080;
  }));
  EXPECT_EQ(world_.reply("setVideoQuality", ValueMap{{"quality", "720p"}}), success(false));
  expect(1920, 1080, "420v");
}

// The main thread is in the middle of a slow exchange; the texture goes all the same, with frames arriving.
TEST_F(WithADevice, ATextureGoesFromAnotherThreadWhileTheMainThreadIsBusy) {
  const int64_t texture = std::get<int64_t>(world_.value("createTexture"));
  ASSERT_EQ(world_.reply("open"), success(true));
  ASSERT_TRUE(world_.eventually([&] { return world_.engine().latestPicture(texture) != nullptr; }));
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("delay=150@1", &plan, &error)) << error;
  mirn().setFaultPlan(plan);
  std::atomic<bool> busy{true};
  std::atomic<bool> gone_while_busy{false};
  std::thread destroyer([&] {
    destroyTexture(texture);
    gone_while_busy = busy.load() && world_.engine().textureCount() == 0;
  });
  world_.reply("setLedStatus", ValueMap{{"ledStatus", 1}});
  busy = false;
  destroyer.join();
  EXPECT_TRUE(gone_while_busy);
  EXPECT_EQ(world_.reply("release"), success());
}

TEST_F(WithADevice, TexturesComeAndGoFromManyThreadsWhileFramesArrive) {
  ASSERT_EQ(world_.reply("open"), success(true));
  for (int round = 0; round < 20; ++round) {
    std::vector<int64_t> ids;
    ids.reserve(4);
    for (int i = 0; i < 4; ++i) ids.push_back(std::get<int64_t>(world_.value("createTexture")));
    std::vector<std::thread> threads;
    threads.reserve(ids.size());
    for (const int64_t id : ids) threads.emplace_back([id] { destroyTexture(id); });
    world_.reply("getSize");
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(world_.engine().textureCount(), 0U);
}

TEST_F(WithADevice, ASecondEngineSharesTheConnection) {
  Engine other;
  registerFlutterMirnPluginCApi(other.makeRegistrar());
  const ChannelReply reply = other.deliver("flutter_mirn", encodeMethodCall("getMirnDevInfo", Value()));
  EXPECT_EQ(reply.kind, ChannelReply::Kind::kReply);
  EXPECT_EQ(world_.setup().hid().openHandles(), 1U);
  // The first one goes; manager and connection stay.
  world_.closeEngine();
  EXPECT_EQ(hexOf(other.deliver("flutter_mirn", encodeMethodCall("keyDown", ValueMap{{"key", 65}})).bytes), success());
  EXPECT_TRUE(world_.eventually([&] { return !world_.received<VirtualKeyboard>(begin_).empty(); }));
}

// A texture that its engine left in the maps: later frames and its end reach nobody, and nothing breaks.
TEST_F(WithADevice, ATextureMayOutliveItsEngine) {
  const int64_t texture = std::get<int64_t>(world_.value("createTexture"));
  world_.closeEngine();
  Engine other;
  registerFlutterMirnPluginCApi(other.makeRegistrar());
  EXPECT_EQ(hexOf(other.deliver("flutter_mirn", encodeMethodCall("open", Value())).bytes), success(true));
  EXPECT_TRUE(world_.eventually([] { return hostSessionStatistics().framesDelivered > 2; }));
  destroyTexture(texture);
  EXPECT_EQ(hexOf(other.deliver("flutter_mirn", encodeMethodCall("release", Value())).bytes), success());
}

TEST_F(WithADevice, HostsSeeWhatNoCommandCarries) {
  EXPECT_FALSE(hostSessionStatistics().open);
  EXPECT_EQ(hostCaptureTopologyPath(), "");
  ASSERT_EQ(world_.reply("open"), success(true));
  ASSERT_TRUE(world_.eventually([] { return hostSessionStatistics().framesDelivered > 0; }));
  const HostSessionStatistics session = hostSessionStatistics();
  EXPECT_TRUE(session.open);
  EXPECT_TRUE(session.running);
  EXPECT_EQ(session.deviceName, "Nuvra Mirn");
  EXPECT_EQ(session.width, 1920);
  EXPECT_EQ(session.height, 1080);
  EXPECT_GE(session.framesCaptured, session.framesDelivered);
  EXPECT_GE(session.newestFrameAgeNs, 0);
  EXPECT_EQ(hostCaptureTopologyPath(), world_.setup().camera().topologyPath());
  EXPECT_NE(hostHidTopologyPath(), "");
  const uint64_t sent = hostLinkStatistics().keyboardSent;
  world_.reply("keyDown", ValueMap{{"key", 65}});
  EXPECT_TRUE(world_.eventually([sent] { return hostLinkStatistics().keyboardSent == sent + 1; }));
  EXPECT_TRUE(hostLinkStatistics().proxy);
  // Back ends in use stay.
  EXPECT_FALSE(hostInstallHidFunctions(nullptr));
  EXPECT_FALSE(hostInstallCaptureSystem(nullptr));
  EXPECT_FALSE(hostInstallClock(nullptr));
  EXPECT_EQ(world_.reply("release"), success());
  EXPECT_FALSE(hostSessionStatistics().open);
}

TEST(OpeningFails, HostsLearnWhereAndWhy) {
  WorldOptions options;
  options.camera.busy = true;
  ChannelWorld world(options);
  EXPECT_EQ(world.reply("open"), success(false));
  const HostOpenError error = hostLastOpenError();
  EXPECT_EQ(error.code, EBUSY);
  EXPECT_EQ(error.node, world.setup().camera().nodeName());
  EXPECT_FALSE(error.reason.empty());
  world.setup().camera().setBusy(false);
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_EQ(world.reply("open"), success(true));
  EXPECT_EQ(hostLastOpenError().code, 0);
}

TEST(HexCheck, TellsExactFilesFromOthers) {
  const std::string path = testing::TempDir() + "check" + std::to_string(getpid()) + ".hex";
  std::ofstream(path) << ":0400000001020304F2\r\n:00000001FF\r\n";
  HostHexCheck check = hostCheckHexFile(path);
  EXPECT_TRUE(check.hexFile);
  EXPECT_TRUE(check.exact) << check.reason;
  EXPECT_EQ(check.imageBytes, 4U);
  std::ofstream(path) << ":0400000001020304F3\r\n:00000001FF\r\n";
  check = hostCheckHexFile(path);
  EXPECT_FALSE(check.exact);
  EXPECT_EQ(check.line, 1U);
  EXPECT_FALSE(check.reason.empty());
  std::filesystem::remove(path);
  EXPECT_FALSE(hostCheckHexFile(path).exact);
  EXPECT_FALSE(hostCheckHexFile("/some/image.bin").hexFile);
}

}  // namespace
}  // namespace mirn::test
