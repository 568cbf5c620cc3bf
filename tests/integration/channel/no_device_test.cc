// Every command of both plug-ins without a device, and with arguments of every wrong shape.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/registration.h"
#include "tests/integration/channel/channel_world.h"
#include "tests/unit/embedding/notation.h"

namespace mirn::test {
namespace {

WorldOptions noDevice(bool second = false) {
  WorldOptions options;
  options.plugged = false;
  options.second_plugin = second;
  return options;
}

// Method and last column of the table under a heading of docs/channel.md.
std::vector<std::pair<std::string, std::string>> documentedWithoutDevice(const std::string& heading) {
  std::ifstream file(MIRN_CHANNEL_DOCUMENT);
  std::vector<std::pair<std::string, std::string>> rows;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("## ")) inside = line == heading;
    const size_t name = line.find("| `");
    if (!inside || !line.starts_with("| ") || name == std::string::npos) continue;
    const size_t column = line.rfind("| ", line.size() - 3) + 2;
    rows.emplace_back(line.substr(name + 3, line.find('`', name + 3) - name - 3),
                      line.substr(column, line.size() - column - 2));
  }
  return rows;
}

Value goodArguments(const std::string& method) {
  const std::map<std::string, Value> arguments = {
      {"setVideoQuality", ValueMap{{"quality", "720P"}}},
      {"setLedStatus", ValueMap{{"ledStatus", 1}}},
      {"setMirnDevInfo", ValueMap{{"name", "n"}}},
      {"reqUpgradeFirmware", ValueMap{{"path", "/nowhere"}}},
      {"bindTexture", ValueMap{{"textureId", int64_t{1}}}},
      {"keyUp", ValueMap{{"key", 65}}},
      {"keyDown", ValueMap{{"key", 65}}},
      {"mouseMove", ValueMap{{"x", 1}, {"y", 2}}},
      {"mouseEventButtons", ValueMap{{"x", 1}, {"y", 2}, {"type", "lbdown"}}},
      {"mouseWheel", ValueMap{{"x", 1}, {"y", 2}, {"delta", 1}}},
  };
  const auto found = arguments.find(method);
  return found == arguments.end() ? Value() : found->second;
}

// What a cell of the last column promises about a reply in hex.
void expectAsDocumented(const std::string& method, const std::string& cell, const std::string& reply) {
  SCOPED_TRACE(method + ": " + cell);
  if (cell.starts_with('`')) {
    EXPECT_EQ(reply, success(parseNotation(cell.substr(1, cell.size() - 2))));
  } else if (cell == "never answered") {
    EXPECT_EQ(reply, "no-reply");
  } else if (cell == "an id") {
    EXPECT_EQ(reply.substr(0, 4), "0004");
  } else if (cell == "a text") {
    EXPECT_EQ(reply.substr(0, 4), "0007");
  } else {
    ASSERT_EQ(cell, "error `CAPTURE_FAILED`");
    EXPECT_EQ(reply, hexOf(encodeError("CAPTURE_FAILED", "No frame available", Value())));
  }
}

TEST(WithoutADevice, EveryCommandAnswersAsDocumented) {
  ChannelWorld world(noDevice());
  const auto rows = documentedWithoutDevice("## Main plug-in");
  ASSERT_EQ(rows.size(), 22U);
  for (const auto& [method, cell] : rows) {
    expectAsDocumented(method, cell, world.reply(method, goodArguments(method)));
  }
}

TEST(WithoutADevice, EveryCommandOfTheSecondPluginAnswersAsDocumented) {
  ChannelWorld world(noDevice(true));
  const auto rows = documentedWithoutDevice("## Second plug-in");
  ASSERT_EQ(rows.size(), 8U);
  const std::map<std::string, Value> arguments = {{"open", ValueList{0}}, {"setResolution", ValueList{1280, 720}}};
  for (const auto& [method, cell] : rows) {
    const auto found = arguments.find(method);
    expectAsDocumented(method, cell, world.reply(method, found == arguments.end() ? Value() : found->second));
  }
}

TEST(WrongArguments, WhatIsNoMapIsRefusedAsEachRowSays) {
  ChannelWorld world(noDevice());
  const std::map<std::string, std::string> expected = {
      {"setVideoQuality", success(0)},     {"setLedStatus", argumentsError()}, {"setMirnDevInfo", success(-2)},
      {"reqUpgradeFirmware", success(-2)}, {"bindTexture", argumentsError()},  {"keyUp", argumentsError()},
      {"keyDown", argumentsError()},       {"mouseMove", argumentsError()},    {"mouseEventButtons", argumentsError()},
      {"mouseWheel", argumentsError()},
  };
  const std::vector<Value> shapes = {Value(),
                                     true,
                                     5,
                                     2.5,
                                     "text",
                                     ValueList{},
                                     ValueList{"key", 65},
                                     std::vector<uint8_t>{1},
                                     std::vector<int32_t>{1}};
  for (const auto& [method, reply] : expected) {
    for (const Value& shape : shapes) EXPECT_EQ(world.reply(method, shape), reply) << method << " " << shape.index();
  }
}

