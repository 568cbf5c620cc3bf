#include "video/scaler_kernels.h"

#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define MIRN_HAVE_AVX2 1
#endif

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;

// The loops are written once with the compiler's vectors, forced inline into a portable and an AVX2 function each.
#define MIRN_INLINE __attribute__((always_inline)) inline

using Bytes16 = uint8_t __attribute__((vector_size(16)));
using Words16 = uint16_t __attribute__((vector_size(32)));
using Words4 = uint16_t __attribute__((vector_size(8)));
using Longs4 = uint32_t __attribute__((vector_size(16)));

MIRN_INLINE void weighRowsLoop(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  size_t i = 0;
  for (; i + 16 <= bytes; i += 16) {
    const uint8_t* row = rows.first + i;
    Words16 sum = {};
    for (size_t r = 0; r < rows.count; ++r, row += rows.bytesPerRow) {
      Bytes16 piece;
      std::memcpy(&piece, row, sizeof piece);
      sum += __builtin_convertvector(piece, Words16) * rows.weights[r];
    }
    std::memcpy(line + i, &sum, sizeof sum);
  }
  for (; i < bytes; ++i) {
    uint32_t sum = 0;
    for (size_t r = 0; r < rows.count; ++r) {
      sum += static_cast<uint32_t>(rows.first[r * rows.bytesPerRow + i]) * rows.weights[r];
    }
    line[i] = static_cast<uint16_t>(sum);
  }
}

MIRN_INLINE void weighRowsFineLoop(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  for (size_t i = 0; i < bytes; ++i) {
    uint32_t sum = 128;
    for (size_t r = 0; r < rows.count; ++r) {
      sum += static_cast<uint32_t>(rows.first[r * rows.bytesPerRow + i]) * rows.weights[r];
    }
    line[i] = static_cast<uint16_t>(sum >> 8);
  }
}

// All pixels but the last are stored with four bytes, the fourth of which the next one overwrites.
MIRN_INLINE void storePixel(const Longs4& channels, bool last, uint8_t* packed) {
  const uint32_t pixel = channels[0] | channels[1] << 8 | channels[2] << 16;
  std::memcpy(packed, &pixel, last ? 3 : 4);
}

MIRN_INLINE Longs4 pixelOf(const uint16_t* line) {
  Words4 words;
  std::memcpy(&words, line, sizeof words);
  return __builtin_convertvector(words, Longs4);
}

MIRN_INLINE void weighColumnsLoop(const uint16_t* line, const ScalerSpan* spans, const uint16_t* weights, size_t pixels,
                                  uint8_t* packed) {
  for (size_t x = 0; x < pixels; ++x) {
    const ScalerSpan& span = spans[x];
    const uint16_t* from = line + span.first * kBytesPerPixel;
    Longs4 sum = {1U << 22, 1U << 22, 1U << 22, 1U << 22};
    for (uint32_t i = 0; i < span.count; ++i) {
      sum += pixelOf(from + i * kBytesPerPixel) * static_cast<uint32_t>(weights[span.weight + i]);
    }
    storePixel(sum >> 23, x + 1 == pixels, packed + x * 3);
  }
}

MIRN_INLINE void addRowsLoop(const uint8_t* first, size_t bytesPerRow, size_t count, size_t bytes, uint16_t* line) {
  size_t i = 0;
  for (; i + 16 <= bytes; i += 16) {
    const uint8_t* row = first + i;
    Words16 sum = {};
    for (size_t r = 0; r < count; ++r, row += bytesPerRow) {
      Bytes16 piece;
      std::memcpy(&piece, row, sizeof piece);
      sum += __builtin_convertvector(piece, Words16);
    }
    std::memcpy(line + i, &sum, sizeof sum);
  }
  for (; i < bytes; ++i) {
    uint32_t sum = 0;
    for (size_t r = 0; r < count; ++r) {
      sum += first[r * bytesPerRow + i];
    }
    line[i] = static_cast<uint16_t>(sum);
  }
}

// Rounded to nearest, exactly: for sums below 2^16 and up to 256 of them, n * ceil(2^24 / c) >> 24 is n / c.
MIRN_INLINE void averageColumnsLoop(const uint16_t* line, size_t factor, size_t pixels, uint8_t* packed) {
  const auto area = static_cast<uint32_t>(factor * factor);
  const uint32_t reciprocal = ((1U << 24) + area - 1) / area;
  const uint32_t half = area / 2;
  for (size_t x = 0; x < pixels; ++x) {
    Longs4 sum = {half, half, half, half};
    for (size_t i = 0; i < factor; ++i) {
      sum += pixelOf(line + (x * factor + i) * kBytesPerPixel);
    }
    storePixel((sum * reciprocal) >> 24, x + 1 == pixels, packed + x * 3);
  }
}

