#include "deps/pellum/text_conversions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace mirn {
namespace {

struct Narrow {
  bool done = false;
  std::vector<char> bytes;  // with the terminating NUL
  unsigned long length = 99;
};
Narrow narrow(const wchar_t* text) {
  Narrow result;
  char* out = nullptr;
  result.done = W2UTF8(text, &out, &result.length);
  const std::unique_ptr<char[]> owner(out);
  if (out) {
    result.bytes.assign(out, out + result.length + 1);
  }
  return result;
}

struct Wide {
  bool done = false;
  std::vector<wchar_t> units;  // with the terminating 0
  unsigned long length = 99;
};
Wide wide(const char* text) {
  Wide result;
  wchar_t* out = nullptr;
  result.done = UTF82W(text, &out, &result.length);
  const std::unique_ptr<wchar_t[]> owner(out);
  if (out) {
    result.units.assign(out, out + result.length + 1);
  }
  return result;
}

std::vector<wchar_t> units(std::initializer_list<uint32_t> values) {
  std::vector<wchar_t> result;
  for (const uint32_t value : values) {
    result.push_back(static_cast<wchar_t>(value));
  }
  return result;
}
std::vector<char> bytes(const std::string& text) {
  return {text.c_str(), text.c_str() + text.size() + 1};
}

// Sets a locale for a test, or says that it isn't there.
class TextLocale : public testing::Test {
 protected:
  bool useLocale(const char* name) { return std::setlocale(LC_ALL, name) != nullptr; }
  ~TextLocale() override { std::setlocale(LC_ALL, "C"); }
};

TEST(W2Utf8, EncodesTheEuroSign) {
  const Narrow result = narrow(L"\u20ac");
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.bytes, bytes("\xE2\x82\xAC"));
  EXPECT_EQ(result.length, 3U);
}

TEST(W2Utf8, EmptyTextGivesABufferHoldingOneNul) {
  const Narrow result = narrow(L"");
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.bytes, std::vector<char>{'\0'});
  EXPECT_EQ(result.length, 0U);
}

TEST(W2Utf8, NullTextReturnsFalseAndTouchesNothing) {
  char marker = 'x';
  char* out = &marker;
  unsigned long length = 99;
  EXPECT_FALSE(W2UTF8(nullptr, &out, &length));
  EXPECT_EQ(out, &marker);
  EXPECT_EQ(length, 99U);
  EXPECT_FALSE(W2UTF8(L"a", nullptr, &length));
  EXPECT_EQ(length, 99U);
}

TEST(W2Utf8, LengthMayBeLeftOut) {
  char* out = nullptr;
  ASSERT_TRUE(W2UTF8(L"ab", &out, nullptr));
  EXPECT_STREQ(out, "ab");
  delete[] out;
}

struct Boundary {
  uint32_t unit;
  std::string encoded;
};

