// The short way of formatting against the C library, byte for byte.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "deps/pellum/logger/filelog_line.h"

namespace mirn {
namespace {

std::string ours(const char* format, ...) {
  std::vector<char> out(kMessageBytes);
  va_list arguments;
  va_start(arguments, format);
  const size_t length = formatMessage(out.data(), format, arguments);
  va_end(arguments);
  EXPECT_EQ(out[length], '\0');
  return {out.data(), length};
}

std::string libc(const char* format, ...) {
  std::vector<char> out(kMessageBytes);
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(out.data(), out.size(), format, arguments);
  va_end(arguments);
  return out.data();
}

#define EXPECT_SAME(...) EXPECT_EQ(ours(__VA_ARGS__), libc(__VA_ARGS__))

TEST(MessageFormat, ShortConversionsMatchTheCLibrary) {
  EXPECT_SAME("%s", "");
  EXPECT_SAME("no conversion");
  EXPECT_SAME("%%");
  EXPECT_SAME("100%% of %s", "it");
  EXPECT_SAME("%d %d %d", 0, INT_MIN, INT_MAX);
  EXPECT_SAME("%u %u", 0U, UINT_MAX);
  EXPECT_SAME("%x %x", 0xDEADBEEFU, 0U);
  EXPECT_SAME("%ld %lu %lx", LONG_MIN, ULONG_MAX, ULONG_MAX);
  EXPECT_SAME("%zu", SIZE_MAX);
  EXPECT_SAME("%c%c", 'a', 0xE9);
  EXPECT_SAME("[%s] %s %d, %u|%s", "send", "a b", -5, 7U, "end");
}

TEST(MessageFormat, EverythingElseIsLeftToTheCLibrary) {
  EXPECT_SAME("%5d|%-5d|%05d|%+d", 1, 2, 3, 4);
  EXPECT_SAME("%.3s|%10s", "abcdef", "right");
  EXPECT_SAME("%08x %#x %X %o %i", 255U, 255U, 255U, 8U, 9);
  EXPECT_SAME("%f %g %e", 1.5, 2.5, 3.5);
  EXPECT_SAME("%s %lld %llu %hd %hhu", "mixed", 1LL, 2ULL, 3, 4);
  EXPECT_SAME("%s then %ls", "short", L"wide");
  EXPECT_SAME("%lc", static_cast<wint_t>('w'));
  EXPECT_SAME("%p", static_cast<void*>(nullptr));
  EXPECT_SAME("%zd %jd %td", static_cast<ssize_t>(-1), intmax_t{2}, ptrdiff_t{3});
  EXPECT_SAME("%*d", 6, 42);
}

TEST(MessageFormat, NullTextIsShownAsTheCLibraryDoes) {
  const char* volatile none = nullptr;
  EXPECT_EQ(ours("%s|", none), "(null)|");
}

TEST(MessageFormat, MessageEndsAtAPrintedNul) {
  EXPECT_EQ(ours("a%cb", 0), "a");
  EXPECT_EQ(ours("%5da%cb", 1, 0), "    1a");
}

TEST(MessageFormat, NullAndFailingFormatsAreEmpty) {
  EXPECT_EQ(ours(nullptr), "");
  const wchar_t bad[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};  // no character of the C locale
  EXPECT_EQ(ours("text %ls", bad), "");
}

TEST(MessageFormat, EveryPieceIsCutAtTheEnd) {
  const std::string almost(kMessageBytes - 1 - 4, 'x');
  EXPECT_SAME("%s%d", almost.c_str(), 1234567);
  EXPECT_SAME("%s%s", almost.c_str(), "abcdefg");
  EXPECT_SAME("%sabcdefg", almost.c_str());
  EXPECT_SAME("%sabcd%c%%", almost.c_str(), 'e');
  EXPECT_SAME("%s%9d", almost.c_str(), 5);
  const std::string longer(2 * kMessageBytes, 'y');
  EXPECT_SAME("%s", longer.c_str());
  EXPECT_SAME("%s%s%d", longer.c_str(), "z", 1);
  for (size_t room = 0; room < 30; ++room) {
    const std::string filled(kMessageBytes - 1 - room, 'x');
    EXPECT_SAME("%s%ld%u", filled.c_str(), LONG_MIN, UINT_MAX);
  }
}

TEST(MessageFormat, LonePercentAtTheEndIsHarmless) {
  const char* volatile format = "50%";
  EXPECT_LE(ours(format).size(), 3U);
}

}  // namespace
}  // namespace mirn
