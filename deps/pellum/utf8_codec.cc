#include "deps/pellum/utf8_codec.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace mirn {
namespace {

constexpr size_t kBlock = 64;

// Below 0x80 comes first and is signed: a negative unit takes one byte.
int unitSize(int32_t unit) {
  return 1 + (unit >= 0x80) + (unit >= 0x800) + (unit >= 0x10000) + (unit >= 0x200000) + (unit >= 0x4000000);
}

uint8_t* encodeUnit(uint32_t unit, uint8_t* out) {
  constexpr uint8_t kLeadMarks[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  const int size = unitSize(static_cast<int32_t>(unit));
  for (int i = size - 1; i > 0; --i) {
    out[i] = static_cast<uint8_t>(0x80 | (unit & 0x3F));
    unit >>= 6;
  }
  out[0] = static_cast<uint8_t>(kLeadMarks[size] | unit);
  return out + size;
}

// Units below 0x10000, without a branch that text of many scripts would make unpredictable. Writes four bytes, of which
// the result says how many count.
uint8_t* encodeShortUnit(uint32_t unit, uint8_t* out) {
  const uint32_t two = 0x80C0 | (unit >> 6) | ((unit & 0x3F) << 8);
  const uint32_t three = 0x8080E0 | (unit >> 12) | ((unit << 2) & 0x3F00) | ((unit & 0x3F) << 16);
  uint32_t bytes = unit < 0x80 ? unit : two;
  bytes = unit < 0x800 ? bytes : three;
  if constexpr (std::endian::native == std::endian::big) {
    bytes = __builtin_bswap32(bytes);
  }
  std::memcpy(out, &bytes, sizeof bytes);
  return out + 1 + (unit >= 0x80) + (unit >= 0x800);
}

// How many bytes a lead byte claims, by its upper five bits; 0xF8..0xFB claim 5, everything else 6.
constexpr std::array<uint8_t, 32> kShortSteps = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1,
                                                 0, 0, 0, 0, 0, 0, 0, 0, 2, 2, 2, 2, 3, 3, 4, 0};

size_t stepOf(uint8_t lead) {
  const size_t step = kShortSteps[lead >> 3];
  if (step != 0) {
    return step;
  }
  return (lead & 0xFC) == 0xF8 ? 5 : 6;
}

// One character of any kind from `left` > 0 bytes. Bytes that the end cuts off count as 0x80.
wchar_t decodeStep(const uint8_t* text, size_t left, size_t& step) {
  const size_t claimed = stepOf(text[0]);
  step = std::min(claimed, left);
  if (claimed == 1) {
    return static_cast<wchar_t>(text[0]);
  }
  // The lead's payload; of a six-byte step all of it is shifted, and what no longer fits falls off.
  uint32_t value = claimed == 6 ? text[0] : text[0] & (0x7FU >> claimed);
  for (size_t i = 1; i < claimed; ++i) {
    value = (value << 6) | (i < left ? text[i] & 0x3FU : 0U);
  }
  return static_cast<wchar_t>(value);
}

#if defined(__SSE2__)

struct BlockMasks {
  uint64_t not_ascii;  // bit i: byte i has its upper bit set
  uint64_t leads;      // bit i: byte i is no continuation byte
};

BlockMasks blockMasks(const uint8_t* text) {
  BlockMasks masks{0, 0};
  for (unsigned i = 0; i < kBlock; i += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    // As signed bytes the continuations 0x80..0xBF are those below -64.
    const __m128i continuation = _mm_cmplt_epi8(bytes, _mm_set1_epi8(-64));
    masks.not_ascii |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(bytes))) << i;
    masks.leads |= static_cast<uint64_t>(~static_cast<uint32_t>(_mm_movemask_epi8(continuation)) & 0xFFFFU) << i;
  }
  return masks;
}

void widenAscii(const uint8_t* text, size_t bytes, wchar_t* out) {
  const __m128i zero = _mm_setzero_si128();
  for (size_t i = 0; i < bytes; i += 16) {
    const __m128i narrow = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    const __m128i low = _mm_unpacklo_epi8(narrow, zero);
    const __m128i high = _mm_unpackhi_epi8(narrow, zero);
    auto* target = reinterpret_cast<__m128i*>(out + i);
    _mm_storeu_si128(target, _mm_unpacklo_epi16(low, zero));
    _mm_storeu_si128(target + 1, _mm_unpackhi_epi16(low, zero));
    _mm_storeu_si128(target + 2, _mm_unpacklo_epi16(high, zero));
    _mm_storeu_si128(target + 3, _mm_unpackhi_epi16(high, zero));
  }
}

// Decodes the characters of a block from one lead to the next, so that no character waits for the length of the one
// before it. The block's last character is left: it may reach beyond. Returns false, with nothing advanced, if a length
// is not what its lead claims (or above four); then the careful way decides.
bool decodeBlock(const uint8_t* text, uint64_t leads, size_t& consumed, wchar_t*& out) {
  constexpr uint32_t kPayload[] = {0, 0x7F, 0x7FF, 0xFFFF, 0x1FFFFF};
  const auto last = static_cast<unsigned>(63 - std::countl_zero(leads));
  uint64_t rest = leads & ~(1ULL << last);
  wchar_t* end = out;
  unsigned wrong = 0;
  while (rest != 0) {
    const auto at = static_cast<unsigned>(std::countr_zero(rest));
    rest &= rest - 1;
    const unsigned claimed = kShortSteps[text[at] >> 3];
    const auto next = static_cast<unsigned>(std::countr_zero(leads & (~1ULL << at)));
    wrong |= claimed ^ (next - at);
    uint32_t bytes = 0;
    std::memcpy(&bytes, text + at, sizeof bytes);
    bytes = __builtin_bswap32(bytes) >> ((32 - 8 * claimed) & 31);
    const uint32_t value =
        (bytes & 0x7F) | ((bytes >> 2) & 0xFC0) | ((bytes >> 4) & 0x3F000) | ((bytes >> 6) & 0xFC0000);
    *end++ = static_cast<wchar_t>(value & kPayload[claimed]);
  }
  if (wrong != 0) {
    return false;
  }
  consumed = last;
  out = end;
  return true;
}