TEST(W2Utf8, EncodesEveryLengthAtItsBoundaries) {
  const std::vector<Boundary> boundaries = {{0x01, "\x01"},
                                            {0x7F, "\x7F"},
                                            {0x80, "\xC2\x80"},
                                            {0x7FF, "\xDF\xBF"},
                                            {0x800, "\xE0\xA0\x80"},
                                            {0xD800, "\xED\xA0\x80"},  // a surrogate like any other value
                                            {0xFFFF, "\xEF\xBF\xBF"},
                                            {0x10000, "\xF0\x90\x80\x80"},
                                            {0x10FFFF, "\xF4\x8F\xBF\xBF"},
                                            {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
                                            {0x200000, "\xF8\x88\x80\x80\x80"},
                                            {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
                                            {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
                                            {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"}};
  for (const Boundary& boundary : boundaries) {
    const std::vector<wchar_t> text = units({boundary.unit, 0});
    EXPECT_EQ(narrow(text.data()).bytes, bytes(boundary.encoded)) << std::hex << boundary.unit;
    EXPECT_EQ(wide(boundary.encoded.c_str()).units, text) << std::hex << boundary.unit;
  }
}

TEST(W2Utf8, NegativeUnitIsOneByteOfItsLowEightBits) {
  const std::vector<wchar_t> text = units({'a', 0x80000041, 0xFFFFFFFF, 0});
  const Narrow result = narrow(text.data());
  EXPECT_EQ(result.bytes, bytes("aA\xFF"));
  EXPECT_EQ(result.length, 3U);
}

TEST(W2Utf8, OneArgumentFormEndsAtTheFirstNul) {
  const std::vector<wchar_t> text = units({'a', 0x80000000, 'b', 0});
  EXPECT_EQ(narrow(text.data()).length, 3U);
  EXPECT_EQ(W2UTF8(text.data()), "a");
  EXPECT_EQ(W2UTF8(static_cast<const wchar_t*>(nullptr)), "");
  EXPECT_EQ(W2UTF8(L"M\u00fcller"), "M\xC3\xBCller");
}

TEST(Utf82W, NullTextReturnsFalseAndTouchesNothing) {
  wchar_t marker = L'x';
  wchar_t* out = &marker;
  unsigned long length = 99;
  EXPECT_FALSE(UTF82W(nullptr, &out, &length));
  EXPECT_EQ(out, &marker);
  EXPECT_EQ(length, 99U);
  EXPECT_FALSE(UTF82W("a", nullptr, &length));
}

TEST(Utf82W, DecodesAndTerminates) {
  const Wide result = wide("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_TRUE(result.done);
  EXPECT_EQ(result.length, 4U);
  EXPECT_EQ(result.units, units({'a', 0xE9, 0x20AC, 0x1F600, 0}));
  EXPECT_EQ(wide("").units, units({0}));
  wchar_t* out = nullptr;
  ASSERT_TRUE(UTF82W("ab", &out, nullptr));
  EXPECT_STREQ(out, L"ab");
  delete[] out;
}

// Each text stands at the end of a heap block of its own, so that the address sanitizer sees a step too far.
TEST(Utf82W, NeverStepsPastTheTerminatingNul) {
  for (unsigned lead = 0x80; lead < 0x100; ++lead) {
    for (unsigned followers = 0; followers < 6; ++followers) {
      std::vector<char> text = {'a', static_cast<char>(lead)};
      text.insert(text.end(), followers, '\xBF');
      text.push_back('\0');
      text.shrink_to_fit();
      const Wide result = wide(text.data());
      ASSERT_TRUE(result.done);
      ASSERT_GE(result.length, 2U);
      ASSERT_LE(result.length, 2U + followers);
      ASSERT_EQ(result.units.back(), 0);
    }
  }
}

TEST(Utf82W, MissingBytesAtTheEndCountAsEmptyContinuations) {
  EXPECT_EQ(wide("\xE2\x82").units, units({0x2080, 0}));
  EXPECT_EQ(wide("\xF0").units, units({0, 0}));
  EXPECT_EQ(wide("\xFD\xBF").units, units({0x7F000000, 0}));
}

TEST(Utf82W, ContinuationBytesAreNotChecked) {
  EXPECT_EQ(wide("\xC3"
                 "a")
                .units,
            units({(3 << 6) | ('a' & 0x3F), 0}));
  // A stray continuation byte steps six, and keeps the bits that fit: 0x80 << 30.
  EXPECT_EQ(wide("\x80\x81\x82\x83\x84\x85z").units,
            units({(1U << 24) | (2U << 18) | (3U << 12) | (4U << 6) | 5, 'z', 0}));
  EXPECT_EQ(wide("\x81").units, units({0x40000000, 0}));
}

TEST(Utf82W, ManyStrayContinuationsAreCharactersOfTheirOwn) {
  const std::string text(600, '\x80');
  EXPECT_EQ(wide(text.c_str()).length, 100U);
}

TEST(Utf82W, AcceptedTextWhoseLeadStepsSixEndsAtItsNul) {
  // Is_UTF8 expects four continuation bytes after 0xFE, decoding steps six.
  ASSERT_TRUE(Is_UTF8("\xFE\x80\x80\x80\x80"));
  EXPECT_EQ(wide("\xFE\x80\x80\x80\x80").length, 1U);
}

TEST(Utf82W, OneArgumentFormEndsAtTheFirstZeroUnit) {
  EXPECT_EQ(wide("a\xC0\x80"
                 "b")
                .length,
            3U);
  EXPECT_EQ(UTF82W("a\xC0\x80"
                   "b"),
            L"a");
  EXPECT_EQ(UTF82W("d\xC3\xA9j\xC3\xA0"), L"d\u00e9j\u00e0");
  EXPECT_EQ(UTF82W(""), L"");
  EXPECT_EQ(UTF82W(static_cast<const char*>(nullptr)), L"");
}

TEST_F(TextLocale, Utf82WOfLatin1BytesFallsBackToTheLocale) {
  // The C locale has no character for the byte: the conversion fails, the result is empty.
  EXPECT_EQ(UTF82W("M\xFCller"), L"");
  // A locale of our own, so that the machine need not have one.
  const std::string folder = testing::TempDir() + "mirn-locale-" + std::to_string(::getpid());
  std::filesystem::create_directories(folder);
  const std::string make = "localedef -i en_US -f ISO-8859-1 " + folder + "/latin1 >/dev/null 2>&1";
  const bool made = std::system(make.c_str()) == 0;  // NOLINT(cert-env33-c): a test's own command
  ::setenv("LOCPATH", folder.c_str(), 1);
  const bool used = made && useLocale("latin1");
  const std::wstring converted = used ? UTF82W("M\xFCller") : L"";
  const std::string back = used ? CW2A_(L"M\u00fcller") : "";
  ::unsetenv("LOCPATH");
  std::filesystem::remove_all(folder);
  if (!used) {
    GTEST_SKIP() << "no Latin-1 locale can be made here (package locales); the C locale was tested";
  }
  EXPECT_EQ(converted, L"M\u00fcller");
  EXPECT_EQ(back, "M\xFCller");
}

TEST_F(TextLocale, Ca2WUnderTheCLocale) {
  EXPECT_EQ(CA2W_("plain"), L"plain");
  EXPECT_EQ(CA2W_("d\xC3\xA9j\xC3\xA0"), L"d\u00e9j\u00e0") << "UTF-8 needs no locale";
  EXPECT_EQ(CA2W_("M\xFCller"), L"");
  EXPECT_EQ(CA2W_(""), L"");
  EXPECT_EQ(CA2W_(nullptr), L"");
}

TEST_F(TextLocale, Ca2WUnderAUtf8Locale) {
  ASSERT_TRUE(useLocale("C.UTF-8"));
  EXPECT_EQ(CA2W_("d\xC3\xA9j\xC3\xA0"), L"d\u00e9j\u00e0");
  EXPECT_EQ(CA2W_("M\xFCller"), L"") << "neither UTF-8 nor valid in the locale";
}

TEST_F(TextLocale, Cw2AUnderTheCLocale) {
  EXPECT_EQ(CW2A_(L"plain"), "plain");
  EXPECT_EQ(CW2A_(L"\u20ac"), "");
  EXPECT_EQ(CW2A_(L"a\u00e9"), "");
  EXPECT_EQ(CW2A_(L""), "");
  EXPECT_EQ(CW2A_(nullptr), "");
}

TEST_F(TextLocale, Cw2AUnderAUtf8LocaleCutsAtACharacterBoundary) {
  ASSERT_TRUE(useLocale("C.UTF-8"));
  EXPECT_EQ(CW2A_(L"plain"), "plain");
  EXPECT_EQ(CW2A_(L"\u20ac"), "") << "three bytes don't fit into one";
  EXPECT_EQ(CW2A_(L"\u20acab"), "\xE2\x82\xAC") << "as many bytes as the text has characters";
  EXPECT_EQ(CW2A_(L"ab\u20ac"), "ab");
  EXPECT_EQ(CW2A_(L"a\u00e9z"), "a\xC3\xA9");
}

TEST(IsUtf8, KnowsLeadAndContinuationBytes) {
  EXPECT_TRUE(Is_UTF8(""));
  EXPECT_FALSE(Is_UTF8(nullptr));
  EXPECT_TRUE(Is_UTF8("\xC3\xA9"));
  EXPECT_FALSE(Is_UTF8("\xC3"));
  EXPECT_FALSE(Is_UTF8("\x80"));
  EXPECT_FALSE(Is_UTF8("\xBF"));
  EXPECT_TRUE(Is_UTF8("\xFC\x80\x80\x80\x80\x80"));
  EXPECT_FALSE(Is_UTF8("\xFC\x80\x80\x80\x80"));
  EXPECT_FALSE(Is_UTF8("a\xC3z"));
  EXPECT_FALSE(Is_UTF8("\xC3\xC3\xA9"));
  EXPECT_TRUE(Is_UTF8("\xED\xA0\x80")) << "surrogates pass";
  EXPECT_TRUE(Is_UTF8("\xC0\x80")) << "overlong forms pass";
}

TEST(IsUtf8, ExpectsAFixedNumberOfContinuationsForEachLead) {
  for (unsigned lead = 1; lead < 0x100; ++lead) {
    const int expected = lead < 0x80                      ? 0
                         : lead < 0xC0                    ? -1
                         : lead < 0xE0                    ? 1
                         : lead < 0xF0                    ? 2
                         : lead < 0xF8                    ? 3
                         : (lead == 0xFC || lead == 0xFD) ? 5
                                                          : 4;
    for (int count = 0; count < 7; ++count) {
      const std::string text = static_cast<char>(lead) + std::string(static_cast<size_t>(count), '\x80');
      EXPECT_EQ(Is_UTF8(text.c_str()), count == expected) << std::hex << lead << " with " << count;
    }
  }
}

TEST(IsGbk, KnowsPairs) {
  EXPECT_TRUE(Is_GBK(""));
  EXPECT_FALSE(Is_GBK(nullptr));
  EXPECT_TRUE(Is_GBK("plain"));
  EXPECT_TRUE(Is_GBK("\xC4\xE3"));
  EXPECT_TRUE(Is_GBK("\x81\x7F"));
  EXPECT_FALSE(Is_GBK("\x81\x3F"));
  EXPECT_FALSE(
      Is_GBK("\x80"
             "A"));
  EXPECT_FALSE(
      Is_GBK("\xFF"
             "A"));
  EXPECT_FALSE(Is_GBK("\x81"));
  EXPECT_FALSE(Is_GBK("a\x81"));
  EXPECT_TRUE(Is_GBK("a\x81\x40z"));
}

TEST(IsGbk, EveryPairByItsRanges) {
  for (unsigned lead = 1; lead < 0x100; ++lead) {
    for (unsigned trail = 1; trail < 0x100; ++trail) {
      const std::string text = {static_cast<char>(lead), static_cast<char>(trail)};
      const bool pair = lead >= 0x81 && lead <= 0xFE && trail >= 0x40 && trail <= 0xFE;
      const bool singles = lead < 0x80 && trail < 0x80;
      ASSERT_EQ(Is_GBK(text.c_str()), pair || singles) << std::hex << lead << ' ' << trail;
    }
  }
}

}  // namespace
}  // namespace mirn
