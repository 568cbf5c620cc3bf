#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>

#include "deps/pellum/thread_annotations.h"
#include "host/engine.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

PixelBufferRef smallPicture() {
  return PixelBuffer::create(4, 2, kPixelFormatBGRA);
}

// A texture whose picture the test sets, and that can hold the raster thread inside copyPixelBuffer().
class Texture final : public ExternalTexture {
 public:
  PixelBufferRef copyPixelBuffer() override {
    mutex_.lock();
    inside_ = true;
    wake_.notify_all();
    while (held_) {
      wake_.wait(mutex_);
    }
    inside_ = false;
    PixelBufferRef picture = picture_;
    mutex_.unlock();
    return picture;
  }
  void onTextureUnregistered(ExternalTexture* texture) override {
    EXPECT_EQ(texture, this);
    ++unregistered;
  }

  void setPicture(PixelBufferRef picture) {
    const MutexGuard guard(mutex_);
    picture_ = std::move(picture);
  }
  void hold(bool held) {
    const MutexGuard guard(mutex_);
    held_ = held;
    wake_.notify_all();
  }
  void waitUntilInside() {
    mutex_.lock();
    while (!inside_) {
      wake_.wait(mutex_);
    }
    mutex_.unlock();
  }

  std::atomic<int> unregistered{0};

 private:
  Mutex mutex_;
  std::condition_variable_any wake_;
  PixelBufferRef picture_ MIRN_GUARDED_BY(mutex_);
  bool held_ MIRN_GUARDED_BY(mutex_) = false;
  bool inside_ MIRN_GUARDED_BY(mutex_) = false;
};

TEST(EngineTextures, IdsArePositiveAndUniqueAcrossEngines) {
  Engine one;
  Engine two;
  const int64_t a = one.textures()->registerTexture(std::make_shared<Texture>());
  const int64_t b = two.textures()->registerTexture(std::make_shared<Texture>());
  const int64_t c = one.textures()->registerTexture(std::make_shared<Texture>());
  EXPECT_GT(a, 0);
  EXPECT_NE(a, b);
  EXPECT_NE(b, c);
  EXPECT_EQ(one.textureCount(), 2U);
}

TEST(EngineTextures, AMarkedTextureIsTakenOnTheRasterThread) {
  Engine engine;
  const auto texture = std::make_shared<Texture>();
  const int64_t id = engine.textures()->registerTexture(texture);
  std::atomic<int> heard{0};
  const std::thread::id here = std::this_thread::get_id();
  engine.setFrameListener([&](int64_t from, const PixelBufferRef& picture) {
    EXPECT_EQ(from, id);
    EXPECT_TRUE(picture);
    EXPECT_NE(std::this_thread::get_id(), here);
    ++heard;
  });
  engine.textures()->textureFrameAvailable(id);
  engine.syncRaster();
  EXPECT_EQ(engine.textureStatistics(id).empty, 1U) << "no picture yet";
  const PixelBufferRef picture = smallPicture();
  texture->setPicture(picture);
  engine.textures()->textureFrameAvailable(id);
  engine.syncRaster();
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(engine.latestPicture(id), picture);
  EXPECT_EQ(engine.textureStatistics(id).taken, 1U);
  EXPECT_EQ(engine.textureStatistics(id).marks, 2U);
}

TEST(EngineTextures, MarksBeforeALookCollapseAndOneDuringItCounts) {
  Engine engine;
  const auto texture = std::make_shared<Texture>();
  texture->setPicture(smallPicture());
  const int64_t id = engine.textures()->registerTexture(texture);
  texture->hold(true);
  engine.textures()->textureFrameAvailable(id);
  texture->waitUntilInside();
  for (int i = 0; i < 10; ++i) {
    engine.textures()->textureFrameAvailable(id);
  }
  texture->hold(false);
  engine.syncRaster();
  EXPECT_EQ(engine.textureStatistics(id).taken, 2U);
}

