// Sixteen (or eight) bytes at a time: is there a head or an escape byte among them? For encoder and decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace mirn {

inline constexpr size_t kBlockBytes = 16;

// Is `wanted` among the eight bytes of `word`?
constexpr bool hasByte(uint64_t word, uint8_t wanted) {
  constexpr uint64_t kLow = 0x0101010101010101;
  constexpr uint64_t kHigh = 0x8080808080808080;
  const uint64_t zero_where_wanted = word ^ (kLow * wanted);
  return ((zero_where_wanted - kLow) & ~zero_where_wanted & kHigh) != 0;
}

#if defined(__SSE2__)

using ByteBlock = __m128i;

inline ByteBlock loadBlock(const uint8_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}
inline void storeBlock(uint8_t* to, ByteBlock block) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to), block);
}

// Bit i is set when byte i is one of the two.
inline uint32_t findEither(ByteBlock block, uint8_t a, uint8_t b) {
  const __m128i is_a = _mm_cmpeq_epi8(block, _mm_set1_epi8(static_cast<char>(a)));
  const __m128i is_b = _mm_cmpeq_epi8(block, _mm_set1_epi8(static_cast<char>(b)));
  return static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(is_a, is_b)));
}

// All sixteen bytes escaped, each to two: for a block of which findEither() found every byte.
inline void storeAllEscaped(uint8_t* to, ByteBlock block, uint8_t escape, uint8_t head, uint8_t escaped_escape) {
  const __m128i lead = _mm_set1_epi8(static_cast<char>(escape));
  // A comparison that holds is -1: subtracting it makes the escaped head one more than the escaped escape.
  const __m128i is_head = _mm_cmpeq_epi8(block, _mm_set1_epi8(static_cast<char>(head)));
  const __m128i codes = _mm_sub_epi8(_mm_set1_epi8(static_cast<char>(escaped_escape)), is_head);
  storeBlock(to, _mm_unpacklo_epi8(lead, codes));
  storeBlock(to + kBlockBytes, _mm_unpackhi_epi8(lead, codes));
}

// The sum of `size` bytes, modulo 2^32.
inline uint32_t sumBytes(const uint8_t* bytes, size_t size) {
  __m128i sums = _mm_setzero_si128();
  size_t done = 0;
  for (; size - done >= kBlockBytes; done += kBlockBytes) {
    sums = _mm_add_epi64(sums, _mm_sad_epu8(loadBlock(bytes + done), _mm_setzero_si128()));
  }
  if (size - done >= sizeof(uint64_t)) {
    const __m128i half = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes + done));
    sums = _mm_add_epi64(sums, _mm_sad_epu8(half, _mm_setzero_si128()));
    done += sizeof(uint64_t);
  }
  auto sum = static_cast<uint32_t>(_mm_cvtsi128_si32(sums)) +
             static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
  for (; done < size; ++done) {
    sum += bytes[done];
  }
  return sum;
}

#else

struct ByteBlock {
  uint8_t bytes[kBlockBytes];
};

inline ByteBlock loadBlock(const uint8_t* from) {
  ByteBlock block;
  std::memcpy(block.bytes, from, kBlockBytes);
  return block;
}
inline void storeBlock(uint8_t* to, const ByteBlock& block) {
  std::memcpy(to, block.bytes, kBlockBytes);
}

inline uint32_t findEither(const ByteBlock& block, uint8_t a, uint8_t b) {
  uint32_t found = 0;
  for (size_t i = 0; i < kBlockBytes; ++i) {
    found |= static_cast<uint32_t>(block.bytes[i] == a || block.bytes[i] == b) << i;
  }
  return found;
}

inline void storeAllEscaped(uint8_t* to, const ByteBlock& block, uint8_t escape, uint8_t head, uint8_t escaped_escape) {
  for (size_t i = 0; i < kBlockBytes; ++i) {
    to[2 * i] = escape;
    to[2 * i + 1] = static_cast<uint8_t>(escaped_escape + (block.bytes[i] == head ? 1 : 0));
  }
}

inline uint32_t sumBytes(const uint8_t* bytes, size_t size) {
  uint32_t sum = 0;
  for (size_t i = 0; i < size; ++i) {
    sum += bytes[i];
  }
  return sum;
}

#endif

}  // namespace mirn
