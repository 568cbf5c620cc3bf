#include "platform/bt709_rows.h"

#include <algorithm>

#if defined(__x86_64__)
#include <immintrin.h>
#define MIRN_HAVE_AVX2 1
#endif

namespace mirn {
namespace {

// Sums have 6 fractional bits, so that they and their excess fit a signed 16-bit lane with saturation.
//
// Luma: 255/219 in 1/64, times 65536/257 because the byte is spread over 16 bits (y * 257) first.
constexpr uint16_t kLuma = 19003;
// 16 * 255/219 in 1/64, less one half for the rounding of the final shift.
constexpr int16_t kLumaBias = 1192 - 32;
// Chroma in 1/8192: 2 (1 - Kb), 2 (1 - Kr) and their parts in green, times 255/224; Kr = 0.2126, Kb = 0.0722.
constexpr int16_t kBlueFromCb = 17305;
constexpr int16_t kGreenFromCb = 1747;
constexpr int16_t kGreenFromCr = 4366;
constexpr int16_t kRedFromCr = 14686;

constexpr size_t kStep = 16;  // pixels a vector iteration makes

int saturated(int value) {
  return std::clamp(value, -32768, 32767);
}

// What the processor's rounding high multiplication does: (a * b + 2^14) >> 15.
int multiplied(int centredChroma, int coefficient) {
  return (centredChroma * 256 * coefficient + 0x4000) >> 15;
}

uint8_t level(int sum) {
  return static_cast<uint8_t>(std::clamp(saturated(sum) >> 6, 0, 255));
}

void pixel(uint8_t y, uint8_t cb, uint8_t cr, uint8_t* bgra) {
  const int u = cb - 128;
  const int v = cr - 128;
  const int luma = static_cast<int>((static_cast<uint32_t>(y) * 257 * kLuma) >> 16) - kLumaBias;
  bgra[0] = level(luma + multiplied(u, kBlueFromCb));
  bgra[1] = level(luma - saturated(multiplied(u, kGreenFromCb) + multiplied(v, kGreenFromCr)));
  bgra[2] = level(luma + multiplied(v, kRedFromCr));
  bgra[3] = 255;
}

void yuyvPixels(const uint8_t* yuyv, uint8_t* bgra, size_t begin, size_t width) {
  for (size_t x = begin; x < width; ++x) {
    const uint8_t* pair = yuyv + x / 2 * 4;
    pixel(pair[x % 2 * 2], pair[1], pair[3], bgra + x * 4);
  }
}

void nv12Pixels(const uint8_t* luma, const uint8_t* chroma, uint8_t* bgra, size_t begin, size_t width) {
  for (size_t x = begin; x < width; ++x) {
    const uint8_t* pair = chroma + x / 2 * 2;
    pixel(luma[x], pair[0], pair[1], bgra + x * 4);
  }
}

void yuyvPortable(const uint8_t* yuyv, uint8_t* bgra, size_t width) {
  yuyvPixels(yuyv, bgra, 0, width);
}

void nv12Portable(const uint8_t* luma, const uint8_t* chroma, uint8_t* bgra, size_t width) {
  nv12Pixels(luma, chroma, bgra, 0, width);
}

constexpr Bt709Rows kPortable = {yuyvPortable, nv12Portable};

#if defined(MIRN_HAVE_AVX2)
#define MIRN_AVX2 __attribute__((target("avx2")))
#define MIRN_AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline

// Four pixels in each half of each register.
struct Bgra16 {
  __m256i first;   // pixels 0-3 of the low half's eight, and of the high half's
  __m256i second;  // pixels 4-7
};

// 16 pixels: luma as y * 257, and what the chroma adds, in 16-bit lanes.
MIRN_AVX2_INLINE Bgra16 addLuma(__m256i luma, __m256i bluePart, __m256i greenPart, __m256i redPart) {
  const __m256i y = _mm256_sub_epi16(_mm256_mulhi_epu16(luma, _mm256_set1_epi16(static_cast<int16_t>(kLuma))),
                                     _mm256_set1_epi16(kLumaBias));
  const __m256i blue = _mm256_srai_epi16(_mm256_adds_epi16(y, bluePart), 6);
  const __m256i green = _mm256_srai_epi16(_mm256_subs_epi16(y, greenPart), 6);
  const __m256i red = _mm256_srai_epi16(_mm256_adds_epi16(y, redPart), 6);
  const __m256i blueRed = _mm256_packus_epi16(blue, red);
  const __m256i greenAlpha = _mm256_packus_epi16(green, _mm256_set1_epi16(255));
  const __m256i blueGreen = _mm256_unpacklo_epi8(blueRed, greenAlpha);
  const __m256i redAlpha = _mm256_unpackhi_epi8(blueRed, greenAlpha);
  return {_mm256_unpacklo_epi16(blueGreen, redAlpha), _mm256_unpackhi_epi16(blueGreen, redAlpha)};
}

// 16 pixels in order; chroma as (c - 128) * 256 for each pixel.
MIRN_AVX2_INLINE void storePixels(__m256i luma, __m256i u, __m256i v, uint8_t* bgra) {
  const __m256i greenPart = _mm256_adds_epi16(_mm256_mulhrs_epi16(u, _mm256_set1_epi16(kGreenFromCb)),
                                              _mm256_mulhrs_epi16(v, _mm256_set1_epi16(kGreenFromCr)));
  const Bgra16 pixels = addLuma(luma, _mm256_mulhrs_epi16(u, _mm256_set1_epi16(kBlueFromCb)), greenPart,
                                _mm256_mulhrs_epi16(v, _mm256_set1_epi16(kRedFromCr)));
  auto* out = reinterpret_cast<__m256i*>(bgra);
  _mm256_storeu_si256(out, _mm256_permute2x128_si256(pixels.first, pixels.second, 0x20));
  _mm256_storeu_si256(out + 1, _mm256_permute2x128_si256(pixels.first, pixels.second, 0x31));
}

MIRN_AVX2_INLINE __m256i centred(__m256i highBytes) {
  return _mm256_xor_si256(highBytes, _mm256_set1_epi16(static_cast<int16_t>(0x8000)));
}

MIRN_AVX2 void yuyvAvx2(const uint8_t* yuyv, uint8_t* bgra, size_t width) {
  const __m256i spreadY = _mm256_setr_epi8(0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14,  //
                                           0, 0, 2, 2, 4, 4, 6, 6, 8, 8, 10, 10, 12, 12, 14, 14);
  const __m256i spreadU = _mm256_setr_epi8(-1, 1, -1, 1, -1, 5, -1, 5, -1, 9, -1, 9, -1, 13, -1, 13,  //
                                           -1, 1, -1, 1, -1, 5, -1, 5, -1, 9, -1, 9, -1, 13, -1, 13);
  const __m256i spreadV = _mm256_setr_epi8(-1, 3, -1, 3, -1, 7, -1, 7, -1, 11, -1, 11, -1, 15, -1, 15,  //
                                           -1, 3, -1, 3, -1, 7, -1, 7, -1, 11, -1, 11, -1, 15, -1, 15);
  size_t x = 0;
  for (; x + kStep <= width; x += kStep) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(yuyv + x * 2));
    storePixels(_mm256_shuffle_epi8(bytes, spreadY), centred(_mm256_shuffle_epi8(bytes, spreadU)),
                centred(_mm256_shuffle_epi8(bytes, spreadV)), bgra + x * 4);
  }
  yuyvPixels(yuyv, bgra, x, width);
}

