// The grabber's frame: a BGRA picture scaled into the 640 x 480 canvas of 3-byte pixels, against the same picture made
// with other libraries' area averages and a copy.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/video/bench_frames.h"
#include "tests/support/video/pictures.h"
#include "video/letterbox.h"
#include "video/picture_scaler.h"

#ifdef MIRN_PEER_SWSCALE
extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}
#endif
#ifdef MIRN_PEER_OPENCV
#include <opencv2/imgproc.hpp>
#endif

namespace mirn::bench {
namespace {

// One way to make the grabber's frame.
struct Frame {
  std::function<void()> make;
  const uint8_t* canvas = nullptr;  // what it leaves: 3-byte pixels, rows packed; null = no picture
};

Frame ours(const CameraFrames& frames, ScalerCode code) {
  auto scaler = std::make_shared<PictureScaler>(code);
  auto canvas = std::make_shared<std::vector<uint8_t>>(kCanvasBytes);
  const auto make = [scaler, canvas, &frames] {
    const auto width = static_cast<size_t>(frames.width);
    const auto height = static_cast<size_t>(frames.height);
    const Letterbox box = *letterbox(width, height);
    uint8_t* corner = canvas->data() + static_cast<size_t>(box.top) * kCanvasBytesPerRow +
                      static_cast<size_t>(box.left) * kCanvasBytesPerPixel;
    scaler->scaleAndPack({frames.bgra.data(), width, height, width * 4},
                         {corner, static_cast<size_t>(box.width), static_cast<size_t>(box.height), kCanvasBytesPerRow});
    benchmark::DoNotOptimize(canvas->data());
    benchmark::ClobberMemory();
  };
  return {make, canvas->data()};
}

#ifdef MIRN_PEER_OPENCV
Frame openCv(const CameraFrames& frames) {
  auto canvas = std::make_shared<cv::Mat>(kCanvasHeight, kCanvasWidth, CV_8UC3, cv::Scalar(0));
  auto scaled = std::make_shared<cv::Mat>();
  const auto make = [canvas, scaled, &frames] {
    const Letterbox box = *letterbox(static_cast<size_t>(frames.width), static_cast<size_t>(frames.height));
    const cv::Mat source(frames.height, frames.width, CV_8UC4, const_cast<uint8_t*>(frames.bgra.data()));
    cv::resize(source, *scaled, cv::Size(box.width, box.height), 0, 0, cv::INTER_AREA);
    cv::Mat target = (*canvas)(cv::Rect(box.left, box.top, box.width, box.height));
    cv::cvtColor(*scaled, target, cv::COLOR_BGRA2BGR);
  };
  return {make, canvas->data};
}
#endif

#ifdef MIRN_PEER_SWSCALE
Frame swscale(const CameraFrames& frames) {
  const Letterbox box = *letterbox(static_cast<size_t>(frames.width), static_cast<size_t>(frames.height));
  std::shared_ptr<SwsContext> context(sws_getContext(frames.width, frames.height, AV_PIX_FMT_BGRA, box.width,
                                                     box.height, AV_PIX_FMT_BGR24, SWS_AREA, nullptr, nullptr, nullptr),
                                      sws_freeContext);
  // Its vector code writes whole registers past a row: the canvas has room behind it.
  auto canvas = std::make_shared<std::vector<uint8_t>>(kCanvasBytes + 256);
  const auto make = [=, &frames] {
    const uint8_t* planes[4] = {frames.bgra.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {frames.width * 4, 0, 0, 0};
    uint8_t* out[4] = {canvas->data() + static_cast<size_t>(box.top) * kCanvasBytesPerRow +
                           static_cast<size_t>(box.left) * kCanvasBytesPerPixel,
                       nullptr, nullptr, nullptr};
    const int outStrides[4] = {static_cast<int>(kCanvasBytesPerRow), 0, 0, 0};
    sws_scale(context.get(), planes, strides, 0, frames.height, out, outStrides);
  };
  return {make, canvas->data()};
}
#endif

Frame plainRead(const CameraFrames& frames) {
  const auto make = [&frames] {
    uint64_t sum = 0;
    for (size_t at = 0; at + 8 <= frames.bgra.size(); at += 8) {
      uint64_t word = 0;
      std::memcpy(&word, frames.bgra.data() + at, 8);
      sum += word;
    }
    benchmark::DoNotOptimize(sum);
  };
  return {make, nullptr};
}

// Against the exact area average, in dB. Equal pictures count as kEqualDb: a table has no room for the infinite.
constexpr double kEqualDb = 99;

double quality(const CameraFrames& frames, const Frame& frame) {
  const auto width = static_cast<size_t>(frames.width);
  const auto height = static_cast<size_t>(frames.height);
  const Letterbox box = *letterbox(width, height);
  test::Picture source;
  source.width = width;
  source.height = height;
  source.bytes = frames.bgra;
  const auto boxWidth = static_cast<size_t>(box.width);
  const auto boxHeight = static_cast<size_t>(box.height);
  frame.make();
  std::vector<uint8_t> got;
  for (size_t y = 0; y < boxHeight; ++y) {
    const uint8_t* row = frame.canvas + (static_cast<size_t>(box.top) + y) * kCanvasBytesPerRow +
                         static_cast<size_t>(box.left) * kCanvasBytesPerPixel;
    got.insert(got.end(), row, row + boxWidth * kCanvasBytesPerPixel);
  }
  return std::min(kEqualDb, test::psnr(got, test::exactAreaAverage(source, boxWidth, boxHeight)));
}

// A race is fair among equals: from this on nobody sees a difference, and 3:1 and 2:1 must reach it.
constexpr double kEqualQualityDb = 60;

// Speed that was bought with a worse picture than the peer's is no speed.
void requireEqualQuality(const std::string& what, double ours, double peer) {
  if (ours < std::min(peer, kEqualQualityDb)) {
    std::fprintf(stderr, "%s: %.1f dB, the peer has %.1f dB\n", what.c_str(), ours, peer);
    std::exit(1);
  }
}

void add(const std::string& name, const Frame& frame, double decibels) {
  benchmark::RegisterBenchmark(name.c_str(), [frame, decibels](benchmark::State& state) {
    frame.make();
    for (auto _ : state) {
      frame.make();
    }
    if (decibels > 0) {
      state.counters["psnr_db"] = decibels;
    }
  })->Unit(benchmark::kMicrosecond);
}

void addAll(int width, int height, Content content) {
  const CameraFrames& frames = cameraFrames(width, height, content);
  const std::string what = "grabber frame " + std::to_string(width) + "x" + std::to_string(height) +
                           (content == Content::kDesktop ? " desktop" : " noise");
  const Frame best = ours(frames, ScalerCode::kBest);
  const double decibels = quality(frames, best);
  add(what + "/ours", best, decibels);
  const Frame portable = ours(frames, ScalerCode::kPortable);
  add(what + "/peer:our portable code", portable, quality(frames, portable));
  add(what + "/peer:one read of the frame", plainRead(frames), 0);
#ifdef MIRN_PEER_OPENCV
  const Frame cv = openCv(frames);
  const double cvDecibels = quality(frames, cv);
  add(what + "/peer:OpenCV", cv, cvDecibels);
  if (height == 1080) {
    requireEqualQuality(what, decibels, cvDecibels);
  }
#endif
#ifdef MIRN_PEER_SWSCALE
  const Frame sws = swscale(frames);
  add(what + "/peer:libswscale", sws, quality(frames, sws));
#endif
}

}  // namespace
}  // namespace mirn::bench

int main(int argc, char** argv) {
  using mirn::bench::Content;
#ifdef MIRN_PEER_OPENCV
  cv::setNumThreads(1);
#endif
  mirn::bench::addAll(1920, 1080, Content::kDesktop);
  mirn::bench::addAll(1920, 1080, Content::kNoise);
  mirn::bench::addAll(1280, 720, Content::kDesktop);
  mirn::bench::addAll(1280, 720, Content::kNoise);
  for (const auto& [width, height] : {std::pair(1366, 768), {1600, 900}, {1920, 1200}, {3840, 2160}, {640, 480}}) {
    mirn::bench::addAll(width, height, Content::kDesktop);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
