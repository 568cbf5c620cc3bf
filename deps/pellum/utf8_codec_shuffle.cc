// The quick ways of the UTF-8 codec, for x86 processors with AVX2 and the bit instructions that came with it: several
// characters at once, put in order by byte shuffles.
#include "deps/pellum/utf8_codec.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <bit>
#include <numeric>

#define MIRN_AVX2 __attribute__((target("avx2,bmi,bmi2")))

namespace mirn::utf8_shuffle {
namespace {

constexpr uint8_t kZero = 0x80;  // makes a shuffle write 0
constexpr size_t kLane = 4;      // bytes of a wide unit, units of a 128-bit vector

using ByteOrder = std::array<uint8_t, 16>;

MIRN_AVX2 __m128i load(const void* from) {
  return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
MIRN_AVX2 void store(void* to, __m128i bytes) {
  _mm_storeu_si128(static_cast<__m128i*>(to), bytes);
}
MIRN_AVX2 __m256i load256(const void* from) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

// --- encoding: units of one to four bytes ---

// By the sizes of four units, less one: bit i is the lower bit of unit i's size, bit 4 + i the upper one.
struct EncodeTables {
  alignas(16) std::array<ByteOrder, 256> order;
  std::array<uint8_t, 256> length;
};

constexpr EncodeTables makeEncodeTables() {
  EncodeTables tables{};
  for (unsigned sizes = 0; sizes < 256; ++sizes) {
    tables.order[sizes].fill(kZero);
    unsigned length = 0;
    for (unsigned unit = 0; unit < kLane; ++unit) {
      const unsigned size = 1 + ((sizes >> unit) & 1) + 2 * ((sizes >> (kLane + unit)) & 1);
      for (unsigned i = 0; i < size; ++i) {
        tables.order[sizes][length++] = static_cast<uint8_t>(kLane * unit + i);
      }
    }
    tables.length[sizes] = static_cast<uint8_t>(length);
  }
  return tables;
}
constexpr EncodeTables kEncode = makeEncodeTables();

// Whether all units, as unsigned numbers, are below a power of two.
MIRN_AVX2 bool below(int limit, __m256i units) {
  return _mm256_testz_si256(units, _mm256_set1_epi32(~(limit - 1))) != 0;
}

// Writes 16 bytes, of which as many count as the result lies behind `out`.
MIRN_AVX2 uint8_t* storeInOrder(__m128i bytes, unsigned sizes, uint8_t* out) {
  store(out, _mm_shuffle_epi8(bytes, load(kEncode.order[sizes].data())));
  return out + kEncode.length[sizes];
}

MIRN_AVX2 uint8_t* encodeEight(__m256i units, uint8_t* out) {
  const __m256i from_two = _mm256_cmpgt_epi32(units, _mm256_set1_epi32(0x7F));
  const __m256i from_three = _mm256_cmpgt_epi32(units, _mm256_set1_epi32(0x7FF));
  const __m256i from_four = _mm256_cmpgt_epi32(units, _mm256_set1_epi32(0xFFFF));
  // Six bits in each byte, the last ones uppermost; a size of n uses the upper n bytes.
  const __m256i last = _mm256_slli_epi32(_mm256_and_si256(units, _mm256_set1_epi32(0x3F)), 24);
  const __m256i third = _mm256_and_si256(_mm256_slli_epi32(units, 10), _mm256_set1_epi32(0x3F0000));
  const __m256i second = _mm256_and_si256(_mm256_srli_epi32(units, 4), _mm256_set1_epi32(0x3F00));
  const __m256i first = _mm256_srli_epi32(units, 18);
  const __m256i four = _mm256_or_si256(_mm256_or_si256(_mm256_or_si256(last, third), _mm256_or_si256(second, first)),
                                       _mm256_set1_epi32(static_cast<int>(0x808080F0)));
  const __m256i three = _mm256_or_si256(_mm256_srli_epi32(four, 8), _mm256_set1_epi32(0xE0));
  const __m256i two = _mm256_or_si256(_mm256_srli_epi32(four, 16), _mm256_set1_epi32(0xC0));
  __m256i bytes = _mm256_blendv_epi8(units, two, from_two);
  bytes = _mm256_blendv_epi8(bytes, three, from_three);
  bytes = _mm256_blendv_epi8(bytes, four, from_four);
  const __m256i lower = _mm256_xor_si256(_mm256_xor_si256(from_two, from_three), from_four);
  const auto low_bits = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(lower)));
  const auto high_bits = static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(from_three)));
  out = storeInOrder(_mm256_castsi256_si128(bytes), (low_bits & 0x0F) | ((high_bits & 0x0F) << 4), out);
  return storeInOrder(_mm256_extracti128_si256(bytes, 1), (low_bits >> 4) | (high_bits & 0xF0), out);
}

