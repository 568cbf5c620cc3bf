// The quick ways of the codec against the plain one, and the plain one against a model that follows the bits one by
// one.
#include "deps/pellum/utf8_codec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace mirn {
namespace {

std::string encoded(const std::wstring& text, Utf8Way way) {
  // Exactly as large as the result: a write beyond it is the address sanitizer's to see.
  std::vector<char> out(utf8Size(text.data(), text.size(), way));
  utf8Encode(text.data(), text.size(), out.data(), way);
  return {out.begin(), out.end()};
}

std::vector<wchar_t> decoded(const std::string& text, Utf8Way way) {
  std::vector<char> in(text.begin(), text.end());
  std::vector<wchar_t> out(utf8CountSteps(in.data(), in.size()));
  const size_t characters = utf8Decode(in.data(), in.size(), out.data(), out.size(), way);
  EXPECT_EQ(characters, out.size());
  return out;
}

std::string modelEncoded(const std::wstring& text) {
  std::string out;
  for (const wchar_t unit : text) {
    const auto value = static_cast<uint32_t>(unit);
    int more = 0;
    if (static_cast<int32_t>(unit) >= 0x80) {
      more = 1;
      for (uint64_t limit = 0x800; value >= limit && more < 5; limit *= 32) {
        ++more;
      }
    }
    const unsigned marks[] = {0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
    out += static_cast<char>(more == 0 ? value & 0xFF : marks[more] | (value >> (6 * more)));
    while (more-- > 0) {
      out += static_cast<char>(0x80 | ((value >> (6 * more)) & 0x3F));
    }
  }
  return out;
}

std::vector<wchar_t> modelDecoded(const std::string& text) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0U; };
  std::vector<wchar_t> out;
  for (size_t i = 0; i < text.size();) {
    const unsigned b = byte(i);
    const auto c = [&](size_t n) { return byte(i + n) & 0x3F; };
    uint32_t value = b;
    size_t step = 1;
    if (b >= 0x80) {
      if ((b & 0xE0) == 0xC0) {
        value = (b & 0x3F) << 6 | c(1);
        step = 2;
      } else if ((b & 0xF0) == 0xE0) {
        value = (b & 0x1F) << 12 | c(1) << 6 | c(2);
        value &= 0xFFFF;
        step = 3;
      } else if ((b & 0xF8) == 0xF0) {
        value = (b & 0x07) << 18 | c(1) << 12 | c(2) << 6 | c(3);
        step = 4;
      } else if ((b & 0xFC) == 0xF8) {
        value = (b & 0x03) << 24 | c(1) << 18 | c(2) << 12 | c(3) << 6 | c(4);
        step = 5;
      } else {
        value = b << 30 | c(1) << 24 | c(2) << 18 | c(3) << 12 | c(4) << 6 | c(5);
        step = 6;
      }
    }
    out.push_back(static_cast<wchar_t>(value));
    i += step;
  }
  return out;
}

// Units of every size; `kinds` says how many of the sizes, from one byte upward, may occur.
std::wstring randomText(std::mt19937& random, size_t length, unsigned kinds) {
  const uint32_t limits[] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000, 0xFFFFFFFF};
  std::wstring text(length, L' ');
  unsigned kind = 0;
  for (wchar_t& unit : text) {
    if (random() % 8 == 0) {
      kind = random() % kinds;
    }
    const uint32_t low = kind == 0 ? 1 : limits[kind - 1];
    unit = static_cast<wchar_t>(low + random() % (limits[kind] - low));
  }
  return text;
}

constexpr int kTexts = 3000;

TEST(Utf8Codec, EncodesAsTheModelDoes) {
  std::mt19937 random(1);
  for (int i = 0; i < kTexts; ++i) {
    const std::wstring text = randomText(random, random() % 300, 1 + random() % 7);
    const std::string expected = modelEncoded(text);
    ASSERT_EQ(encoded(text, Utf8Way::kPlain), expected) << "text " << i;
    ASSERT_EQ(encoded(text, Utf8Way::kBest), expected) << "text " << i;
  }
}

TEST(Utf8Codec, DecodesWellFormedTextBackToItself) {
  std::mt19937 random(2);
  for (int i = 0; i < kTexts; ++i) {
    const std::wstring text = randomText(random, random() % 300, 1 + random() % 6);
    const std::string bytes = modelEncoded(text);
    const std::vector<wchar_t> expected(text.begin(), text.end());
    ASSERT_EQ(decoded(bytes, Utf8Way::kPlain), expected) << "text " << i;
    ASSERT_EQ(decoded(bytes, Utf8Way::kBest), expected) << "text " << i;
    ASSERT_EQ(utf8CountLeads(bytes.data(), bytes.size()), text.size());
    ASSERT_EQ(utf8CountLeads(bytes.data(), bytes.size(), Utf8Way::kPlain), text.size());
  }
}

