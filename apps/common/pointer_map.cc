#include "apps/common/pointer_map.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace mirn {
namespace {

int pixelUnder(double offset, int shown, int size) {
  if (shown < 1 || size < 1 || !std::isfinite(offset)) {
    return 0;
  }
  double pixel = std::floor(offset * size / shown);
  return static_cast<int>(std::clamp(pixel, 0.0, static_cast<double>(size - 1)));
}

}  // namespace

Placement placePicture(int view_width, int view_height, int picture_width, int picture_height, Scaling scaling) {
  if (view_width < 1 || view_height < 1 || picture_width < 1 || picture_height < 1) {
    return {};
  }
  Placement placement;
  int whole = std::min(view_width / picture_width, view_height / picture_height);
  if (scaling == Scaling::kSharp && whole >= 1) {
    placement.width = picture_width * whole;
    placement.height = picture_height * whole;
  } else if (static_cast<int64_t>(view_width) * picture_height <= static_cast<int64_t>(view_height) * picture_width) {
    placement.width = view_width;
    placement.height = std::max<int>(
        1, static_cast<int>(std::llround(static_cast<double>(view_width) * picture_height / picture_width)));
  } else {
    placement.height = view_height;
    placement.width = std::max<int>(
        1, static_cast<int>(std::llround(static_cast<double>(view_height) * picture_width / picture_height)));
  }
  placement.left = (view_width - placement.width) / 2;
  placement.top = (view_height - placement.height) / 2;
  return placement;
}

PicturePoint pictureUnder(const Placement& placement, int picture_width, int picture_height, double x, double y) {
  // A window system names a pixel by its upper left corner; what the person points at is its middle. On the way through
  // the widgets' transforms a whole number may lose a little.
  constexpr double kMiddle = 0.5;
  constexpr double kLost = 1.0 / 64;
  return {pixelUnder(std::floor(x + kLost) + kMiddle - placement.left, placement.width, picture_width),
          pixelUnder(std::floor(y + kLost) + kMiddle - placement.top, placement.height, picture_height)};
}

int positionOfPixel(int pixel, int size) {
  if (size < 2 || pixel <= 0) {
    return 0;
  }
  if (pixel >= size - 1) {
    return kFullScale;
  }
  // A target may divide by the size (and cut) or by the size less one (and round). The middle of what both take for
  // this pixel slides from a quarter into it at the left end to three quarters at the right end.
  double inside = 0.25 + 0.5 * pixel / (size - 1);
  return static_cast<int>(std::lround((pixel + inside) * kFullScale / size));
}

}  // namespace mirn