uint8_t* encodePlain(const wchar_t* text, size_t units, uint8_t* out) {
  Utf8EncodeState state{text, text + units, out};
  while (state.text != state.text_end) {
    utf8_plain::encodeUnit(state);
  }
  return state.out;
}

// --- decoding: characters of one to three bytes ---

constexpr unsigned kWindow = 3 * kLane;  // bytes that four such characters take at most

// Lengths of four characters, as a number of base three.
constexpr unsigned kOrders = 3 * 3 * 3 * 3;
constexpr uint8_t kNoOrder = 0xFF;

// By bit i of the index: a character ends with byte i. kNoOrder: the window doesn't begin with four such characters.
constexpr std::array<uint8_t, 1 << kWindow> makeDecodeTable() {
  std::array<uint8_t, 1 << kWindow> table{};
  for (unsigned ends = 0; ends < table.size(); ++ends) {
    unsigned at = 0;
    unsigned number = 0;
    unsigned characters = 0;
    while (characters < kLane && at < kWindow) {
      unsigned length = 1;
      while (at + length <= kWindow && length <= 3 && ((ends >> (at + length - 1)) & 1) == 0) {
        ++length;
      }
      if (length > 3 || at + length > kWindow) {
        break;
      }
      number = 3 * number + length - 1;
      at += length;
      ++characters;
    }
    table[ends] = characters == kLane ? static_cast<uint8_t>(number) : kNoOrder;
  }
  return table;
}
constexpr auto kDecodeTable = makeDecodeTable();

// Each character's bytes into a unit of its own, the last byte lowest.
constexpr std::array<ByteOrder, kOrders> makeDecodeOrders() {
  std::array<ByteOrder, kOrders> orders{};
  for (unsigned number = 0; number < kOrders; ++number) {
    orders[number].fill(kZero);
    unsigned at = 0;
    unsigned divisor = kOrders / 3;
    for (unsigned character = 0; character < kLane; ++character, divisor /= 3) {
      const unsigned length = 1 + number / divisor % 3;
      for (unsigned i = 0; i < length; ++i) {
        orders[number][kLane * character + i] = static_cast<uint8_t>(at + length - 1 - i);
      }
      at += length;
    }
  }
  return orders;
}
alignas(16) constexpr auto kDecodeOrders = makeDecodeOrders();

MIRN_AVX2 void decodeFour(const uint8_t* text, uint8_t order, wchar_t* out) {
  const __m128i bytes = _mm_shuffle_epi8(load(text), load(kDecodeOrders[order].data()));
  const __m128i low = _mm_and_si128(bytes, _mm_set1_epi32(0x7F));
  const __m128i middle = _mm_srli_epi32(_mm_and_si128(bytes, _mm_set1_epi32(0x3F00)), 2);
  const __m128i high = _mm_srli_epi32(_mm_and_si128(bytes, _mm_set1_epi32(0x0F0000)), 4);
  store(out, _mm_or_si128(low, _mm_or_si128(middle, high)));
}

