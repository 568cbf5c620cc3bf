#pragma once

// Where a picture of any size lands on the grabber's canvas.

#include <cstddef>
#include <cstdint>
#include <optional>

namespace mirn {

inline constexpr int kCanvasWidth = 640;  // pixels
inline constexpr int kCanvasHeight = 480;
inline constexpr size_t kCanvasBytesPerPixel = 3;
inline constexpr size_t kCanvasBytesPerRow = kCanvasWidth * kCanvasBytesPerPixel;
inline constexpr size_t kCanvasBytes = kCanvasBytesPerRow * kCanvasHeight;

struct Letterbox {
  int width = 0;   ///< of the scaled picture, 0..640
  int height = 0;  ///< 0..480
  int left = 0;    ///< blank columns before it
  int top = 0;     ///< blank rows above it

  bool operator==(const Letterbox&) const = default;
};

/// The largest picture of the source's shape that fits, each step truncated. Nothing when the arithmetic is not finite
/// (a source without width).
std::optional<Letterbox> letterbox(size_t sourceWidth, size_t sourceHeight);

}  // namespace mirn
