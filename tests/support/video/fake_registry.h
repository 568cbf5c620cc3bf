#pragma once

// A texture registry that writes down what it is told.

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "embedding/texture_registry.h"

namespace mirn::test {

class FakeTextureRegistry final : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override {
    MutexGuard guard(lock_);
    textures_[++last_] = std::move(texture);
    return last_;
  }
  void textureFrameAvailable(int64_t id) override {
    {
      MutexGuard guard(lock_);
      events_.push_back("frame " + std::to_string(id));
      ++frames_[id];
    }
    if (onFrame) {
      onFrame(id);
    }
  }
  void unregisterTexture(int64_t id) override {
    {
      MutexGuard guard(lock_);
      events_.push_back("unregister " + std::to_string(id));
      textures_.erase(id);
    }
    if (onUnregister) {
      onUnregister(id);
    }
  }

  std::vector<std::string> events() {
    MutexGuard guard(lock_);
    return events_;
  }
  int frames(int64_t id) {
    MutexGuard guard(lock_);
    return frames_[id];
  }

  /// Called with the id, outside the registry's own lock. Set before frames come.
  std::function<void(int64_t)> onFrame;
  std::function<void(int64_t)> onUnregister;

 private:
  Mutex lock_;
  int64_t last_ MIRN_GUARDED_BY(lock_) = 0;
  std::map<int64_t, std::shared_ptr<ExternalTexture>> textures_ MIRN_GUARDED_BY(lock_);
  std::map<int64_t, int> frames_ MIRN_GUARDED_BY(lock_);
  std::vector<std::string> events_ MIRN_GUARDED_BY(lock_);
};

}  // namespace mirn::test
