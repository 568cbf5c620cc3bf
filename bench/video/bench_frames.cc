#include "bench/video/bench_frames.h"

#include <turbojpeg.h>

#include <map>
#include <tuple>

#include "tests/support/video/pictures.h"

namespace mirn::bench {
namespace {

uint8_t luma(const uint8_t* pixel) {
  return static_cast<uint8_t>(16 + (25 * pixel[0] + 129 * pixel[1] + 66 * pixel[2]) / 256);
}
uint8_t blueChroma(const uint8_t* pixel) {
  return static_cast<uint8_t>(128 + (112 * pixel[0] - 74 * pixel[1] - 38 * pixel[2]) / 256);
}
uint8_t redChroma(const uint8_t* pixel) {
  return static_cast<uint8_t>(128 + (112 * pixel[2] - 94 * pixel[1] - 18 * pixel[0]) / 256);
}

std::vector<uint8_t> encode(const CameraFrames& frames) {
  tjhandle encoder = tjInitCompress();
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  tjCompress2(encoder, frames.bgra.data(), frames.width, 0, frames.height, TJPF_BGRA, &bytes, &size, TJSAMP_422, 85, 0);
  std::vector<uint8_t> jpeg(bytes, bytes + size);
  tjFree(bytes);
  tjDestroy(encoder);
  return jpeg;
}

CameraFrames make(int width, int height, Content content) {
  const auto w = static_cast<size_t>(width);
  const auto h = static_cast<size_t>(height);
  const test::Picture picture = content == Content::kDesktop ? test::desktopPicture(w, h) : test::noisePicture(w, h);
  CameraFrames frames;
  frames.width = width;
  frames.height = height;
  frames.bgra = picture.bytes;
  frames.nv12.resize(w * h * 3 / 2);
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      const uint8_t* pixel = picture.at(x, y);
      frames.yuyv.push_back(luma(pixel));
      frames.yuyv.push_back(x % 2 == 0 ? blueChroma(pixel) : redChroma(pixel));
      frames.nv12[y * w + x] = luma(pixel);
      frames.nv12[w * h + y / 2 * w + x] = x % 2 == 0 ? blueChroma(pixel) : redChroma(pixel);
    }
  }
  frames.mjpeg = encode(frames);
  return frames;
}

}  // namespace

const CameraFrames& cameraFrames(int width, int height, Content content) {
  static std::map<std::tuple<int, int, Content>, CameraFrames> made;
  const auto key = std::make_tuple(width, height, content);
  const auto found = made.find(key);
  return found != made.end() ? found->second : made.emplace(key, make(width, height, content)).first->second;
}

}  // namespace mirn::bench
