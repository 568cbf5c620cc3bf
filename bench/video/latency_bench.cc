// From the moment a frame is taken from the driver until the engine is told: V4L2 stream, conversion, mailbox, GLib
// main loop and texture, against a bare conversion and one hand-over between the same two threads.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <libyuv.h>
#include <linux/videodev2.h>
#include <turbojpeg.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "bench/video/bench_frames.h"
#include "platform/system_log.h"
#include "plugin/mirn_manager.h"
#include "tests/support/video/v4l2_world.h"
#include "video/mirn_texture.h"

namespace mirn::bench {
namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

const CameraFrames& pictures() {
  return cameraFrames(kWidth, kHeight, Content::kDesktop);
}

int64_t nowNs() {
  return std::chrono::steady_clock::now().time_since_epoch().count();
}

// Notes when it was told.
class TimingRegistry : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> /*texture*/) override { return 0; }
  void textureFrameAvailable(int64_t /*id*/) override { toldNs = nowNs(); }
  void unregisterTexture(int64_t /*id*/) override {}
  int64_t toldNs = 0;  // main thread only
};

void session(benchmark::State& state, uint32_t pixelFormat, const std::vector<uint8_t>& bytes) {
  setSystemLogSink([](const std::string&) {});
  test::V4l2World world(pixelFormat, kWidth, kHeight);
  const auto registry = std::make_shared<TimingRegistry>();
  insertTexture(1, MirnTexture::init(), registry);
  auto manager = MirnManager::init();
  if (!manager->open()) {
    state.SkipWithError("the session doesn't open");
  }
  const auto frame = [&] {
    registry->toldNs = 0;
    if (!world.push(bytes)) {
      std::fprintf(stderr, "no buffer is queued\n");
      std::exit(1);
    }
    while (registry->toldNs == 0) {
      g_main_context_iteration(nullptr, TRUE);
    }
    return static_cast<double>(registry->toldNs - world.kernel().lastDequeueNs()) * 1e-9;
  };
  for (int i = 0; i < 10; ++i) {
    frame();
  }
  for (auto _ : state) {
    state.SetIterationTime(frame());
  }
  manager.reset();
  destroyTexture(1);
  setSystemLogSink(nullptr);
}

using Conversion = std::function<void(const uint8_t* bytes, PixelBuffer& picture)>;

void yuyv(const uint8_t* bytes, PixelBuffer& picture) {
  libyuv::YUY2ToARGB(bytes, kWidth * 2, picture.baseAddress(), static_cast<int>(picture.bytesPerRow()), kWidth,
                     kHeight);
}

void nv12(const uint8_t* bytes, PixelBuffer& picture) {
  libyuv::NV12ToARGB(bytes, kWidth, bytes + static_cast<size_t>(kWidth) * kHeight, kWidth, picture.baseAddress(),
                     static_cast<int>(picture.bytesPerRow()), kWidth, kHeight);
}

Conversion turboJpeg(size_t bytesOfFrame) {
  std::shared_ptr<void> decoder(tjInitDecompress(), tjDestroy);
  return [decoder, bytesOfFrame](const uint8_t* bytes, PixelBuffer& picture) {
    tjDecompress2(decoder.get(), bytes, bytesOfFrame, picture.baseAddress(), kWidth,
                  static_cast<int>(picture.bytesPerRow()), kHeight, TJPF_BGRA, TJFLAG_FASTUPSAMPLE);
  };
}

// The least that a capture thread can do: convert into the picture that isn't shown, leave it under a lock, wake the
// main loop.
void bare(benchmark::State& state, const Conversion& convert, const std::vector<uint8_t>& bytes) {
  PixelBufferPool pool(kWidth, kHeight, kPixelFormatBGRA, 2);
  PixelBufferRef pair[2] = {pool.acquire(), pool.acquire()};
  for (const PixelBufferRef& picture : pair) {
    picture->lockBaseAddress(kPixelBufferLockForWriting);
  }
  std::vector<uint8_t> buffer = bytes;  // written before each frame, as the double does with its first free one
  std::atomic<int> turn{0};             // 1 = a frame is there, 2 = end
  size_t number = 0;
  int64_t takenNs = 0;
  Mutex lock;
  PixelBufferRef place;
  std::thread capture([&] {
    for (;;) {
      turn.wait(0);
      if (turn.exchange(0) == 2) {
        return;
      }
      takenNs = nowNs();
      PixelBufferRef& picture = pair[number % 2];
      convert(buffer.data(), *picture);
      {
        MutexGuard guard(lock);
        place = picture;
      }
      g_main_context_wakeup(nullptr);
    }
  });
  const auto frame = [&] {
    ++number;
    std::copy(bytes.begin(), bytes.end(), buffer.begin());
    turn.store(1);
    turn.notify_one();
    for (;;) {
      g_main_context_iteration(nullptr, TRUE);
      MutexGuard guard(lock);
      if (place) {
        place.reset();
        return static_cast<double>(nowNs() - takenNs) * 1e-9;
      }
    }
  };
  for (int i = 0; i < 10; ++i) {
    frame();
  }
  for (auto _ : state) {
    state.SetIterationTime(frame());
  }
  turn.store(2);
  turn.notify_one();
  capture.join();
}

void add(const std::string& name, uint32_t pixelFormat, const std::vector<uint8_t>& bytes, const std::string& peer,
         const Conversion& convert) {
  const std::string what = "dequeue to texture, " + name + " 1080p";
  benchmark::RegisterBenchmark((what + "/ours").c_str(),
                               [=, &bytes](benchmark::State& state) { session(state, pixelFormat, bytes); })
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
  benchmark::RegisterBenchmark((what + "/peer:" + peer + " and one hand-over").c_str(),
                               [=, &bytes](benchmark::State& state) { bare(state, convert, bytes); })
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace
}  // namespace mirn::bench

int main(int argc, char** argv) {
  using namespace mirn::bench;
  const CameraFrames& frames = pictures();
  add("YUYV", V4L2_PIX_FMT_YUYV, frames.yuyv, "libyuv", yuyv);
  add("NV12", V4L2_PIX_FMT_NV12, frames.nv12, "libyuv", nv12);
  add("MJPEG", V4L2_PIX_FMT_MJPEG, frames.mjpeg, "TurboJPEG", turboJpeg(frames.mjpeg.size()));
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