void packRowPortable(const uint8_t* from, size_t pixels, uint8_t* packed) {
  for (; pixels > 0; --pixels, from += kBytesPerPixel, packed += 3) {
    packed[0] = from[0];
    packed[1] = from[1];
    packed[2] = from[2];
  }
}

void weighRowsPortable(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  weighRowsLoop(rows, bytes, line);
}
void weighRowsFinePortable(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  weighRowsFineLoop(rows, bytes, line);
}
void weighColumnsPortable(const uint16_t* line, const ScalerSpan* spans, const uint16_t* weights, size_t pixels,
                          uint8_t* packed) {
  weighColumnsLoop(line, spans, weights, pixels, packed);
}
void addRowsPortable(const uint8_t* first, size_t bytesPerRow, size_t count, size_t bytes, uint16_t* line) {
  addRowsLoop(first, bytesPerRow, count, bytes, line);
}
void averageColumnsPortable(const uint16_t* line, size_t factor, size_t pixels, uint8_t* packed) {
  averageColumnsLoop(line, factor, pixels, packed);
}

constexpr ScalerKernels kPortable = {weighRowsPortable,
                                     weighRowsFinePortable,
                                     weighColumnsPortable,
                                     addRowsPortable,
                                     averageColumnsPortable,
                                     packRowPortable,
                                     nullptr,
                                     nullptr};

#if defined(MIRN_HAVE_AVX2)
#define MIRN_AVX2 __attribute__((target("avx2")))

MIRN_AVX2 void weighRowsAvx2(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  weighRowsLoop(rows, bytes, line);
}
MIRN_AVX2 void weighRowsFineAvx2(const WeightedRows& rows, size_t bytes, uint16_t* line) {
  weighRowsFineLoop(rows, bytes, line);
}
MIRN_AVX2 void weighColumnsAvx2(const uint16_t* line, const ScalerSpan* spans, const uint16_t* weights, size_t pixels,
                                uint8_t* packed) {
  weighColumnsLoop(line, spans, weights, pixels, packed);
}
MIRN_AVX2 void addRowsAvx2(const uint8_t* first, size_t bytesPerRow, size_t count, size_t bytes, uint16_t* line) {
  addRowsLoop(first, bytesPerRow, count, bytes, line);
}
MIRN_AVX2 void averageColumnsAvx2(const uint16_t* line, size_t factor, size_t pixels, uint8_t* packed) {
  averageColumnsLoop(line, factor, pixels, packed);
}

// 16 bytes from `low` and 16 from `high`, one in each half of the register.
MIRN_AVX2 MIRN_INLINE __m256i loadHalves(const uint8_t* low, const uint8_t* high) {
  const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(low));
  const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(high));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
}

// Two pixels of 16-bit channels per half: the sums of three rows (or two).
struct SumPair {
  __m256i low;   // pixels 0 and 1 of the four loaded in each half
  __m256i high;  // pixels 2 and 3
};

MIRN_AVX2 MIRN_INLINE SumPair addTwoRows(__m256i top, __m256i bottom) {
  const __m256i ones = _mm256_set1_epi8(1);
  return {_mm256_maddubs_epi16(_mm256_unpacklo_epi8(top, bottom), ones),
          _mm256_maddubs_epi16(_mm256_unpackhi_epi8(top, bottom), ones)};
}

MIRN_AVX2 MIRN_INLINE SumPair addThreeRows(const uint8_t* low, const uint8_t* high, size_t bytesPerRow) {
  SumPair sum = addTwoRows(loadHalves(low, high), loadHalves(low + bytesPerRow, high + bytesPerRow));
  const __m256i third = loadHalves(low + 2 * bytesPerRow, high + 2 * bytesPerRow);
  const __m256i zero = _mm256_setzero_si256();
  sum.low = _mm256_add_epi16(sum.low, _mm256_unpacklo_epi8(third, zero));
  sum.high = _mm256_add_epi16(sum.high, _mm256_unpackhi_epi8(third, zero));
  return sum;
}

// Eight pixels (four per half) to 24 bytes.
MIRN_AVX2 MIRN_INLINE void storeEight(__m256i pixels, uint8_t* packed) {
  const __m256i order = _mm256_setr_epi8(0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1,  //
                                         0, 1, 2, 4, 5, 6, 8, 9, 10, 12, 13, 14, -1, -1, -1, -1);
  const __m256i bytes =
      _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(pixels, order), _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(packed), _mm256_castsi256_si128(bytes));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(packed + 16), _mm256_extracti128_si256(bytes, 1));
}

