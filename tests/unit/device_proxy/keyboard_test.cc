#include <algorithm>
#include <array>
#include <clocale>
#include <map>
#include <string>
#include <vector>

#include "device/key_tables.h"
#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KeyboardTest : public ProxyTest {
 protected:
  KeyboardTest() { start(); }

  void down(int key) { EXPECT_EQ(proxy_->KeyBoardDown(0, key), 0); }
  void up(int key) { EXPECT_EQ(proxy_->KeyBoardUp(0, key), 0); }
};

std::string report(std::array<int, 6> keys, int modifiers) {
  char line[64];
  std::snprintf(line, sizeof line, "keys %02X %02X %02X %02X %02X %02X mod %02X", keys[0], keys[1], keys[2], keys[3],
                keys[4], keys[5], modifiers);
  return line;
}

// The usage of every 8-bit code, written out on its own: rows are the code's upper digit, columns its lower one.
// clang-format off
constexpr std::array<int, 256> kUsageByCode{
    0,    0,    0,    0,    0,    0,    0,    0,    0x2A, 0x2B, 0,    0,    0,    0x28, 0,    0,
    0x04, 0x04, 0x04, 0,    0x39, 0,    0,    0,    0,    0,    0,    0x29, 0,    0,    0,    0,
    0x2C, 0x4B, 0x4E, 0x4D, 0x4A, 0x50, 0x52, 0x4F, 0x51, 0,    0,    0,    0,    0x49, 0x4C, 0,
    0x27, 0x1E, 0x1F, 0x20, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0,    0,    0,    0,    0,    0,
    0,    0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10, 0x11, 0x12,
    0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0,    0,    0,    0,    0,
    0x62, 0x59, 0x5A, 0x5B, 0x5C, 0x5D, 0x5E, 0x5F, 0x60, 0x61, 0x55, 0x57, 0,    0x56, 0x63, 0x54,
    0x3A, 0x3B, 0x3C, 0x3D, 0x3E, 0x3F, 0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0x53, 0x47, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0x04, 0x40, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0x33, 0x2E, 0x36, 0x2D, 0x37, 0x38,
    0x35, 0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0x2F, 0x31, 0x30, 0x34, 0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
};
// clang-format on

// Eleven codes and the bit of each.
const std::map<int, int> kModifierByCode{{16, 0x02},  {17, 0x01},  {18, 0x04},  {91, 0x08},  {92, 0x80}, {160, 0x02},
                                         {161, 0x20}, {162, 0x01}, {163, 0x10}, {164, 0x04}, {165, 0x40}};

TEST_F(KeyboardTest, EveryCodeMapsToItsUsage) {
  for (int code = 0; code < 256; ++code) {
    // Beyond 8 bits no code is a modifier, so the map's own value shows, even for the codes that the modifiers take.
    down(0x100 + code);
    up(0x100 + code);
    EXPECT_THAT(arrived(), ElementsAre(report({kUsageByCode[code], 0, 0, 0, 0, 0}, 0), report({0, 0, 0, 0, 0, 0}, 0)))
        << "code " << code;
  }
}

TEST_F(KeyboardTest, EveryPlainCodeBehavesAsItsModifierOrUsage) {
  for (int code = 1; code < 256; ++code) {
    const auto modifier = kModifierByCode.find(code);
    const bool is_modifier = modifier != kModifierByCode.end();
    down(code);
    up(code);
    EXPECT_THAT(arrived(), ElementsAre(report({is_modifier ? 0 : kUsageByCode[code], 0, 0, 0, 0, 0},
                                              is_modifier ? modifier->second : 0),
                                       report({0, 0, 0, 0, 0, 0}, 0)))
        << "code " << code;
  }
}

TEST(KeyTables, Hold97DistinctCodesAnd11Modifiers) {
  std::map<int, int> usages;
  for (const KeyUsage& key : kKeyUsages) usages[key.code] = key.usage;
  EXPECT_EQ(usages.size(), 97u);
  EXPECT_EQ(std::count_if(kUsageByCode.begin(), kUsageByCode.end(), [](int usage) { return usage != 0; }), 97);
  for (const ModifierKey& key : kModifierKeys) {
    ASSERT_EQ(kModifierByCode.count(key.code), 1u) << key.code;
    EXPECT_EQ(kModifierByCode.at(key.code), key.bit);
  }
  EXPECT_EQ(kModifierKeys.size(), kModifierByCode.size());
}

