#pragma once

// The inner loops of the picture scaler, once for any processor and once for AVX2. Same arithmetic, same bytes.

#include <cstddef>
#include <cstdint>

#include "video/picture_scaler.h"

namespace mirn {

// Weights of the rows of one output row sum to this, so that a weighted sum of bytes fits 16 bits (8.8 fixed point).
inline constexpr uint32_t kRowUnit = 256;
// The same where many rows share it; the sum is cut to 8.8 afterwards. One less than 2^16: a weight has 16 bits.
inline constexpr uint32_t kFineRowUnit = 65535;
// Weights of the columns; 8.8 times this fits 32 bits.
inline constexpr uint32_t kColumnUnit = 32768;

struct WeightedRows {
  const uint8_t* first = nullptr;
  size_t bytesPerRow = 0;
  const uint16_t* weights = nullptr;
  size_t count = 0;
};

struct ScalerKernels {
  /// line[i] = sum of rows[r][i] * weights[r], for `bytes` bytes.
  void (*weighRows)(const WeightedRows& rows, size_t bytes, uint16_t* line);
  void (*weighRowsFine)(const WeightedRows& rows, size_t bytes, uint16_t* line);
  /// One output row: weighs 4-channel pixels of `line` and packs the first three channels, rounded to bytes.
  void (*weighColumns)(const uint16_t* line, const ScalerSpan* spans, const uint16_t* weights, size_t pixels,
                       uint8_t* packed);
  /// line[i] = sum of `count` rows.
  void (*addRows)(const uint8_t* first, size_t bytesPerRow, size_t count, size_t bytes, uint16_t* line);
  /// One output row: averages of `factor` pixels of a line that holds sums of `factor` rows.
  void (*averageColumns)(const uint16_t* line, size_t factor, size_t pixels, uint8_t* packed);
  /// The first three bytes of each 4-byte pixel.
  void (*packRow)(const uint8_t* from, size_t pixels, uint8_t* packed);
  /// One output row of exact 2 x 2 or 3 x 3 averages; null where there is no quicker way than the two calls above.
  void (*averageSquares2)(const uint8_t* first, size_t bytesPerRow, size_t pixels, uint8_t* packed);
  void (*averageSquares3)(const uint8_t* first, size_t bytesPerRow, size_t pixels, uint8_t* packed);
};

const ScalerKernels& scalerKernels(ScalerCode code);

}  // namespace mirn
