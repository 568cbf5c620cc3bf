// The second plug-in with a device: frames as raw bytes.
#include <gtest/gtest.h>

#include "embedding/plugin_registrar.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "tests/integration/channel/channel_world.h"
#include "tests/unit/embedding/notation.h"

namespace mirn::test {
namespace {

WorldOptions secondPlugin() {
  WorldOptions options;
  options.second_plugin = true;
  return options;
}

std::string noFrame() {
  return hexOf(encodeError("CAPTURE_FAILED", "No frame available", Value()));
}

TEST(SecondPlugin, GrabsFrames) {
  ChannelWorld world(secondPlugin());
  EXPECT_EQ(world.reply("getDeviceList"), success(ValueList{"Nuvra Mirn"}));
  EXPECT_EQ(world.reply("captureFrame"), noFrame());
  EXPECT_EQ(world.reply("open", ValueList{7, 8, 9}), success(true));
  EXPECT_TRUE(world.eventually([&] { return world.reply("captureFrame").starts_with("00"); }));
  EXPECT_EQ(world.reply("setResolution", ValueList{1920, 1080}), success(true));
  EXPECT_EQ(world.reply("setResolution", ValueList{1921, 1080}), success(false));
  EXPECT_EQ(world.reply("getWidth"), success(640));
  EXPECT_EQ(world.reply("getHeight"), success(480));
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_EQ(world.reply("setResolution", ValueList{1920, 1080}), success(false)) << "no device is held";
  // The last frame stays. Its bytes: a map of three, both sizes as 32-bit integers, then 921,600 bytes.
  EXPECT_TRUE(world.reply("captureFrame")
                  .starts_with("000d03"
                               "07057769647468"
                               "0380020000"
                               "0706686569676874"
                               "03e0010000"
                               "070464617461"
                               "08ff00100e00"));
  const Value frame = world.value("captureFrame");
  ASSERT_EQ(frame.asMap()->size(), 3U);
  EXPECT_EQ(*(*frame.asMap())[0].first.asText(), "width");
  EXPECT_TRUE(alike((*frame.asMap())[0].second, int32_t{640}));
  EXPECT_EQ(*(*frame.asMap())[1].first.asText(), "height");
  EXPECT_TRUE(alike((*frame.asMap())[1].second, int32_t{480}));
  EXPECT_EQ(*(*frame.asMap())[2].first.asText(), "data");
  EXPECT_EQ(std::get<std::vector<uint8_t>>((*frame.asMap())[2].second).size(), 921600U);
  EXPECT_EQ(world.reply("open", ValueList{0}), success(true));
  EXPECT_EQ(world.reply("release"), success());
}

// Two engines, one plug-in each: what one has grabbed the other has not.
TEST(SecondPlugin, EachInstanceHasACameraOfItsOwn) {
  ChannelWorld world(secondPlugin());
  Engine other;
  registerFlutterMirnPlugin(other.makeRegistrar());
  const auto askOther = [&other](std::string_view method, const Value& arguments = {}) {
    return hexOf(other.deliver("flutter_mirn", encodeMethodCall(method, arguments)).bytes);
  };
  EXPECT_EQ(world.reply("open", ValueList{0}), success(true));
  EXPECT_TRUE(world.eventually([&] { return world.reply("captureFrame").starts_with("00"); }));
  EXPECT_EQ(askOther("captureFrame"), noFrame());
  EXPECT_EQ(askOther("setResolution", ValueList{1280, 720}), success(false)) << "it holds no device";
  EXPECT_EQ(askOther("release"), success());
  EXPECT_EQ(world.reply("setResolution", ValueList{1280, 720}), success(true)) << "it still holds its own";
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_EQ(askOther("captureFrame"), noFrame());
}

TEST(SecondPlugin, ABackEndInUseByItsCameraStays) {
  ChannelWorld world(secondPlugin());
  EXPECT_EQ(world.reply("open", ValueList{0}), success(true));
  EXPECT_FALSE(hostInstallCaptureSystem(nullptr));
  EXPECT_FALSE(hostInstallClock(nullptr));
  EXPECT_EQ(world.reply("getDeviceList"), success(ValueList{"Nuvra Mirn"}));
  EXPECT_EQ(world.reply("release"), success());
  EXPECT_TRUE(hostInstallCaptureSystem(&world.setup().capture()));
}

}  // namespace
}  // namespace mirn::test
