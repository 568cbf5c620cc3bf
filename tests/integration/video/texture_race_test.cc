// Frames at 240 Hz on the main loop while textures are made, read by a raster thread, unregistered and destroyed by
// three others. MIRN_RACE_SECONDS says how long; what counts is what the sanitizers say.

#include <glib.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "platform/main_queue.h"
#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/log_capture.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

using std::chrono::steady_clock;

constexpr uint64_t kFramesPerSecond = 240;

std::chrono::milliseconds raceTime() {
  const char* seconds = std::getenv("MIRN_RACE_SECONDS");
  return std::chrono::milliseconds(seconds != nullptr ? std::atoi(seconds) * 1000 : 2000);
}

// An engine of two threads: textures are unregistered from anywhere, the raster thread reads whatever was announced.
class RaceRegistry : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override {
    MutexGuard guard(lock_);
    textures_[++last_] = std::move(texture);
    return last_;
  }
  void textureFrameAvailable(int64_t id) override { announced_.store(id); }
  void unregisterTexture(int64_t id) override {
    MutexGuard guard(lock_);
    const auto found = textures_.find(id);
    if (found != textures_.end()) {
      gone_.push_back(std::move(found->second));
      textures_.erase(found);
    }
  }
  /// One turn of the raster thread.
  bool draw() {
    std::shared_ptr<ExternalTexture> texture;
    std::vector<std::shared_ptr<ExternalTexture>> gone;
    {
      MutexGuard guard(lock_);
      const auto found = textures_.find(announced_.load());
      texture = found != textures_.end() ? found->second : nullptr;
      gone.swap(gone_);
    }
    bool drawn = false;
    if (texture) {
      if (const PixelBufferRef picture = texture->copyPixelBuffer()) {
        picture->lockBaseAddress(kPixelBufferLockReadOnly);
        drawn = picture->baseAddress()[3] == 255;
        picture->unlockBaseAddress(kPixelBufferLockReadOnly);
      }
    }
    for (const auto& old : gone) {
      old->onTextureUnregistered(old.get());
    }
    return drawn;
  }

 private:
  Mutex lock_;
  int64_t last_ MIRN_GUARDED_BY(lock_) = 0;
  std::map<int64_t, std::shared_ptr<ExternalTexture>> textures_ MIRN_GUARDED_BY(lock_);
  std::vector<std::shared_ptr<ExternalTexture>> gone_ MIRN_GUARDED_BY(lock_);
  std::atomic<int64_t> announced_{0};
};

// Makes and destroys textures of its own at random, as a host's thread might.
void churn(const std::shared_ptr<RaceRegistry>& registry, unsigned seed, const std::atomic<bool>& stop,
           std::atomic<uint64_t>& destroyed) {
  std::mt19937 random(seed);
  std::vector<int64_t> mine;
  while (!stop) {
    if (mine.size() < 6 && random() % 2 == 0) {
      const auto texture = MirnTexture::init();
      const int64_t id = registry->registerTexture(texture);
      insertTexture(id, texture, registry);
      mine.push_back(id);
    } else if (!mine.empty()) {
      const size_t at = random() % mine.size();
      destroyTexture(mine[at]);
      mine.erase(mine.begin() + static_cast<std::ptrdiff_t>(at));
      ++destroyed;
    }
    if (!mine.empty()) {
      updateTexture(mine.front(), {});  // a host may push too
    }
    std::this_thread::yield();
  }
  for (const int64_t id : mine) {
    destroyTexture(id);
  }
}

// 240 pictures a second from a pool, as a capture thread delivers them.
void produce(test::FakeCaptureDevice& device, const std::atomic<bool>& stop) {
  constexpr auto kInterval = std::chrono::nanoseconds(1'000'000'000 / kFramesPerSecond);
  PixelBufferPool pool(64, 36, kPixelFormatBGRA, 8);
  auto due = steady_clock::now();
  while (!stop) {
    if (PixelBufferRef picture = pool.acquire()) {
      picture->lockBaseAddress(kPixelBufferLockForWriting);
      std::fill_n(picture->baseAddress(), picture->dataSize(), uint8_t{255});
      picture->unlockBaseAddress(kPixelBufferLockForWriting);
      device.push(std::move(picture));
    }
    std::this_thread::sleep_until(due += kInterval);
  }
}

TEST(TextureRaceTest, FramesCreationDrawingAndDestructionInParallel) {
  test::LogCapture log;
  setSystemLogSink([](const std::string&) {});  // thousands of lines
  test::FakeCaptureSystem system;
  auto device = system.add("Nuvra Mirn");
  auto manager = MirnManager::init();
  ASSERT_TRUE(manager->open());
  const auto registry = std::make_shared<RaceRegistry>();

  std::atomic<bool> stop{false};
  std::atomic<uint64_t> destroyed{0};
  std::atomic<uint64_t> drawn{0};
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 3; ++seed) {
    threads.emplace_back([&, seed] { churn(registry, seed, stop, destroyed); });
  }
  threads.emplace_back([&] {
    while (!stop) {
      drawn += registry->draw() ? 1 : 0;
    }
  });
  threads.emplace_back([&] { produce(*device, stop); });

  const auto end = steady_clock::now() + raceTime();
  while (steady_clock::now() < end) {
    g_main_context_iteration(g_main_context_default(), TRUE);
  }
  stop = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  const CaptureStatistics numbers = manager->captureSession()->statistics();
  const uint64_t due = kFramesPerSecond * static_cast<uint64_t>(raceTime().count()) / 1000;
  EXPECT_GE(numbers.framesCaptured, due * 3 / 4) << "the producer makes up for what it was late";
  EXPECT_LE(numbers.framesCaptured, due + kFramesPerSecond);
  // A frame that found the one before still waiting took its place: a machine that does nothing else delivers nearly
  // all.
  EXPECT_GE(numbers.framesDelivered, due / 8);
  EXPECT_GE(destroyed, due / 8);
  EXPECT_GE(drawn, due / 8);
  RecordProperty("frames", std::to_string(numbers.framesDelivered));
  RecordProperty("destroyed", std::to_string(destroyed));
  RecordProperty("drawn", std::to_string(drawn));
  manager->close();
  std::vector<int64_t> ids;
  liveTextureIds(ids);
  EXPECT_TRUE(ids.empty());
}

}  // namespace
}  // namespace mirn