MIRN_AVX2 void packRowAvx2(const uint8_t* from, size_t pixels, uint8_t* packed) {
  for (; pixels >= 8; pixels -= 8, from += 32, packed += 24) {
    storeEight(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)), packed);
  }
  packRowPortable(from, pixels, packed);
}

// The pixels of a row that don't fill a register.
MIRN_INLINE void averageRest(const uint8_t* first, size_t bytesPerRow, size_t factor, size_t begin, size_t pixels,
                             uint8_t* packed) {
  const auto area = static_cast<uint32_t>(factor * factor);
  for (size_t x = begin; x < pixels; ++x) {
    for (size_t channel = 0; channel < 3; ++channel) {
      uint32_t sum = area / 2;
      for (size_t r = 0; r < factor; ++r) {
        for (size_t c = 0; c < factor; ++c) {
          sum += first[r * bytesPerRow + (x * factor + c) * kBytesPerPixel + channel];
        }
      }
      packed[x * 3 + channel] = static_cast<uint8_t>(sum / area);
    }
  }
}

// From six registers of two pixels each (p0 p1 | p2 p3 | p4 p5 ...) to two averages p0+p1+p2 and p3+p4+p5.
MIRN_AVX2 MIRN_INLINE __m256i averageTriples(__m256i p01, __m256i p23, __m256i p45) {
  const __m256i p03 = _mm256_blend_epi16(p01, p23, 0xf0);
  const __m256i p14 = _mm256_alignr_epi8(p45, p01, 8);
  const __m256i p25 = _mm256_blend_epi16(p23, p45, 0xf0);
  const __m256i sum = _mm256_add_epi16(_mm256_add_epi16(p03, p14), p25);
  // (n + 4) * 7282 >> 16 is n / 9 rounded to nearest, for all n up to 9 * 255.
  return _mm256_mulhi_epu16(_mm256_add_epi16(sum, _mm256_set1_epi16(4)), _mm256_set1_epi16(7282));
}

MIRN_AVX2 void averageSquares3Avx2(const uint8_t* first, size_t bytesPerRow, size_t pixels, uint8_t* packed) {
  constexpr size_t kHalf = 12 * kBytesPerPixel;  // source bytes for four averages
  size_t x = 0;
  for (; x + 8 <= pixels; x += 8, packed += 24) {
    const uint8_t* low = first + x * 3 * kBytesPerPixel;
    const uint8_t* high = low + kHalf;
    const SumPair a = addThreeRows(low, high, bytesPerRow);
    const SumPair b = addThreeRows(low + 16, high + 16, bytesPerRow);
    const SumPair c = addThreeRows(low + 32, high + 32, bytesPerRow);
    storeEight(_mm256_packus_epi16(averageTriples(a.low, a.high, b.low), averageTriples(b.high, c.low, c.high)),
               packed);
  }
  averageRest(first + x * 3 * kBytesPerPixel, bytesPerRow, 3, 0, pixels - x, packed);
}

MIRN_AVX2 MIRN_INLINE __m256i averagePairs(const SumPair& sums) {
  const __m256i sum =
      _mm256_add_epi16(_mm256_unpacklo_epi64(sums.low, sums.high), _mm256_unpackhi_epi64(sums.low, sums.high));
  return _mm256_srli_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(2)), 2);
}

MIRN_AVX2 void averageSquares2Avx2(const uint8_t* first, size_t bytesPerRow, size_t pixels, uint8_t* packed) {
  constexpr size_t kHalf = 8 * kBytesPerPixel;
  size_t x = 0;
  for (; x + 8 <= pixels; x += 8, packed += 24) {
    const uint8_t* low = first + x * 2 * kBytesPerPixel;
    const uint8_t* high = low + kHalf;
    const SumPair a = addTwoRows(loadHalves(low, high), loadHalves(low + bytesPerRow, high + bytesPerRow));
    const SumPair b =
        addTwoRows(loadHalves(low + 16, high + 16), loadHalves(low + 16 + bytesPerRow, high + 16 + bytesPerRow));
    storeEight(_mm256_packus_epi16(averagePairs(a), averagePairs(b)), packed);
  }
  averageRest(first + x * 2 * kBytesPerPixel, bytesPerRow, 2, 0, pixels - x, packed);
}

constexpr ScalerKernels kAvx2 = {weighRowsAvx2,      weighRowsFineAvx2, weighColumnsAvx2,    addRowsAvx2,
                                 averageColumnsAvx2, packRowAvx2,       averageSquares2Avx2, averageSquares3Avx2};
#endif

}  // namespace

const ScalerKernels& scalerKernels(ScalerCode code) {
#if defined(MIRN_HAVE_AVX2)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (code == ScalerCode::kBest && avx2) {
    return kAvx2;
  }
#endif
  (void)code;
  return kPortable;
}

}  // namespace mirn