MIRN_AVX2 void widenSixteen(const uint8_t* text, wchar_t* out) {
  for (size_t i = 0; i < 16; i += 8) {
    const __m128i narrow = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(text + i));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), _mm256_cvtepu8_epi32(narrow));
  }
}

constexpr size_t kBlock = 64;

// One bit for each byte of a block.
struct BlockMasks {
  uint64_t not_ascii = 0;
  uint64_t continuation = 0;
  uint64_t from_two = 0;    // leads that claim two bytes or more
  uint64_t from_three = 0;  // three or more
  uint64_t from_four = 0;
  uint64_t from_five = 0;

  // Every lead has the continuation bytes that it claims, as far as the block reaches, and there are no others. The
  // block must begin with a lead.
  bool wellFormed() const {
    return ((from_two << 1) | (from_three << 2) | (from_four << 3)) == continuation && from_five == 0;
  }
};

// As signed bytes, those with the upper bit set run from -128 to -1.
MIRN_AVX2 uint64_t above(__m256i bytes, char limit) {
  return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpgt_epi8(bytes, _mm256_set1_epi8(limit))));
}

MIRN_AVX2 BlockMasks blockMasks(const uint8_t* text) {
  BlockMasks masks;
  for (unsigned i = 0; i < kBlock; i += 32) {
    const __m256i bytes = load256(text + i);
    const uint64_t negative = static_cast<uint32_t>(_mm256_movemask_epi8(bytes));
    const uint64_t leads = above(bytes, -65);  // 0xC0 and above, and ASCII
    masks.not_ascii |= negative << i;
    masks.continuation |= (negative & ~leads) << i;
    masks.from_two |= (negative & leads) << i;
    masks.from_three |= (negative & above(bytes, -33)) << i;
    masks.from_four |= (negative & above(bytes, -17)) << i;
    masks.from_five |= (negative & above(bytes, -9)) << i;
  }
  return masks;
}

// Decodes the characters that begin in the block's first part, so that all of each lies within it. The next position
// comes from clearing bits, not from the decoded lengths: so the decoding of one group doesn't wait for the one before.
MIRN_AVX2 void decodeBlock(const BlockMasks& masks, Utf8DecodeState& state) {
  constexpr size_t kLastStart = kBlock - 16;
  const uint8_t* const block = state.text;
  const uint64_t ends = ~masks.continuation >> 1;
  uint64_t starts = ~masks.continuation;
  wchar_t* out = state.out;
  size_t at = 0;
  while (at <= kLastStart) {
    const uint8_t order = kDecodeTable[(ends >> at) & ((1 << kWindow) - 1)];
    if (((masks.not_ascii >> at) & 0xFFFF) == 0) {
      widenSixteen(block + at, out);
      out += 16;
      starts = at == kLastStart ? 0 : starts & (~0ULL << (at + 16));
    } else if (order != kNoOrder) {
      decodeFour(block + at, order, out);
      out += kLane;
      for (size_t i = 0; i < kLane; ++i) {
        starts &= starts - 1;
      }
    } else {
      Utf8DecodeState one{block + at, state.text_end, out, state.out_end};
      utf8_plain::decodeCharacter(one);
      out = one.out;
      starts &= starts - 1;
    }
    at = static_cast<size_t>(std::countr_zero(starts));
  }
  state.text = block + at;
  state.out = out;
}

}  // namespace

bool available() {
  return __builtin_cpu_supports("avx2") != 0 && __builtin_cpu_supports("bmi") != 0 &&
         __builtin_cpu_supports("bmi2") != 0;
}