// A byte changed, removed or cut off somewhere: both ways must step alike.
TEST(Utf8Codec, DecodesDamagedTextAsTheModelDoes) {
  std::mt19937 random(3);
  for (int i = 0; i < kTexts; ++i) {
    std::string bytes = modelEncoded(randomText(random, 1 + random() % 200, 1 + random() % 6));
    for (unsigned damage = random() % 4; damage-- > 0 && !bytes.empty();) {
      const size_t at = random() % bytes.size();
      switch (random() % 3) {
        case 0:
          bytes[at] = static_cast<char>(1 + random() % 255);
          break;
        case 1:
          bytes.erase(at, 1);
          break;
        default:
          bytes.resize(at);
      }
    }
    const std::vector<wchar_t> expected = modelDecoded(bytes);
    ASSERT_EQ(decoded(bytes, Utf8Way::kPlain), expected) << "text " << i;
    ASSERT_EQ(decoded(bytes, Utf8Way::kBest), expected) << "text " << i;
  }
}

TEST(Utf8Codec, DecodesNoiseAsTheModelDoes) {
  std::mt19937 random(4);
  for (int i = 0; i < kTexts; ++i) {
    std::string bytes(random() % 400, ' ');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(1 + random() % 255); });
    ASSERT_EQ(decoded(bytes, Utf8Way::kBest), modelDecoded(bytes)) << "text " << i;
  }
}

TEST(Utf8Codec, SaysWhenTheCharactersDontFit) {
  for (const Utf8Way way : {Utf8Way::kBest, Utf8Way::kPlain}) {
    const std::string text(200, 'a');
    std::vector<wchar_t> out(199);
    EXPECT_EQ(utf8Decode(text.data(), text.size(), out.data(), out.size(), way), kTooManyCharacters);
    EXPECT_EQ(utf8Decode(text.data(), 199, out.data(), out.size(), way), 199U);
    EXPECT_EQ(utf8Decode(text.data(), 1, out.data(), 0, way), kTooManyCharacters);
    EXPECT_EQ(utf8Decode(text.data(), 0, out.data(), 0, way), 0U);
  }
}

TEST(Utf8Codec, SizesLongTextsOfEveryKind) {
  std::mt19937 random(5);
  for (unsigned kinds = 1; kinds <= 7; ++kinds) {
    const std::wstring text = randomText(random, 200003, kinds);
    EXPECT_EQ(utf8Size(text.data(), text.size()), utf8Size(text.data(), text.size(), Utf8Way::kPlain));
  }
}

// A size that is too small would be a write beyond the end.
TEST(Utf8Codec, SizesTextsAtEachBoundary) {
  const std::pair<uint32_t, size_t> sizes[] = {{0x7F, 1},       {0x80, 2},       {0x7FF, 2},     {0x800, 3},
                                               {0xFFFF, 3},     {0x10000, 4},    {0x1FFFFF, 4},  {0x200000, 5},
                                               {0x3FFFFF, 5},   {0x400000, 5},   {0x3FFFFFF, 5}, {0x4000000, 6},
                                               {0x7FFFFFFF, 6}, {0x80000000, 1}, {0xFFFFFFFF, 1}};
  for (const auto& [unit, size] : sizes) {
    for (const size_t length : {1, 8, 100}) {
      const std::wstring text(length, static_cast<wchar_t>(unit));
      EXPECT_EQ(utf8Size(text.data(), length), length * size) << std::hex << unit;
      EXPECT_EQ(utf8Size(text.data(), length, Utf8Way::kPlain), length * size) << std::hex << unit;
      EXPECT_EQ(encoded(text, Utf8Way::kBest), modelEncoded(text)) << std::hex << unit;
    }
  }
}

TEST(Utf8Codec, CountsTheLeadsOfLongTexts) {
  for (const size_t length : {8191, 8192, 8223, 100000}) {
    const std::string text(length, 'a');
    EXPECT_EQ(utf8CountLeads(text.data(), length), length);
    EXPECT_EQ(utf8CountLeads(text.data(), length, Utf8Way::kPlain), length);
    const std::string continuations(length, '\x80');
    EXPECT_EQ(utf8CountLeads(continuations.data(), length), 0U);
  }
}

}  // namespace
}  // namespace mirn
