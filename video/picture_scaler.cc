#include "video/picture_scaler.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "video/scaler_kernels.h"

namespace mirn {
namespace {

// Squares up to this side are averaged with whole numbers: 16 x 16 bytes sum to less than 2^16.
constexpr size_t kLargestSquare = 16;

size_t squareFactor(const PictureView& source, const PackedView& destination) {
  const size_t factor = source.width / destination.width;
  const bool exact = factor * destination.width == source.width && factor * destination.height == source.height;
  return exact && factor >= 1 && factor <= kLargestSquare ? factor : 0;
}

}  // namespace

void PictureScaler::scaleAndPack(const PictureView& source, const PackedView& destination) {
  if (source.pixels == nullptr || destination.pixels == nullptr || source.width == 0 || source.height == 0 ||
      destination.width == 0 || destination.height == 0) {
    return;
  }
  if (const size_t factor = squareFactor(source, destination); factor != 0) {
    averageSquares(source, destination, factor, code_, line_);
  } else {
    scaleWeighted(source, destination);
  }
}

void PictureScaler::prepare(Axis& axis, size_t from, size_t to, uint32_t unit) {
  if (axis.from == from && axis.to == to && axis.unit == unit) {
    return;
  }
  axis = {};
  axis.from = from;
  axis.to = to;
  axis.unit = unit;
  for (size_t index = 0; index < to; ++index) {
    if (to <= from) {
      addShrinkingSpan(axis, index);
    } else {
      addEnlargingSpan(axis, index);
    }
  }
}

// Pixel `index` covers [index * from, (index + 1) * from) in units of which a source pixel has `to`. Weights are the
// rounded ends of the running sum, so that they sum to the unit exactly: a flat area keeps its value.
void PictureScaler::addShrinkingSpan(Axis& axis, size_t index) {
  const uint64_t begin = static_cast<uint64_t>(index) * axis.from;
  const uint64_t end = begin + axis.from;
  const uint64_t first = begin / axis.to;
  const uint64_t last = (end - 1) / axis.to;
  axis.spans.push_back({static_cast<uint32_t>(first), static_cast<uint32_t>(axis.weights.size()),
                        static_cast<uint32_t>(last - first + 1)});
  uint64_t before = 0;
  for (uint64_t pixel = first; pixel <= last; ++pixel) {
    const uint64_t covered = std::min(end, (pixel + 1) * axis.to) - begin;
    const uint64_t sum = (covered * axis.unit + axis.from / 2) / axis.from;
    axis.weights.push_back(static_cast<uint16_t>(sum - before));
    before = sum;
  }
}

// Bilinear between pixel centres; the border pixels extend outwards.
void PictureScaler::addEnlargingSpan(Axis& axis, size_t index) {
  const double centre =
      (static_cast<double>(index) + 0.5) * static_cast<double>(axis.from) / static_cast<double>(axis.to) - 0.5;
  const double position = std::clamp(centre, 0.0, static_cast<double>(axis.from - 1));
  const auto first = static_cast<uint32_t>(position);
  const auto right = static_cast<uint32_t>(std::lround((position - first) * axis.unit));
  const auto weight = static_cast<uint32_t>(axis.weights.size());
  axis.weights.push_back(static_cast<uint16_t>(axis.unit - right));
  if (right == 0 || first + 1 >= axis.from) {
    axis.weights.back() = static_cast<uint16_t>(axis.unit);
    axis.spans.push_back({first, weight, 1});
    return;
  }
  axis.weights.push_back(static_cast<uint16_t>(right));
  axis.spans.push_back({first, weight, 2});
}

void PictureScaler::scaleWeighted(const PictureView& source, const PackedView& destination) {
  // A row's weight has 8 bits while few rows share them, and 16 bits (and wider sums) beyond.
  const bool coarse = source.height > destination.height * kLargestSquare;
  prepare(rows_, source.height, destination.height, coarse ? kFineRowUnit : kRowUnit);
  prepare(columns_, source.width, destination.width, kColumnUnit);
  line_.resize(source.width * 4);
  const ScalerKernels& kernels = scalerKernels(code_);
  for (size_t y = 0; y < destination.height; ++y) {
    const Span& span = rows_.spans[y];
    const WeightedRows weighted = {source.pixels + span.first * source.bytesPerRow, source.bytesPerRow,
                                   rows_.weights.data() + span.weight, span.count};
    (coarse ? kernels.weighRowsFine : kernels.weighRows)(weighted, line_.size(), line_.data());
    uint8_t* packed = destination.pixels + y * destination.bytesPerRow;
    kernels.weighColumns(line_.data(), columns_.spans.data(), columns_.weights.data(), destination.width, packed);
  }
}

}  // namespace mirn
