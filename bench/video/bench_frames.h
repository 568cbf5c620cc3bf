#pragma once

// The pictures that everybody converts: a desktop with small text, and noise, in each camera format.

#include <cstdint>
#include <vector>

namespace mirn::bench {

struct CameraFrames {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> bgra;  // rows packed
  std::vector<uint8_t> yuyv;
  std::vector<uint8_t> nv12;
  std::vector<uint8_t> mjpeg;  // 4:2:2, as capture sticks send
};

enum class Content { kDesktop, kNoise };

/// Made once for each combination.
const CameraFrames& cameraFrames(int width, int height, Content content);

}  // namespace mirn::bench
