#include "deps/pellum/utf8_codec.h"

#include <algorithm>

namespace mirn {
namespace {

constexpr size_t kStretch = 64;  // what is done the plain way before the quick way gets another try

// The first comparison is signed: a negative unit takes one byte.
size_t unitSize(int32_t unit) {
  if (unit < 0x80) {
    return 1;
  }
  return 2U + (unit >= 0x800) + (unit >= 0x10000) + (unit >= 0x200000) + (unit >= 0x4000000);
}

// How many bytes a lead byte claims.
size_t stepOf(uint8_t lead) {
  if (lead < 0x80) {
    return 1;
  }
  if ((lead & 0xE0) == 0xC0) {
    return 2;
  }
  if ((lead & 0xF0) == 0xE0) {
    return 3;
  }
  if ((lead & 0xF8) == 0xF0) {
    return 4;
  }
  return (lead & 0xFC) == 0xF8 ? 5 : 6;
}

bool useShuffles(Utf8Way way) {
  static const bool available = utf8_shuffle::available();
  return way == Utf8Way::kBest && available;
}

}  // namespace

namespace utf8_plain {

void encodeUnit(Utf8EncodeState& state) {
  constexpr uint8_t kLeadMarks[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  auto unit = static_cast<uint32_t>(*state.text++);  // NOLINT(bugprone-signed-char-misuse): wchar_t has all 32 bits
  const size_t size = unitSize(static_cast<int32_t>(unit));
  for (size_t i = size - 1; i > 0; --i) {
    state.out[i] = static_cast<uint8_t>(0x80 | (unit & 0x3F));
    unit >>= 6;
  }
  state.out[0] = static_cast<uint8_t>(kLeadMarks[size] | unit);
  state.out += size;
}

void decodeCharacter(Utf8DecodeState& state) {
  const uint8_t* const text = state.text;
  const size_t claimed = stepOf(text[0]);
  const size_t present = std::min(claimed, static_cast<size_t>(state.text_end - text));
  // The lead's payload. Of a six-byte step all of the lead is shifted, and what no longer fits falls off.
  uint32_t value = claimed == 1 || claimed == 6 ? text[0] : text[0] & (0x7FU >> claimed);
  for (size_t i = 1; i < present; ++i) {
    value = (value << 6) | (text[i] & 0x3FU);
  }
  // Bytes that the end cuts off count as 0x80.
  value <<= 6 * (claimed - present);
  *state.out++ = static_cast<wchar_t>(value);
  state.text += present;
}

size_t size(const wchar_t* text, size_t units) {
  size_t bytes = 0;
  for (size_t i = 0; i < units; ++i) {
    bytes += unitSize(static_cast<int32_t>(text[i]));
  }
  return bytes;
}

}  // namespace utf8_plain

size_t utf8Size(const wchar_t* text, size_t units, Utf8Way way) {
  return useShuffles(way) ? utf8_shuffle::size(text, units) : utf8_plain::size(text, units);
}

void utf8Encode(const wchar_t* text, size_t units, char* out, Utf8Way way) {
  const bool quick = useShuffles(way);
  Utf8EncodeState state{text, text + units, reinterpret_cast<uint8_t*>(out)};
  while (state.text != state.text_end) {
    if (quick) {
      utf8_shuffle::encode(state);
    }
    for (size_t i = 0; i < kStretch && state.text != state.text_end; ++i) {
      utf8_plain::encodeUnit(state);
    }
  }
}

size_t utf8CountLeads(const char* text, size_t bytes, Utf8Way way) {
  const auto* from = reinterpret_cast<const uint8_t*>(text);
  if (useShuffles(way)) {
    return utf8_shuffle::countLeads(from, bytes);
  }
  return static_cast<size_t>(std::count_if(from, from + bytes, [](uint8_t byte) { return (byte & 0xC0) != 0x80; }));
}

size_t utf8CountSteps(const char* text, size_t bytes) {
  size_t count = 0;
  for (size_t at = 0; at < bytes; ++count) {
    at += stepOf(static_cast<uint8_t>(text[at]));
  }
  return count;
}

size_t utf8Decode(const char* text, size_t bytes, wchar_t* out, size_t capacity, Utf8Way way) {
  const bool quick = useShuffles(way);
  const auto* from = reinterpret_cast<const uint8_t*>(text);
  Utf8DecodeState state{from, from + bytes, out, out + capacity};
  while (state.text != state.text_end) {
    if (quick) {
      utf8_shuffle::decode(state);
    }
    for (size_t i = 0; i < kStretch && state.text != state.text_end; ++i) {
      if (state.out == state.out_end) {
        return kTooManyCharacters;
      }
      utf8_plain::decodeCharacter(state);
    }
  }
  return static_cast<size_t>(state.out - out);
}

}  // namespace mirn
