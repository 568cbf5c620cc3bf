// Every command of both plug-ins, through the Flutter Linux adapter.
#include <flutter_mirn/flutter_mirn_plugin.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "plugin_fixture.h"
#include "tests/unit/device_proxy/hex_text.h"

namespace mirn {
namespace {

class FlutterChannel : public FlutterPluginTest {};

// First: the one manager keeps the size that others set.
TEST_F(FlutterChannel, EveryCommandAnswersWithoutADevice) {
  unplug();
  const CallOutcome texture = call("createTexture");
  EXPECT_TRUE(std::holds_alternative<int64_t>(texture.value));
  EXPECT_NE(texture.asInt(), 0);
  expectNull(call("bindTexture", {{"textureId", texture.value}}));
  expectNull(call("releaseTexture"));
  EXPECT_EQ(call("getSize").at("width"), Value(0.0));
  EXPECT_EQ(call("getSize").at("height"), Value(0.0));
  EXPECT_TRUE(presenceBecomes(false));
  EXPECT_FALSE(call("initKmProxy").asBool(true));
  EXPECT_FALSE(call("open").asBool(true));
  EXPECT_EQ(call("getDeviceList").listSize(), 0U);
  EXPECT_FALSE(call("setVideoQuality", {{"quality", Value("720P")}}).asBool(true));
  expectNull(call("setLedStatus", {{"ledStatus", Value(int32_t{1})}}));
  EXPECT_EQ(call("getMirnDevInfo").value, Value(ValueList{}));
  EXPECT_EQ(call("setMirnDevInfo", {{"name", Value("Desk")}}).asInt(-9), 0);
  EXPECT_EQ(call("reqUpgradeFirmware", {{"path", Value("/nonexistent.hex")}}).value, Value(int32_t{-4}));
  expectNull(call("normalColor"));
  expectNull(call("bestColor"));
  expectNull(call("keyDown", {{"key", Value(int32_t{65})}}));
  expectNull(call("keyUp", {{"key", Value(int32_t{65})}}));
  const Value one(int32_t{1});
  expectNull(call("mouseMove", {{"x", one}, {"y", one}}));
  expectNull(call("mouseEventButtons", {{"x", one}, {"y", one}, {"type", Value("lbdown")}}));
  expectNull(call("mouseWheel", {{"x", one}, {"y", one}, {"delta", one}}));
  expectNull(call("release"));
  EXPECT_EQ(call("getUpgradeProgress").value, Value(ValueList{}));
}

TEST_F(FlutterChannel, EveryCommandAnswersWithADevice) {
  EXPECT_TRUE(call("initKmProxy").asBool());
  EXPECT_TRUE(call("open").asBool());
  const CallOutcome texture = call("createTexture");
  EXPECT_TRUE(std::holds_alternative<int64_t>(texture.value)) << "the id is an address: 64 bits";
  expectNull(call("releaseTexture"));
  const CallOutcome devices = call("getDeviceList");
  EXPECT_EQ(devices.listSize(), 1U);
  EXPECT_EQ(devices.at(size_t{0}), Value("Nuvra Mirn"));
  EXPECT_TRUE(presenceBecomes(true));
  EXPECT_TRUE(call("setVideoQuality", {{"quality", Value("720P")}}).asBool());
  expectNull(call("setLedStatus", {{"ledStatus", Value(int32_t{1})}}));
  EXPECT_EQ(setup_.mirn().led().status, 1);
  const CallOutcome info = call("getMirnDevInfo");
  EXPECT_EQ(info.listSize(), 4U);
  EXPECT_EQ(call("setMirnDevInfo", {{"name", Value("Desk")}}).asInt(-9), 0);
  EXPECT_EQ(setup_.mirn().name(), "Desk");
  expectNull(call("bindTexture", {{"textureId", texture.value}}));
  expectNull(call("normalColor"));
  expectNull(call("bestColor"));
  expectNull(call("keyDown", {{"key", Value(int32_t{65})}}));
  expectNull(call("keyUp", {{"key", Value(int32_t{65})}}));
  expectNull(call("mouseMove", {{"x", Value(int32_t{10})}, {"y", Value(int32_t{20})}}));
  EXPECT_EQ(call("getSize").at("width"), Value(1280.0));
  EXPECT_EQ(call("getSize").at("height"), Value(720.0));
  EXPECT_EQ(call("getUpgradeProgress").kind, CallOutcome::Kind::kSuccess);
  EXPECT_TRUE(runLoopUntil([&] { return setup_.target().text() == "a"; }, kPatience));
  expectNull(call("release"));
}

TEST_F(FlutterChannel, PresenceFollowsThePlug) {
  EXPECT_TRUE(presenceBecomes(true));
  unplug();
  EXPECT_TRUE(presenceBecomes(false));
  replug();
  EXPECT_TRUE(presenceBecomes(true));
}

// An application's whole upgrade: HEX file in, progress, the new version by a new handshake.
TEST_F(FlutterChannel, AnUpgradeGoesThrough) {
  const std::string folder = testing::TempDir() + "flutter_upgrade" + std::to_string(getpid()) + "/";
  std::filesystem::create_directory(folder);
  setenv("TMPDIR", folder.c_str(), 1);
  std::vector<uint8_t> image = testImage(3000);
  constexpr std::string_view kMark = "MIRN-VERSION=2.1.0";
  std::copy(kMark.begin(), kMark.end(), image.begin());
  image[kMark.size()] = 0;
  std::ofstream(folder + "image.hex") << hexFile(image, 16, "\r\n");

  ASSERT_TRUE(call("initKmProxy").asBool());
  EXPECT_EQ(call("getMirnDevInfo").at(3), Value("1.0.0"));
  ASSERT_TRUE(call("open").asBool());
  EXPECT_EQ(call("reqUpgradeFirmware", {{"path", Value(folder + "image.hex")}}).value, Value(int32_t{1}));
  EXPECT_TRUE(runLoopUntil([&] { return setup_.mirn().firmware().completed == 1; }, kPatience));
  // The number of the last chunk, and how many there were.
  EXPECT_TRUE(runLoopUntil(
      [&] {
        const CallOutcome progress = call("getUpgradeProgress");
        return progress.at(size_t{0}) == Value(int32_t{2}) && progress.at(size_t{1}) == Value(int32_t{3});
      },
      kPatience));
  image.resize(3 * 1024);
  EXPECT_EQ(setup_.mirn().firmware().image, image);
  // The picture's configuration is free again.
  EXPECT_TRUE(call("setVideoQuality", {{"quality", Value("1080P")}}).asBool());
  EXPECT_EQ(setup_.camera().configurationLocks(), 0);
  ASSERT_TRUE(call("initKmProxy").asBool());
  EXPECT_EQ(call("getMirnDevInfo").at(3), Value("2.1.0"));
  unsetenv("TMPDIR");
  std::filesystem::remove_all(folder);
}

TEST_F(FlutterChannel, AnUpgradeThatFailsSaysSo) {
  EXPECT_EQ(call("reqUpgradeFirmware", {{"path", Value("/nonexistent.hex")}}).value, Value(int32_t{-4}));
  ASSERT_TRUE(call("initKmProxy").asBool());
  EXPECT_EQ(call("reqUpgradeFirmware", {{"path", Value("/nonexistent.hex")}}).value, Value(int32_t{0}));
  EXPECT_EQ(setup_.mirn().firmware().completed, 0U);
}

TEST_F(FlutterChannel, FireAndForgetCommandsAreAnsweredEmptyHereAndOnlyOnce) {
  EXPECT_TRUE(call("initKmProxy").asBool());
  const uint64_t before = engine().responsesSent();
  expectNull(call("mouseMove", {{"x", Value(int32_t{1})}, {"y", Value(int32_t{2})}}));
  expectNull(
      call("mouseEventButtons", {{"x", Value(int32_t{1})}, {"y", Value(int32_t{2})}, {"type", Value("lbdown")}}));
  expectNull(call("mouseWheel", {{"x", Value(int32_t{1})}, {"y", Value(int32_t{2})}, {"delta", Value(int32_t{1})}}));
  expectNull(call("mouseMove", {{"x", Value(int32_t{1})}}));
  EXPECT_EQ(engine().responsesSent(), before + 4);
  EXPECT_EQ(engine().unansweredHandles(), 0U);
}

TEST_F(FlutterChannel, ArgumentsThatAreNoDictionaryAreAnsweredAsEachCommandDoes) {
  for (const char* method :
       {"setLedStatus", "bindTexture", "keyUp", "keyDown", "mouseMove", "mouseEventButtons", "mouseWheel"}) {
    SCOPED_TRACE(method);
    expectNoDictionary(call(method, Value(int32_t{5})));
  }
  EXPECT_EQ(call("setVideoQuality", Value("720P")).value, Value(int32_t{0}));
  EXPECT_EQ(call("setMirnDevInfo").value, Value(int32_t{-2}));
  EXPECT_EQ(call("setMirnDevInfo", ChannelClient::Arguments{}).value, Value(int32_t{-3}));
  EXPECT_EQ(call("reqUpgradeFirmware").value, Value(int32_t{-2}));
  EXPECT_EQ(call("reqUpgradeFirmware", ChannelClient::Arguments{}).value, Value(int32_t{-3}));
  expectNull(call("noSuchCommand"));
}

TEST_F(FlutterChannel, WhatIsNoMethodCallIsAnsweredEmptyAndChangesNothing) {
  for (const MessageBytes& bytes :
       {MessageBytes{}, MessageBytes{0xFF}, MessageBytes{7, 200, 'x'}, MessageBytes{0, 0}}) {
    EXPECT_EQ(send(bytes).kind, CallOutcome::Kind::kNotImplemented);
  }
  EXPECT_EQ(engine().unansweredHandles(), 0U);
}

TEST_F(FlutterChannel, TheSecondPluginServesTheChannelWhenItIsRegisteredLast) {
  g_autoptr(FlPluginRegistrar) registrar =
      fl_plugin_registry_get_registrar_for_plugin(engine().registry(), "FlutterMirnPlugin");
  flutter_mirn_plugin_register_with_registrar(registrar);
  EXPECT_EQ(engine().handlers(), 1U);
  EXPECT_EQ(call("getPlatformVersion").asText().rfind("macOS ", 0), 0U);
  EXPECT_EQ(call("captureFrame").code, "CAPTURE_FAILED");
  EXPECT_EQ(call("open").code, "INVALID_ARGUMENT");
  EXPECT_EQ(call("getWidth").asInt(), 640);
  EXPECT_EQ(call("getHeight").asInt(), 480);
  EXPECT_EQ(call("keyDown").kind, CallOutcome::Kind::kNotImplemented);
  EXPECT_EQ(call("getDeviceList").value, Value(ValueList{"Nuvra Mirn"}));
  const Value size(std::vector<int32_t>{1920, 1080});
  EXPECT_EQ(call("setResolution").code, "INVALID_ARGUMENT");
  EXPECT_EQ(call("setResolution", size).value, Value(false)) << "no device is held";
  ASSERT_TRUE(call("open", Value(std::vector<int32_t>{0})).asBool());
  EXPECT_EQ(call("setResolution", size).value, Value(true));
  EXPECT_EQ(call("setResolution", Value(std::vector<int32_t>{1921, 1080})).value, Value(false));
  ASSERT_TRUE(setup_.camera().step());
  CallOutcome frame;
  ASSERT_TRUE(runLoopUntil(
      [&] {
        frame = call("captureFrame");
        return frame.ok();
      },
      kPatience));
  EXPECT_EQ(std::get<std::vector<uint8_t>>(frame.at("data")).size(), 640U * 480U * 3U);
  expectNull(call("release"));
}

TEST_F(FlutterChannel, TwoEnginesShareTheDevice) {
  EXPECT_TRUE(call("initKmProxy").asBool());
  const auto first = std::move(engine_);
  startEngine();
  expectNull(call("keyDown", {{"key", Value(int32_t{66})}}));
  EXPECT_TRUE(runLoopUntil([&] { return setup_.target().text() == "b"; }, kPatience));
}

TEST_F(FlutterChannel, EnginesMayComeAndGo) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(call("createTexture").asInt() != 0);
    engine().send("flutter_mirn", encodeMethodCall("getSize", Value()), [](const auto&) { FAIL() << "too late"; });
    engine().shutdown();
    EXPECT_EQ(engine().handlers(), 0U);
    startEngine();
  }
}

}  // namespace
}  // namespace mirn