MIRN_AVX2 void encode(Utf8EncodeState& state) {
  constexpr size_t kTurn = 16;
  // The last four units of a turn store 16 bytes; the units behind them take at least as many.
  constexpr ptrdiff_t kUnitsNeeded = kTurn - kLane + 16;
  const wchar_t* text = state.text;
  uint8_t* out = state.out;
  for (; state.text_end - text >= kUnitsNeeded; text += kTurn) {
    const __m256i low = load256(text);
    const __m256i high = load256(text + kTurn / 2);
    const __m256i any = _mm256_or_si256(low, high);
    if (below(0x80, any)) {
      // Packing works within 128 bits: the quarters come out as 0, 2, 1, 3.
      const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(low, high), 0xD8);
      store(out, _mm_packus_epi16(_mm256_castsi256_si128(packed), _mm256_extracti128_si256(packed, 1)));
      out += kTurn;
    } else if (below(0x200000, any)) {
      out = encodeEight(high, encodeEight(low, out));
    } else {
      out = encodePlain(text, kTurn, out);
    }
  }
  state.text = text;
  state.out = out;
}

MIRN_AVX2 void decode(Utf8DecodeState& state) {
  while (state.text_end - state.text >= static_cast<ptrdiff_t>(kBlock) &&
         state.out_end - state.out >= static_cast<ptrdiff_t>(kBlock)) {
    const BlockMasks masks = blockMasks(state.text);
    if (!masks.wellFormed()) {
      return;
    }
    decodeBlock(masks, state);
  }
}

MIRN_AVX2 size_t size(const wchar_t* text, size_t units) {
  constexpr size_t kStep = 8;
  constexpr size_t kChunk = 1 << 16;  // keeps the partial sums in 32 bits
  size_t bytes = 0;
  size_t i = 0;
  while (units - i >= kStep) {
    const size_t start = i;
    const size_t end = start + std::min(kChunk, (units - start) / kStep * kStep);
    __m256i more = _mm256_setzero_si256();
    __m256i any = _mm256_setzero_si256();
    for (; i < end; i += kStep) {
      const __m256i some = load256(text + i);
      any = _mm256_or_si256(any, some);
      more = _mm256_sub_epi32(more, _mm256_cmpgt_epi32(some, _mm256_set1_epi32(0x7F)));
      more = _mm256_sub_epi32(more, _mm256_cmpgt_epi32(some, _mm256_set1_epi32(0x7FF)));
      more = _mm256_sub_epi32(more, _mm256_cmpgt_epi32(some, _mm256_set1_epi32(0xFFFF)));
    }
    if (!below(0x200000, any)) {
      bytes += utf8_plain::size(text + start, end - start);
      continue;
    }
    std::array<uint32_t, kStep> sums{};
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums.data()), more);
    bytes += std::accumulate(sums.begin(), sums.end(), end - start);
  }
  return bytes + utf8_plain::size(text + i, units - i);
}

MIRN_AVX2 size_t countLeads(const uint8_t* text, size_t bytes) {
  constexpr size_t kStep = 32;
  constexpr size_t kVectors = 255;  // keeps the partial sums in 8 bits
  size_t leads = 0;
  size_t i = 0;
  while (bytes - i >= kStep) {
    const size_t end = i + kStep * std::min(kVectors, (bytes - i) / kStep);
    __m256i counts = _mm256_setzero_si256();
    for (; i < end; i += kStep) {
      counts = _mm256_sub_epi8(counts, _mm256_cmpgt_epi8(load256(text + i), _mm256_set1_epi8(-65)));
    }
    std::array<uint64_t, 4> sums{};
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums.data()), _mm256_sad_epu8(counts, _mm256_setzero_si256()));
    leads += sums[0] + sums[1] + sums[2] + sums[3];
  }
  for (; i < bytes; ++i) {
    leads += (text[i] & 0xC0) != 0x80;
  }
  return leads;
}

}  // namespace mirn::utf8_shuffle

#else

namespace mirn::utf8_shuffle {

bool available() {
  return false;
}
void encode(Utf8EncodeState&) {}
void decode(Utf8DecodeState&) {}
size_t size(const wchar_t* text, size_t units) {
  return utf8_plain::size(text, units);
}
size_t countLeads(const uint8_t*, size_t) {
  return 0;
}

}  // namespace mirn::utf8_shuffle

#endif