TEST(WrongArguments, AMissingKeyMeansWhatEachRowSays) {
  ChannelWorld world(noDevice());
  const std::map<std::string, std::string> expected = {
      {"setVideoQuality", success(false)},
      {"setLedStatus", success()},
      {"setMirnDevInfo", success(-3)},
      {"reqUpgradeFirmware", success(-3)},
      {"bindTexture", argumentsError()},
      {"keyUp", success()},
      {"keyDown", success()},
      {"mouseMove", "no-reply"},
      {"mouseEventButtons", "no-reply"},
      {"mouseWheel", "no-reply"},
  };
  for (const auto& [method, reply] : expected) {
    EXPECT_EQ(world.reply(method, ValueMap{}), reply) << method;
    EXPECT_EQ(world.reply(method, ValueMap{{"other", 1}, {1, 2}}), reply) << method;
    // A null counts as a missing key.
    ValueMap nulls;
    for (const Argument& argument : findMainCommand(method)->arguments) {
      if (!argument.key.empty()) nulls.emplace_back(argument.key, Value());
    }
    EXPECT_EQ(world.reply(method, nulls), reply) << method;
  }
}

TEST(WrongArguments, ATextKeyThatHoldsSomethingElseCountsAsMissing) {
  ChannelWorld world(noDevice());
  for (const Value& other : {Value(5), Value(true), Value(ValueList{}), Value(std::vector<uint8_t>{65})}) {
    EXPECT_EQ(world.reply("setMirnDevInfo", ValueMap{{"name", other}}), success(-3));
    EXPECT_EQ(world.reply("reqUpgradeFirmware", ValueMap{{"path", other}}), success(-3));
    EXPECT_EQ(world.reply("setVideoQuality", ValueMap{{"quality", other}}), success(false));
  }
}

TEST(WrongArguments, CommandsWithoutArgumentsIgnoreThem) {
  ChannelWorld world(noDevice());
  for (const Value& any : {Value(5), Value(ValueList{1}), Value(ValueMap{{"x", 1}})}) {
    EXPECT_EQ(world.reply("getUpgradeProgress", any), success(ValueList{}));
    EXPECT_EQ(world.reply("releaseTexture", any), success());
  }
}

TEST(WrongArguments, TheSecondPluginWantsListsOfIntegers) {
  ChannelWorld world(noDevice(true));
  const std::string index = hexOf(encodeError("INVALID_ARGUMENT", "Index required", Value()));
  const std::string size = hexOf(encodeError("INVALID_ARGUMENT", "Width and height required", Value()));
  for (const Value& wrong : {Value(), Value(ValueList{}), Value(ValueMap{{"index", 0}}), Value(0), Value("0"),
                             Value(ValueList{0, "1"}), Value(ValueList{0.0}), Value(ValueList{Value()})}) {
    EXPECT_EQ(world.reply("open", wrong), index);
    EXPECT_EQ(world.reply("setResolution", wrong), size);
  }
  EXPECT_EQ(world.reply("setResolution", ValueList{640}), size);
  EXPECT_EQ(world.reply("setResolution", ValueList{640, 480, 1}), size);
  EXPECT_EQ(world.reply("open", ValueList{5}), success(false));
  EXPECT_EQ(world.reply("open", std::vector<int32_t>{5}), success(false));
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.reply("setResolution", ValueList{1280, int64_t{720}}), success(false));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Capture device is not initialized.\n");
}

TEST(UnknownMethods, AreAnsweredWithNullAndAPlainText) {
  ChannelWorld world(noDevice());
  for (const char* method : {"", "KeyDown", "keydown", "keyDown ", "getPlatformVersion", "captureFrame"}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(world.reply(method), success()) << method;
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "error: no handled cmd!") << method;
  }
}

TEST(UnknownMethods, AreNotImplementedInTheSecondPlugin) {
  ChannelWorld world(noDevice(true));
  for (const char* method : {"", "Open", "getplatformversion", "keyDown", "createTexture"}) {
    EXPECT_EQ(world.reply(method), "not-implemented") << method;
  }
}

TEST(BrokenMessages, GetTheEmptyReplyAndChangeNothing) {
  ChannelWorld world(noDevice());
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.replyToBytes({}), "not-implemented");
  EXPECT_EQ(world.replyToBytes({0x07, 0x04, 'o', 'p', 'e'}), "not-implemented");
  EXPECT_EQ(world.replyToBytes({0x03, 1, 0, 0, 0, 0}), "not-implemented");
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
  EXPECT_EQ(world.engine().textureCount(), 0U);
}

TEST(PlatformVersion, BeginsWithItsPrefix) {
  ChannelWorld world(noDevice(true));
  const Value version = world.value("getPlatformVersion");
  ASSERT_NE(version.asText(), nullptr);
  EXPECT_TRUE(version.asText()->starts_with("macOS ")) << *version.asText();
  EXPECT_GT(version.asText()->size(), 10U);
}

TEST(TwoPlugins, TheOneRegisteredLastServesTheName) {
  ChannelWorld world(noDevice());
  EXPECT_EQ(world.reply("getSize").substr(0, 4), "000d");
  registerFlutterMirnPlugin(world.engine().makeRegistrar());
  EXPECT_EQ(world.reply("getSize"), "not-implemented");
  EXPECT_EQ(world.reply("getWidth"), success(640));
}

TEST(WithoutADevice, AnEngineWithoutARegistryOfTexturesGetsZero) {
  ChannelWorld world(noDevice());
  EXPECT_EQ(FlutterMirnPluginCApi::initWithTextures(nullptr)->createTexture(), 0);
}

}  // namespace
}  // namespace mirn::test
