#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "plugin/channel_numbers.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/perfect_index.h"
#include "plugin/utf8.h"

namespace mirn::test {
namespace {

TEST(CommandTable, HasItsRowsInTheirOrder) {
  const std::vector<std::string_view> expected = {"createTexture",
                                                  "releaseTexture",
                                                  "getDeviceList",
                                                  "isVidPidExist",
                                                  "initKmProxy",
                                                  "setVideoQuality",
                                                  "setLedStatus",
                                                  "getMirnDevInfo",
                                                  "setMirnDevInfo",
                                                  "reqUpgradeFirmware",
                                                  "open",
                                                  "release",
                                                  "bindTexture",
                                                  "normalColor",
                                                  "bestColor",
                                                  "keyUp",
                                                  "keyDown",
                                                  "mouseMove",
                                                  "mouseEventButtons",
                                                  "mouseWheel",
                                                  "getSize",
                                                  "getUpgradeProgress"};
  ASSERT_EQ(mainCommands().size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(mainCommands()[i].name, expected[i]);
}

TEST(CommandTable, EveryRowIsFoundByItsExactNameAlone) {
  for (const MainCommand& command : mainCommands()) {
    EXPECT_EQ(findMainCommand(command.name), &command);
    const std::string name(command.name);
    std::string other_case = name;
    other_case[0] = static_cast<char>(other_case[0] ^ 0x20);
    for (const std::string& wrong : {name + "x", name.substr(1), name.substr(0, name.size() - 1), other_case,
                                     name + std::string(1, '\0'), " " + name}) {
      const MainCommand* found = findMainCommand(wrong);
      EXPECT_TRUE(found == nullptr || found->name == wrong) << wrong;
    }
  }
  EXPECT_EQ(findMainCommand(""), nullptr);
  EXPECT_EQ(findMainCommand(std::string(100'000, 'a')), nullptr);
}

TEST(PerfectIndex, HoldsTwoHundredNamesAsWell) {
  std::vector<std::string> texts;
  texts.reserve(200);
  for (int i = 0; i < 200; ++i)
    texts.push_back("command" + std::string(static_cast<size_t>(i % 7), 'x') + std::to_string(i));
  std::array<std::string_view, 200> names;
  for (size_t i = 0; i < names.size(); ++i) names[i] = texts[i];
  const PerfectIndex<200> index(names);
  ASSERT_TRUE(index.valid());
  for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(index.find(names[i]), i);
  EXPECT_EQ(index.find("command"), index.kNone);
}

TEST(PerfectIndex, SaysWhenTwoNamesCannotBeToldApart) {
  const PerfectIndex<2> index(std::array<std::string_view, 2>{"same", "same"});
  EXPECT_FALSE(index.valid());
  EXPECT_EQ(index.find("same"), index.kNone);
}

class ChannelNumbers : public testing::Test {
 protected:
  void expect(const Value& value, int32_t narrow, int64_t wide) {
    const std::vector<uint8_t> bytes = encodeMessage(value);
    ValueView view;
    ASSERT_EQ(viewMessage(bytes, &view), CodecError::kNone);
    EXPECT_EQ(channelInt32(view), narrow);
    EXPECT_EQ(channelInt64(view), wide);
  }
};

TEST_F(ChannelNumbers, IntegersWrap) {
  expect(int32_t{-5}, -5, -5);
  expect(int64_t{5}, 5, 5);
  expect(int64_t{1} << 32, 0, int64_t{1} << 32);
  expect((int64_t{1} << 32) + 7, 7, (int64_t{1} << 32) + 7);
  expect(int64_t{0x80000000}, std::numeric_limits<int32_t>::min(), int64_t{0x80000000});
  expect(std::numeric_limits<int64_t>::min(), 0, std::numeric_limits<int64_t>::min());
}

TEST_F(ChannelNumbers, DoublesAreTruncatedAndSaturate) {
  expect(2.9, 2, 2);
  expect(-2.9, -2, -2);
  expect(1e10, std::numeric_limits<int32_t>::max(), 10'000'000'000);
  expect(-1e10, std::numeric_limits<int32_t>::min(), -10'000'000'000);
  expect(1e300, std::numeric_limits<int32_t>::max(), std::numeric_limits<int64_t>::max());
  expect(-1e300, std::numeric_limits<int32_t>::min(), std::numeric_limits<int64_t>::min());
  expect(9223372036854775808.0, std::numeric_limits<int32_t>::max(), std::numeric_limits<int64_t>::max());
  expect(std::numeric_limits<double>::infinity(), std::numeric_limits<int32_t>::max(),
         std::numeric_limits<int64_t>::max());
  expect(std::numeric_limits<double>::quiet_NaN(), 0, 0);
}

TEST_F(ChannelNumbers, BooleansAreOneOrZero) {
  expect(true, 1, 1);
  expect(false, 0, 0);
}

TEST_F(ChannelNumbers, TextsYieldTheirLeadingDecimalNumber) {
  expect("65", 65, 65);
  expect("  \t-12abc", -12, -12);
  expect("+7", 7, 7);
  expect("3.9", 3, 3);
  expect("", 0, 0);
  expect("x1", 0, 0);
  expect("-", 0, 0);
  expect("--1", 0, 0);
  expect("+-1", 0, 0);
  expect("0x10", 0, 0);
  expect("4294967296", std::numeric_limits<int32_t>::max(), 4294967296);
  expect("-99999999999999999999", std::numeric_limits<int32_t>::min(), std::numeric_limits<int64_t>::min());
  expect("99999999999999999999", std::numeric_limits<int32_t>::max(), std::numeric_limits<int64_t>::max());
}

TEST_F(ChannelNumbers, EverythingElseIsZero) {
  expect(Value(), 0, 0);
  expect(ValueList{5}, 0, 0);
  expect(ValueMap{{1, 2}}, 0, 0);
  expect(std::vector<uint8_t>{5}, 0, 0);
  expect(std::vector<int32_t>{5}, 0, 0);
  EXPECT_EQ(channelInt32(ValueView()), 0);
}

TEST(Utf8, IsStrict) {
  for (const char* good :
       {"", "plain", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xEF\xBB\xBF", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isValidUtf8(good)) << good;
  }
  EXPECT_TRUE(isValidUtf8(std::string_view("a\0b", 3)));
  for (const char* bad : {"\x80", "\xC3", "\xC3(", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                          "\xF5\x80\x80\x80", "\xFE", "a\xFF", "\xE2\x82", "\xF0\x80\x80\x80"}) {
    EXPECT_FALSE(isValidUtf8(bad)) << bad;
  }
}

}  // namespace
}  // namespace mirn::test
