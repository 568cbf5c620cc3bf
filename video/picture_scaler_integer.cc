#include "video/picture_scaler.h"
#include "video/scaler_kernels.h"

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;

}  // namespace

void averageSquares(const PictureView& source, const PackedView& destination, size_t factor, ScalerCode code,
                    std::vector<uint16_t>& line) {
  const ScalerKernels& kernels = scalerKernels(code);
  const auto whole = factor == 3 ? kernels.averageSquares3 : factor == 2 ? kernels.averageSquares2 : nullptr;
  const size_t bytes = source.width * kBytesPerPixel;
  if (factor != 1 && whole == nullptr) {
    line.resize(bytes);
  }
  for (size_t y = 0; y < destination.height; ++y) {
    const uint8_t* first = source.pixels + y * factor * source.bytesPerRow;
    uint8_t* packed = destination.pixels + y * destination.bytesPerRow;
    if (factor == 1) {
      kernels.packRow(first, destination.width, packed);
    } else if (whole != nullptr) {
      whole(first, source.bytesPerRow, destination.width, packed);
    } else {
      kernels.addRows(first, source.bytesPerRow, factor, bytes, line.data());
      kernels.averageColumns(line.data(), factor, destination.width, packed);
    }
  }
}

}  // namespace mirn
