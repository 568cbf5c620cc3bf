#pragma once

// Rows of BT.709 in video range to 'BGRA', within one level of the exact matrix.

#include <cstddef>
#include <cstdint>

namespace mirn {

/// kBest looks at the processor; kPortable is the same arithmetic in plain C++.
enum class RowCode { kBest, kPortable };

struct Bt709Rows {
  /// `yuyv`: 4 bytes for each two pixels. `bgra`: 4 x width bytes are written.
  void (*yuyv)(const uint8_t* yuyv, uint8_t* bgra, size_t width);
  /// `chroma`: 2 bytes for each two pixels, Cb first.
  void (*nv12)(const uint8_t* luma, const uint8_t* chroma, uint8_t* bgra, size_t width);
};

const Bt709Rows& bt709Rows(RowCode code);

}  // namespace mirn
