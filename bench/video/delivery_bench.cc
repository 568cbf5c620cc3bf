// From the capture thread's hand to the textures: what a frame costs after its conversion, and how long until the
// engine is told.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

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

void pinTo(pthread_t thread, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(thread, sizeof set, &set);
}

// From the capture thread's delivery to the engine's being told, over the thread boundary. Both threads on one CPU, or
// on two: on virtual machines the second is another matter by an order of magnitude.
void handOver(benchmark::State& state, int captureCpu) {
  using Clock = std::chrono::steady_clock;
  Delivery delivery(1);
  pinTo(pthread_self(), 0);
  std::atomic<int> turn{0};  // 1 = a frame is wanted, 2 = end
  std::atomic<int64_t> sentAt{0};
  std::thread capture([&] {
    pinTo(pthread_self(), captureCpu);
    for (;;) {
      turn.wait(0);
      if (turn.load() == 2) {
        return;
      }
      turn.store(0);
      sentAt.store(Clock::now().time_since_epoch().count());
      delivery.device->push(delivery.pool.acquire());
    }
  });
  for (auto _ : state) {
    turn.store(1);
    turn.notify_one();
    const uint64_t before = delivery.registry->told.load();
    while (delivery.registry->told.load() == before) {
      if (delivery.queue.runAll() == 0) {
        std::this_thread::yield();
      }
    }
    const int64_t took = Clock::now().time_since_epoch().count() - sentAt.load();
    state.SetIterationTime(static_cast<double>(took) * 1e-9);
  }
  turn.store(2);
  turn.notify_one();
  capture.join();
}

}  // namespace
}  // namespace mirn::bench

int main(int argc, char** argv) {
  using namespace mirn::bench;
  benchmark::RegisterBenchmark("frame to 1 texture/ours", deliver, 1);
  benchmark::RegisterBenchmark("frame to 1 texture/peer:bare reference under a lock", bareHandOver);
  benchmark::RegisterBenchmark("frame to 8 textures/ours", deliver, 8);
  benchmark::RegisterBenchmark("frame to 8 textures/peer:to 1 texture", deliver, 1);
  benchmark::RegisterBenchmark("capture thread to engine, one CPU/ours", handOver, 0)->UseManualTime();
  if (std::thread::hardware_concurrency() > 1) {
    benchmark::RegisterBenchmark("capture thread to engine, two CPUs/ours", handOver, 1)->UseManualTime();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
