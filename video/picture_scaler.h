#pragma once

// Scaling fused with packing: a 'BGRA' picture into rows of 3-byte pixels, without a picture in between. Shrinking
// takes the exact average of the area each pixel covers; enlarging is bilinear. Channels keep their order, the fourth
// byte is dropped.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mirn {

/// A picture of 4-byte pixels, read only.
struct PictureView {
  const uint8_t* pixels = nullptr;
  size_t width = 0;  ///< pixels, 1..kPixelBufferMaxSide
  size_t height = 0;
  size_t bytesPerRow = 0;
};

/// Rows of 3-byte pixels to be written.
struct PackedView {
  uint8_t* pixels = nullptr;
  size_t width = 0;  ///< pixels
  size_t height = 0;
  size_t bytesPerRow = 0;
};

/// Which code runs. kBest looks at the processor; kPortable is the same arithmetic in plain C++ (tests compare the
/// two).
enum class ScalerCode { kBest, kPortable };

/// What one output pixel takes from one axis: `count` neighbours from `first` on.
struct ScalerSpan {
  uint32_t first = 0;
  uint32_t weight = 0;  ///< index of the first weight
  uint32_t count = 0;
};

/// Keeps tables for the last pair of sizes: no allocation while they stay the same. Bound to one thread at a time.
class PictureScaler {
 public:
  explicit PictureScaler(ScalerCode code = ScalerCode::kBest) : code_(code) {}

  /// Writes exactly destination.width x height x 3 bytes. Empty pictures on either side: nothing.
  void scaleAndPack(const PictureView& source, const PackedView& destination);

 private:
  using Span = ScalerSpan;
  struct Axis {
    size_t from = 0;
    size_t to = 0;
    uint32_t unit = 0;  // what the weights of one span sum to
    std::vector<Span> spans;
    std::vector<uint16_t> weights;
  };

  static void prepare(Axis& axis, size_t from, size_t to, uint32_t unit);
  static void addShrinkingSpan(Axis& axis, size_t index);
  static void addEnlargingSpan(Axis& axis, size_t index);
  void scaleWeighted(const PictureView& source, const PackedView& destination);

  const ScalerCode code_;
  Axis columns_;
  Axis rows_;
  std::vector<uint16_t> line_;  // one output row before its columns are weighed: source width x 4 channels
};

/// Exact averages over squares of `factor` x `factor` pixels; the source is at least that much larger.
/// In picture_scaler_integer.cc.
void averageSquares(const PictureView& source, const PackedView& destination, size_t factor, ScalerCode code,
                    std::vector<uint16_t>& line);

}  // namespace mirn