// As many whole blocks as go the quick way, leaving the last bytes of the text; advances both positions.
void decodeBlocks(const uint8_t* text, size_t bytes, size_t& at, wchar_t*& out, const wchar_t* out_end) {
  constexpr size_t kOverread = 3;
  while (bytes - at >= kBlock + kOverread && static_cast<size_t>(out_end - out) >= kBlock) {
    const BlockMasks masks = blockMasks(text + at);
    size_t consumed = 0;
    if (masks.not_ascii == 0) {
      widenAscii(text + at, kBlock, out);
      out += kBlock;
      consumed = kBlock;
    } else if ((masks.leads & 1) == 0 || !decodeBlock(text + at, masks.leads, consumed, out) || consumed == 0) {
      return;
    }
    at += consumed;
  }
}

size_t encodeAsciiRun(const wchar_t* text, size_t units, uint8_t* out) {
  size_t done = 0;
  for (; units - done >= 16; done += 16) {
    const auto* source = reinterpret_cast<const __m128i*>(text + done);
    const __m128i a = _mm_loadu_si128(source);
    const __m128i b = _mm_loadu_si128(source + 1);
    const __m128i c = _mm_loadu_si128(source + 2);
    const __m128i d = _mm_loadu_si128(source + 3);
    const __m128i any = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
    const __m128i high = _mm_andnot_si128(_mm_set1_epi32(0x7F), any);
    if (_mm_movemask_epi8(_mm_cmpeq_epi32(high, _mm_setzero_si128())) != 0xFFFF) {
      break;
    }
    const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + done), packed);
  }
  return done;
}

#else

void decodeBlocks(const uint8_t*, size_t, size_t&, wchar_t*&, const wchar_t*) {}

size_t encodeAsciiRun(const wchar_t*, size_t, uint8_t*) {
  return 0;
}

#endif

}  // namespace

size_t utf8Size(const wchar_t* text, size_t units) {
  constexpr size_t kChunk = 1 << 20;  // keeps the partial sum in 32 bits, as wide as a unit
  size_t size = 0;
  for (size_t start = 0; start < units; start += kChunk) {
    const size_t end = std::min(units, start + kChunk);
    uint32_t chunk = 0;
    for (size_t i = start; i < end; ++i) {
      chunk += static_cast<uint32_t>(unitSize(static_cast<int32_t>(text[i])));
    }
    size += chunk;
  }
  return size;
}

void utf8Encode(const wchar_t* text, size_t units, char* out) {
  auto* to = reinterpret_cast<uint8_t*>(out);
  size_t i = 0;
  while (i < units) {
    const size_t ascii = encodeAsciiRun(text + i, units - i, to);
    i += ascii;
    to += ascii;
    // The short way writes up to three bytes too many; three more units make room for them.
    const size_t end = units - i > 3 ? std::min(units - 3, i + kBlock) : i;
    while (i < end && static_cast<uint32_t>(text[i]) < 0x10000) {
      to = encodeShortUnit(static_cast<uint32_t>(text[i++]), to);
    }
    if (i < units) {
      to = encodeUnit(static_cast<uint32_t>(text[i++]), to);
    }
  }
}

size_t utf8CountLeads(const char* text, size_t bytes) {
  constexpr size_t kChunk = 255;  // keeps the partial sum in 8 bits, as wide as a byte
  size_t leads = 0;
  for (size_t start = 0; start < bytes; start += kChunk) {
    const size_t end = std::min(bytes, start + kChunk);
    uint8_t chunk = 0;
    for (size_t i = start; i < end; ++i) {
      chunk = static_cast<uint8_t>(chunk + ((static_cast<uint8_t>(text[i]) & 0xC0) != 0x80));
    }
    leads += chunk;
  }
  return leads;
}

size_t utf8CountSteps(const char* text, size_t bytes) {
  size_t count = 0;
  for (size_t at = 0; at < bytes; ++count) {
    at += stepOf(static_cast<uint8_t>(text[at]));
  }
  return count;
}

size_t utf8Decode(const char* text, size_t bytes, wchar_t* out, size_t capacity) {
  const auto* from = reinterpret_cast<const uint8_t*>(text);
  wchar_t* to = out;
  const wchar_t* const out_end = out + capacity;
  size_t at = 0;
  while (at < bytes) {
    decodeBlocks(from, bytes, at, to, out_end);
    // The careful way for the rest, or for what stopped the quick one.
    for (const size_t end = std::min(bytes, at + kBlock); at < end;) {
      if (to == out_end) {
        return kTooManyCharacters;
      }
      size_t step = 0;
      *to++ = decodeStep(from + at, bytes - at, step);
      at += step;
    }
  }
  return static_cast<size_t>(to - out);
}

}  // namespace mirn