TEST(EngineTextures, UnregisteringInTheMiddleOfALookWaitsForNobodyAndKeepsTheTexture) {
  Engine engine;
  auto texture = std::make_shared<Texture>();
  Texture* const raw = texture.get();
  const std::weak_ptr<Texture> watch = texture;
  const int64_t id = engine.textures()->registerTexture(texture);
  raw->hold(true);
  engine.textures()->textureFrameAvailable(id);
  raw->waitUntilInside();
  engine.textures()->unregisterTexture(id);
  texture.reset();
  EXPECT_FALSE(watch.expired()) << "the raster thread is inside";
  EXPECT_EQ(engine.textureCount(), 0U);
  raw->hold(false);
  engine.syncRaster();
  EXPECT_TRUE(watch.expired());
  EXPECT_FALSE(engine.latestPicture(id));
}

TEST(EngineTextures, ATextureIsToldOnceAndUnknownIdsAreIgnored) {
  Engine engine;
  const auto texture = std::make_shared<Texture>();
  const int64_t id = engine.textures()->registerTexture(texture);
  engine.textures()->unregisterTexture(id);
  engine.textures()->unregisterTexture(id);
  engine.textures()->unregisterTexture(12345678);
  engine.textures()->textureFrameAvailable(id);
  engine.syncRaster();
  EXPECT_EQ(texture->unregistered, 1);
}

TEST(EngineTextures, ARegistryThatOutlivesItsEngineDoesNothing) {
  std::shared_ptr<TextureRegistry> registry;
  const auto texture = std::make_shared<Texture>();
  const std::weak_ptr<Texture> watch = texture;
  int64_t id = 0;
  {
    Engine engine;
    registry = engine.textures();
    id = registry->registerTexture(texture);
  }
  EXPECT_EQ(watch.use_count(), 1);
  registry->textureFrameAvailable(id);
  registry->unregisterTexture(id);
  EXPECT_EQ(registry->registerTexture(texture), 0);
  EXPECT_EQ(watch.use_count(), 1);
}

TEST(EngineTextures, TheListenerIsSilentOnceItIsTakenAway) {
  Engine engine;
  const auto texture = std::make_shared<Texture>();
  texture->setPicture(smallPicture());
  const int64_t id = engine.textures()->registerTexture(texture);
  std::atomic<int> heard{0};
  engine.setFrameListener([&](int64_t, const PixelBufferRef&) {
    ++heard;
    engine.setFrameListener({});  // also from within
  });
  engine.textures()->textureFrameAvailable(id);
  engine.syncRaster();
  engine.textures()->textureFrameAvailable(id);
  engine.syncRaster();
  EXPECT_EQ(heard, 1);
}

TEST(EngineTextures, TheRasterRateBoundsTheLooks) {
  Engine engine;
  engine.setRasterRate(50);
  const auto texture = std::make_shared<Texture>();
  texture->setPicture(smallPicture());
  const int64_t id = engine.textures()->registerTexture(texture);
  const auto began = std::chrono::steady_clock::now();
  for (int i = 0; i < 4; ++i) {
    engine.textures()->textureFrameAvailable(id);
    engine.syncRaster();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - began, 60ms);
}

TEST(EngineTextures, EnginesComeAndGoWhileFramesArrive) {
#ifdef MIRN_SANITIZED
  constexpr int kEngines = 20;
#else
  constexpr int kEngines = 100;
#endif
  for (int i = 0; i < kEngines; ++i) {
    std::vector<std::thread> threads;
    {
      Engine engine;
      const std::shared_ptr<TextureRegistry> registry = engine.textures();
      const auto texture = std::make_shared<Texture>();
      texture->setPicture(smallPicture());
      const int64_t first = registry->registerTexture(texture);
      const int64_t second = registry->registerTexture(texture);
      threads.emplace_back([registry, first, second] {
        for (int n = 0; n < 200; ++n) {
          registry->textureFrameAvailable(first);
          registry->textureFrameAvailable(second);
        }
      });
      threads.emplace_back([registry, second] { registry->unregisterTexture(second); });
      if (i % 2 == 0) {
        engine.syncRaster();
      }
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
}

}  // namespace
}  // namespace mirn
