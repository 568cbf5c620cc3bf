#include "apps/common/utf8.h"

#include <gtest/gtest.h>

namespace mirn {
namespace {

TEST(Utf8, RoundTripsEveryKindOfCharacter) {
  for (char32_t code : {U'a', U'\u00e9', U'\u20ac', U'\U0001F600', U'\U0010FFFF'}) {
    auto characters = utf8Characters(utf8Of(code));
    ASSERT_EQ(characters.size(), 1U);
    EXPECT_TRUE(characters[0].valid);
    EXPECT_EQ(characters[0].code, code);
  }
  EXPECT_EQ(utf8Of(0xD800), "\xEF\xBF\xBD");
}

TEST(Utf8, BrokenBytesAreOneCharacterEach) {
  for (const char* text :
       {"\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82", "\x80", "\xF8\x88\x80\x80\x80"}) {
    for (const Utf8Character& character : utf8Characters(text)) {
      EXPECT_FALSE(character.valid) << text;
    }
    EXPECT_EQ(utf8Characters(text).size(), std::string(text).size());
  }
}

TEST(DeviceName, TwentyBytesAreTheLimit) {
  EXPECT_TRUE(checkDeviceName(std::string(20, 'x')).ok);
  NameCheck check = checkDeviceName(std::string(21, 'x'));
  EXPECT_FALSE(check.ok);
  EXPECT_EQ(check.bytes, 21U);
  EXPECT_EQ(check.reason, "The name has 21 bytes in UTF-8; the device takes at most 20.");
}

TEST(DeviceName, CountsBytesNotCharacters) {
  std::string name;
  for (int i = 0; i < 10; ++i) {
    name += "\u00e9";
  }
  EXPECT_TRUE(checkDeviceName(name).ok);
  EXPECT_FALSE(checkDeviceName(name + "x").ok);
}

TEST(DeviceName, EmptyBrokenAndControlNamesAreRefused) {
  EXPECT_FALSE(checkDeviceName("").ok);
  EXPECT_FALSE(checkDeviceName("a\xFF").ok);
  EXPECT_FALSE(checkDeviceName("a\tb").ok);
  EXPECT_FALSE(checkDeviceName(std::string("a\0b", 3)).ok);
  EXPECT_FALSE(checkDeviceName("a\u0085").ok);
}

}  // namespace
}  // namespace mirn
