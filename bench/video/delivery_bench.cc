// From the capture thread's hand to the textures: what a frame costs after its conversion.

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>

#include "platform/main_queue.h"
#include "platform/system_log.h"
#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/manual_queue.h"
#include "video/mirn_texture.h"

namespace mirn::bench {
namespace {

class CountingRegistry : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> /*texture*/) override { return 0; }
  void textureFrameAvailable(int64_t /*id*/) override { told.fetch_add(1, std::memory_order_relaxed); }
  void unregisterTexture(int64_t /*id*/) override {}
  std::atomic<uint64_t> told{0};
};

// A manager with an open session and some textures, on a main queue that the measurement turns.
class Delivery {
 public:
  explicit Delivery(int64_t textures) : textures_(textures) {
    setSystemLogSink([](const std::string&) {});
    for (int64_t id = 1; id <= textures; ++id) {
      insertTexture(id, MirnTexture::init(), registry);
    }
    manager_->open();
  }
  ~Delivery() {
    manager_.reset();
    for (int64_t id = 1; id <= textures_; ++id) {
      destroyTexture(id);
    }
    setSystemLogSink(nullptr);
  }

  test::ManualQueue queue;
  test::FakeCaptureSystem system;
  std::shared_ptr<test::FakeCaptureDevice> device = system.add("Nuvra Mirn");
  std::shared_ptr<CountingRegistry> registry = std::make_shared<CountingRegistry>();
  PixelBufferPool pool{64, 36, kPixelFormatBGRA, 8};

 private:
  int64_t textures_;
  std::unique_ptr<MirnManager> manager_ = MirnManager::init();
};

// One frame through mailbox, queue, manager and all textures, on one thread.
void deliver(benchmark::State& state, int64_t textures) {
  Delivery delivery(textures);
  for (auto _ : state) {
    delivery.device->push(delivery.pool.acquire());
    delivery.queue.runAll();
  }
}

// What a capture thread would do at the least: one reference into a place under a lock.
void bareHandOver(benchmark::State& state) {
  PixelBufferPool pool(64, 36, kPixelFormatBGRA, 8);
  Mutex lock;
  PixelBufferRef place;
  for (auto _ : state) {
    MutexGuard guard(lock);
    place = pool.acquire();
  }
}

// What eight textures may cost: one, and 2 us for each that is more. A limit, not something that anybody does.
void oneTextureAndAllowance(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::duration<double> kAllowance = std::chrono::microseconds(2) * 7;
  Delivery delivery(1);
  for (auto _ : state) {
    const auto before = Clock::now();
    delivery.device->push(delivery.pool.acquire());
    delivery.queue.runAll();
    const std::chrono::duration<double> took = Clock::now() - before;
    state.SetIterationTime((took + kAllowance).count());
  }
}

}  // namespace
}  // namespace mirn::bench

int main(int argc, char** argv) {
  using namespace mirn::bench;
  benchmark::RegisterBenchmark("frame to 1 texture/ours", deliver, 1);
  benchmark::RegisterBenchmark("frame to 1 texture/peer:bare reference under a lock", bareHandOver);
  benchmark::RegisterBenchmark("frame to 8 textures/ours", deliver, 8);
  benchmark::RegisterBenchmark("frame to 8 textures/peer:to 1 texture and 2 us each", oneTextureAndAllowance)
      ->UseManualTime();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
