#include "tests/integration/channel/fault_rows.h"

#include <array>
#include <sstream>

namespace mirn::test {
namespace {

using testing::StartsWith;

// A new texture's id: success, and a 64-bit integer.
constexpr const char* kAnId = "0004";

FaultRow always(const char* method, Value arguments, const ReplyMatcher& reply, bool session = false) {
  return {method, std::move(arguments), reply, reply, reply, session};
}

Value sizeMap(double width, double height) {
  return ValueMap{{"width", width}, {"height", height}};
}

}  // namespace

std::vector<FaultRow> mainFaultRows(ChannelWorld& world, const std::string& image) {
  const std::string none = success();
  const std::string yes = success(true);
  const std::string no = success(false);
  const std::string no_reply = "no-reply";
  const std::string empty_list = success(ValueList{});
  const VirtualMirnSettings mirn = quickMirn();
  const std::string info = success(ValueList{mirn.name, mirn.id_text, "1", mirn.version});
  return {
      always("createTexture", {}, StartsWith(kAnId)),
      always("releaseTexture", {}, none),
      {"getDeviceList", {}, success(ValueList{"Nuvra Mirn"}), success(ValueList{"Nuvra Mirn"}), empty_list, true},
      {"isVidPidExist", {}, yes, yes, no},
      {"initKmProxy", {}, yes, no, no},
      {"setVideoQuality", ValueMap{{"quality", "720P"}}, yes, yes, no, true},
      always("getSize", {}, success(sizeMap(1280, 720)), true),
      always("setLedStatus", ValueMap{{"ledStatus", 1}}, none),
      {"getMirnDevInfo", {}, info, empty_list, empty_list},
      always("setMirnDevInfo", ValueMap{{"name", mirn.name}}, success(0)),
      {"open", {}, yes, yes, no},
      always("release", {}, none, true),
      always("bindTexture", ValueMap{{"textureId", int64_t{1}}}, none),
      always("bestColor", {}, none, true),
      always("normalColor", {}, none, true),
      always("keyDown", ValueMap{{"key", 65}}, none),
      always("keyUp", ValueMap{}, none),
      always("mouseMove", ValueMap{{"x", 1}, {"y", 1}}, no_reply),
      always("mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}}, no_reply),
      always("mouseWheel", ValueMap{{"x", 1}, {"y", 1}, {"delta", 1}}, no_reply),
      // The pair that the process has seen last; without a proxy it would be an empty list.
      always("getUpgradeProgress", {}, world.reply("getUpgradeProgress")),
      // The camera can't be locked any more once it is gone. Last: a whole image brings another version.
      {"reqUpgradeFirmware", ValueMap{{"path", image}}, success(1), success(1), success(-4), true},
  };
}

std::vector<FaultRow> secondFaultRows() {
  const std::string yes = success(true);
  const std::string no = success(false);
  const std::string device = success(ValueList{"Nuvra Mirn"});
  return {
      // A text with "macOS " behind its length.
      always("getPlatformVersion", {}, testing::MatchesRegex("0007..6d61634f5320.+")),
      {"getDeviceList", {}, device, device, success(ValueList{}), true},
      {"open", ValueList{0}, yes, yes, no},
      // The last frame stays: a map of three.
      always("captureFrame", {}, StartsWith("000d03"), true),
      {"setResolution", ValueList{1920, 1080}, yes, yes, no, true},
      always("getWidth", {}, success(640), true),
      always("getHeight", {}, success(480), true),
      always("release", {}, success(), true),
  };
}

testing::AssertionResult answers(ChannelWorld& world, const char* method, const Value& arguments,
                                 const ReplyMatcher& expected) {
  const std::string reply = world.reply(method, arguments);
  if (expected.Matches(reply)) return testing::AssertionSuccess();
  std::ostringstream description;
  expected.DescribeTo(&description);
  return testing::AssertionFailure() << method << " answered " << reply << ", but " << description.str() << " was due";
}

void expectANewConnectionWorks(ChannelWorld& world) {
  using Keys = std::array<uint8_t, 6>;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  EXPECT_EQ(world.value("getMirnDevInfo").asList()->size(), 4U);
  const uint64_t begin = world.mirn().receivedCount();
  world.reply("keyDown", ValueMap{{"key", 66}});
  world.reply("keyUp", ValueMap{{"key", 66}});
  ASSERT_TRUE(world.eventually([&] { return world.received<VirtualKeyboard>(begin).size() == 2; }));
  EXPECT_EQ(world.received<VirtualKeyboard>(begin)[0], (VirtualKeyboard{0, Keys{0x05}}));
  EXPECT_EQ(world.received<VirtualKeyboard>(begin)[1], VirtualKeyboard{});
}

FaultPlan planOf(const std::string& text) {
  FaultPlan plan;
  std::string error;
  EXPECT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
  return plan;
}

}  // namespace mirn::test