// 32 pixels: the chroma parts are computed once for each pair and spread afterwards. Unpacking works within the halves
// of a register, so that the low results are pixels 0-7 and 16-23, the high ones 8-15 and 24-31.
MIRN_AVX2 void nv12Avx2(const uint8_t* luma, const uint8_t* chroma, uint8_t* bgra, size_t width) {
  constexpr size_t kWide = 2 * kStep;
  size_t x = 0;
  for (; x + kWide <= width; x += kWide) {
    const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(luma + x));
    const __m256i pairs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(chroma + x));
    const __m256i u = centred(_mm256_slli_epi16(pairs, 8));
    const __m256i v = centred(_mm256_and_si256(pairs, _mm256_set1_epi16(static_cast<int16_t>(0xff00))));
    const __m256i blue = _mm256_mulhrs_epi16(u, _mm256_set1_epi16(kBlueFromCb));
    const __m256i green = _mm256_adds_epi16(_mm256_mulhrs_epi16(u, _mm256_set1_epi16(kGreenFromCb)),
                                            _mm256_mulhrs_epi16(v, _mm256_set1_epi16(kGreenFromCr)));
    const __m256i red = _mm256_mulhrs_epi16(v, _mm256_set1_epi16(kRedFromCr));
    const Bgra16 low = addLuma(_mm256_unpacklo_epi8(y, y), _mm256_unpacklo_epi16(blue, blue),
                               _mm256_unpacklo_epi16(green, green), _mm256_unpacklo_epi16(red, red));
    const Bgra16 high = addLuma(_mm256_unpackhi_epi8(y, y), _mm256_unpackhi_epi16(blue, blue),
                                _mm256_unpackhi_epi16(green, green), _mm256_unpackhi_epi16(red, red));
    auto* out = reinterpret_cast<__m256i*>(bgra + x * 4);
    _mm256_storeu_si256(out, _mm256_permute2x128_si256(low.first, low.second, 0x20));
    _mm256_storeu_si256(out + 1, _mm256_permute2x128_si256(high.first, high.second, 0x20));
    _mm256_storeu_si256(out + 2, _mm256_permute2x128_si256(low.first, low.second, 0x31));
    _mm256_storeu_si256(out + 3, _mm256_permute2x128_si256(high.first, high.second, 0x31));
  }
  nv12Pixels(luma, chroma, bgra, x, width);
}

constexpr Bt709Rows kAvx2 = {yuyvAvx2, nv12Avx2};
#endif

}  // namespace

const Bt709Rows& bt709Rows(RowCode code) {
#if defined(MIRN_HAVE_AVX2)
  static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
  if (code == RowCode::kBest && avx2) {
    return kAvx2;
  }
#endif
  (void)code;
  return kPortable;
}

}  // namespace mirn
