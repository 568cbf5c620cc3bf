#include "video/letterbox.h"

#include <cmath>

namespace mirn {

std::optional<Letterbox> letterbox(size_t sourceWidth, size_t sourceHeight) {
  const double aspect = static_cast<double>(sourceWidth) / static_cast<double>(sourceHeight);
  const double fitted = aspect * kCanvasHeight;
  const double width = std::trunc(fitted > kCanvasWidth ? kCanvasWidth : fitted);  // passes a NaN on
  const double height = std::trunc(width / aspect);
  if (!std::isfinite(width) || !std::isfinite(height) || height < 0 || height > kCanvasHeight) {
    return std::nullopt;
  }
  Letterbox box;
  box.width = static_cast<int>(width);
  box.height = static_cast<int>(height);
  box.left = (kCanvasWidth - box.width) / 2;
  box.top = (kCanvasHeight - box.height) / 2;
  return box;
}

}  // namespace mirn