TEST_F(KeyboardTest, AllModifierBitsAddUpAndClearOneByOne) {
  std::vector<std::string> expected;
  int held = 0;
  for (const auto& [code, bit] : kModifierByCode) {
    down(code);
    held |= bit;
    expected.push_back(report({0, 0, 0, 0, 0, 0}, held));
  }
  EXPECT_EQ(held, 0xFF);
  for (const auto& [code, bit] : kModifierByCode) {
    up(code);
    held &= ~bit;
    expected.push_back(report({0, 0, 0, 0, 0, 0}, held));
  }
  EXPECT_EQ(arrived(), expected);
}

TEST_F(KeyboardTest, TheFirstArgumentIsIgnored) {
  proxy_->KeyBoardDown(65, 66);
  proxy_->KeyBoardUp(-1, 66);
  EXPECT_THAT(arrived(), ElementsAre(report({5, 0, 0, 0, 0, 0}, 0), report({0, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, ANewKeyGoesIntoTheFirstHole) {
  down('A');
  down('B');
  up('A');
  down('C');
  EXPECT_THAT(arrived(), ElementsAre(report({4, 0, 0, 0, 0, 0}, 0), report({4, 5, 0, 0, 0, 0}, 0),
                                     report({0, 5, 0, 0, 0, 0}, 0), report({6, 5, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, PressingASeventhKeySendsNothingNorDoesItsRelease) {
  for (int key = 'A'; key <= 'F'; ++key) down(key);
  EXPECT_EQ(arrived().back(), report({4, 5, 6, 7, 8, 9}, 0));
  down('G');
  up('G');
  EXPECT_THAT(arrived(), IsEmpty());
  // A held key among six is no new press either.
  down('C');
  EXPECT_THAT(arrived(), IsEmpty());
  // Modifiers need no slot.
  down(17);
  EXPECT_THAT(arrived(), ElementsAre(report({4, 5, 6, 7, 8, 9}, 1)));
}

TEST_F(KeyboardTest, AKeyHeldBehindAHoleIsWrittenTwice) {
  down('A');
  down('B');
  up('A');
  arrived();
  down('B');
  EXPECT_THAT(arrived(), ElementsAre(report({5, 5, 0, 0, 0, 0}, 0)));
  up('B');
  EXPECT_THAT(arrived(), ElementsAre(report({0, 5, 0, 0, 0, 0}, 0)));
  up('B');
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 0)));
  up('B');
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(KeyboardTest, AKeyHeldBeforeEveryEmptySlotIsNoNewPress) {
  // The scan meets 'A' in slot 0 before any empty slot and stops there.
  down('A');
  arrived();
  down('A');
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(KeyboardTest, DeleteForgetsTheModifiersAfterItsReport) {
  down(17);
  down(18);
  down(46);
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 1), report({0, 0, 0, 0, 0, 0}, 5),
                                     report({0x4C, 0, 0, 0, 0, 0}, 5)));
  // No report of its own; the next one shows it.
  up(46);
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, TheKeypadsDecimalPointForgetsTheModifiersToo) {
  down(160);
  down(110);
  down('A');
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 2), report({0x63, 0, 0, 0, 0, 0}, 2),
                                     report({0x63, 4, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, OnlyTheWholeCodeOfDeleteForgetsTheModifiers) {
  down(17);
  down(0x100 + 46);  // the usage goes by the low 8 bits
  down(0x100 + 110);
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 1), report({0x4C, 0, 0, 0, 0, 0}, 1),
                                     report({0x4C, 0x63, 0, 0, 0, 0}, 1)));
}

TEST_F(KeyboardTest, DeleteWithoutAFreeSlotForgetsNothing) {
  down(17);
  for (int key = 'A'; key <= 'F'; ++key) down(key);
  arrived();
  down(46);
  EXPECT_THAT(arrived(), IsEmpty());
  down(18);
  EXPECT_THAT(arrived(), ElementsAre(report({4, 5, 6, 7, 8, 9}, 5)));
}

TEST_F(KeyboardTest, KeyZeroReleasesEverythingAndAlwaysReports) {
  down(17);
  down('A');
  down('B');
  arrived();
  up(0);
  up(0);
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 0), report({0, 0, 0, 0, 0, 0}, 0)));
  down('B');
  EXPECT_THAT(arrived(), ElementsAre(report({5, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, OnlyTheWholeCodeZeroReleasesEverything) {
  down(17);
  down('A');
  arrived();
  up(0x100);
  up(0x10000);
  EXPECT_THAT(arrived(), ElementsAre(report({4, 0, 0, 0, 0, 0}, 1), report({4, 0, 0, 0, 0, 0}, 1)));
}

TEST_F(KeyboardTest, AnUnmappedKeySendsTheReportUnchangedWhileASlotIsEmpty) {
  down('A');
  arrived();
  down(19);  // Pause
  up(19);
  EXPECT_THAT(arrived(), ElementsAre(report({4, 0, 0, 0, 0, 0}, 0), report({4, 0, 0, 0, 0, 0}, 0)));
  for (int key = 'B'; key <= 'F'; ++key) down(key);
  arrived();
  down(19);
  up(19);
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(KeyboardTest, CodesOutsideEightBitsAreCutNotRefused) {
  down(272);                           // 0x110: the map's entry for 16
  down(static_cast<int>(0x80000041));  // negative
  down(0x7FFFFF42);
  EXPECT_EQ(arrived().back(), report({4, 5, 0, 0, 0, 0}, 0)) << "0x41 is held already, as usage 4";
  down(-1);
  EXPECT_THAT(arrived(), ElementsAre(report({4, 5, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, BeforeTheKeyMapEveryPlainKeyIsUsageZero) {
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(&listener_);
  seen_ = mirn_->receivedCount();
  down('A');
  down(17);
  up('A');
  EXPECT_THAT(arrived(),
              ElementsAre(report({0, 0, 0, 0, 0, 0}, 0), report({0, 0, 0, 0, 0, 0}, 1), report({0, 0, 0, 0, 0, 0}, 1)));
  // The lookups have put zeros into the map; filling it mends that.
  EXPECT_EQ(proxy_->initKeyMap(), 0);
  EXPECT_EQ(proxy_->initKeyMap(), 0);
  down('A');
  EXPECT_THAT(arrived(), ElementsAre(report({4, 0, 0, 0, 0, 0}, 1)));
}

// ---- TypeString ----

// A US keyboard: usage, the character of the bare key, the character with Shift. Letters stand for themselves.
struct UsKey {
  int usage;
  char plain;
  char shifted;
};
constexpr UsKey kUsKeys[] = {
    {0x1E, '1', '!'}, {0x1F, '2', '@'}, {0x20, '3', '#'},  {0x21, '4', '$'}, {0x22, '5', '%'},  {0x23, '6', '^'},
    {0x24, '7', '&'}, {0x25, '8', '*'}, {0x26, '9', '('},  {0x27, '0', ')'}, {0x2D, '-', '_'},  {0x2E, '=', '+'},
    {0x2F, '[', '{'}, {0x30, ']', '}'}, {0x31, '\\', '|'}, {0x33, ';', ':'}, {0x34, '\'', '"'}, {0x35, '`', '~'},
    {0x36, ',', '<'}, {0x37, '.', '>'}, {0x38, '/', '?'},
};

// The press report of a typed character, "" when it is skipped.
std::string typedReport(int character) {
  if (character >= 'A' && character <= 'Z') return report({character - 'A' + 4, 0, 0, 0, 0, 0}, 0x20);
  if (character == ' ') return report({0x2C, 0, 0, 0, 0, 0}, 0);
  if (character >= '0' && character <= '9') return "";
  for (const UsKey& key : kUsKeys) {
    if (character == key.shifted) return report({key.usage, 0, 0, 0, 0, 0}, 0x20);
    if (character == key.plain) return report({key.usage, 0, 0, 0, 0, 0}, 0);
  }
  return "";
}

TEST_F(KeyboardTest, TypesEveryAsciiCharacterAsAUsKeyboardDoes) {
  int typed = 0;
  for (int character = 1; character < 0x80; ++character) {
    const wchar_t text[] = {static_cast<wchar_t>(character), 0};
    EXPECT_EQ(proxy_->TypeString(text, 0), 0);
    const std::string expected = typedReport(character);
    if (expected.empty()) {
      EXPECT_THAT(arrived(), IsEmpty()) << "character " << character;
    } else {
      ++typed;
      EXPECT_THAT(arrived(), ElementsAre(expected, report({0, 0, 0, 0, 0, 0}, 0))) << "character " << character;
    }
  }
  EXPECT_EQ(typed, 26 + 1 + 32);
}

TEST_F(KeyboardTest, TypesUpperCaseAndPunctuationAndSkipsTheRest) {
  proxy_->TypeString(L"Hi!", 7);
  EXPECT_THAT(arrived(), ElementsAre(report({0x0B, 0, 0, 0, 0, 0}, 0x20), report({0, 0, 0, 0, 0, 0}, 0),
                                     report({0x1E, 0, 0, 0, 0, 0}, 0x20), report({0, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, NothingTypableSendsNothing) {
  proxy_->TypeString(L"", 0);
  proxy_->TypeString(nullptr, 0);
  proxy_->TypeString(L"0123456789", 0);
  proxy_->TypeString(L"lower\t\n\x7F", 0);
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(KeyboardTest, ATextThatTheLocaleCannotExpressTypesNothing) {
  proxy_->TypeString(L"A\u20ACB", 0);
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(KeyboardTest, UnderAUtf8LocaleBytesBeyondAsciiAreSkippedAndCountAgainstTheLength) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  proxy_->TypeString(L"\u00e9AB", 0);  // three characters, four bytes: three are converted
  proxy_->TypeString(L"\u20acA", 0);   // the first one alone needs more than two
  std::setlocale(LC_ALL, "C");
  EXPECT_THAT(arrived(), ElementsAre(report({4, 0, 0, 0, 0, 0}, 0x20), report({0, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, TypingDropsHeldKeysAndLeavesTheModifiersAlone) {
  down(17);
  down('A');
  arrived();
  proxy_->TypeString(L"B", 0);
  EXPECT_THAT(arrived(), ElementsAre(report({5, 0, 0, 0, 0, 0}, 0x20), report({0, 0, 0, 0, 0, 0}, 0)));
  up('A');
  EXPECT_THAT(arrived(), IsEmpty()) << "no longer held";
  down('C');
  EXPECT_THAT(arrived(), ElementsAre(report({6, 0, 0, 0, 0, 0}, 1)));
}

TEST_F(KeyboardTest, TypingNothingKeepsHeldKeys) {
  down('A');
  arrived();
  proxy_->TypeString(L"abc123", 0);
  up('A');
  EXPECT_THAT(arrived(), ElementsAre(report({0, 0, 0, 0, 0, 0}, 0)));
}

TEST_F(KeyboardTest, TypesALongTextWholeAndInOrder) {
  std::wstring text;
  std::vector<std::string> expected;
  for (int i = 0; i < 2000; ++i) {
    const int character = 1 + i * 7 % 126;
    text.push_back(static_cast<wchar_t>(character));
    if (typedReport(character).empty()) continue;
    expected.push_back(typedReport(character));
    expected.push_back(report({0, 0, 0, 0, 0, 0}, 0));
  }
  proxy_->TypeString(text.c_str(), 0);
  EXPECT_EQ(arrived(), expected);
}

TEST_F(KeyboardTest, TheOutcomeReachesTheListenerOnly) {
  mirn_->setFaultPlan([] {
    FaultPlan plan;
    std::string error;
    EXPECT_TRUE(FaultPlan::parse("refuse=1@1", &plan, &error)) << error;
    return plan;
  }());
  down('A');
  up('A');
  proxy_->drain();
  EXPECT_THAT(listener_.outcomes(),
              ElementsAre(Outcome{Outcome::Kind::kKeyboard, -1}, Outcome{Outcome::Kind::kKeyboard, 0}));
}

}  // namespace
}  // namespace mirn
