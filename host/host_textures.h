// The texture registry of host/engine.h with its raster thread. Not for users of the engine.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <thread>

#include "deps/pellum/thread_annotations.h"
#include "embedding/texture_registry.h"
#include "host/engine.h"

namespace mirn {

// Thread-safe. Plug-ins may keep it longer than the engine lives: after stop() every call does nothing.
class Engine::Registry final : public TextureRegistry {
 public:
  Registry();
  ~Registry() override;

  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override;
  void textureFrameAvailable(int64_t id) override;
  void unregisterTexture(int64_t id) override;

  void setFrameListener(FrameListener listener) MIRN_EXCLUDES(listener_mutex_);
  PixelBufferRef latestPicture(int64_t id) const;
  TextureStatistics statistics(int64_t id) const;
  size_t count() const;
  void setRate(int per_second);
  void sync();
  // Joins the raster thread and lets every texture go.
  void stop();

 private:
  struct Entry {
    std::shared_ptr<ExternalTexture> texture;
    bool marked = false;
    TextureStatistics statistics;
    PixelBufferRef latest;
  };
  // A look at one texture, or the farewell to one (`leaving`).
  struct Job {
    int64_t id = 0;
    std::shared_ptr<ExternalTexture> leaving;
  };

  void rasterLoop();
  void look(int64_t id) MIRN_EXCLUDES(mutex_);
  void waitForTick() MIRN_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable_any wake_;
  std::condition_variable_any served_;
  std::map<int64_t, Entry> entries_ MIRN_GUARDED_BY(mutex_);
  std::deque<Job> jobs_ MIRN_GUARDED_BY(mutex_);
  uint64_t jobs_queued_ MIRN_GUARDED_BY(mutex_) = 0;
  uint64_t jobs_done_ MIRN_GUARDED_BY(mutex_) = 0;
  int rate_ MIRN_GUARDED_BY(mutex_) = 0;
  std::chrono::steady_clock::time_point next_tick_ MIRN_GUARDED_BY(mutex_);
  bool stopping_ MIRN_GUARDED_BY(mutex_) = false;

  // Held while the listener runs; taken before nothing and after nothing.
  mutable Mutex listener_mutex_;
  std::shared_ptr<FrameListener> listener_;  // on the raster thread, or with listener_mutex_ held

  std::thread raster_;
};

}  // namespace mirn
