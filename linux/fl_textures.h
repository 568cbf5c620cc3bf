// The embedding's texture registrar as the plug-in sees a registry.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "embedding/texture_registry.h"
#include "linux/fl_pixel_texture.h"

namespace mirn {

// Thread-safe as TextureRegistry asks: what the embedding wants on its platform thread is posted there. Outlives its
// registration: while the engine runs, what it has given to the raster thread stays. A handler on a channel of its own
// holds it from the first texture on; the engine takes that away at its end, when the raster thread has ended.
class FlTexturesAdapter final : public TextureRegistry, public std::enable_shared_from_this<FlTexturesAdapter> {
 public:
  // Both are referenced until the engine ends. Platform thread.
  FlTexturesAdapter(FlTextureRegistrar* registrar, FlBinaryMessenger* messenger);
  ~FlTexturesAdapter() override;
  FlTexturesAdapter(const FlTexturesAdapter&) = delete;
  FlTexturesAdapter& operator=(const FlTexturesAdapter&) = delete;

  // Platform thread. 0 when the engine refuses, which it does before it has started and after its end.
  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override;
  void textureFrameAvailable(int64_t id) override;
  void unregisterTexture(int64_t id) override;

 private:
  struct ObjectUnref {
    void operator()(MirnPixelTexture* object) const { g_object_unref(object); }
  };
  using TextureObject = std::unique_ptr<MirnPixelTexture, ObjectUnref>;
  struct Entry {
    TextureObject object;
    std::shared_ptr<ExternalTexture> texture;
    bool mark_posted = false;
  };

  void markNow(int64_t id);
  void unregisterNow(int64_t id);
  void releaseRetired();
  void watchEngine();
  void engineEnded();

  FlTextureRegistrar* registrar_;  // platform thread, like the next two; null after the engine's end
  FlBinaryMessenger* messenger_;
  bool watching_ = false;
  const std::shared_ptr<RasterWatch> watch_ = std::make_shared<RasterWatch>();
  Mutex mutex_;  // never held during a call of the embedding
  std::map<int64_t, Entry> entries_ MIRN_GUARDED_BY(mutex_);
  std::vector<TextureObject> retired_;  // platform thread: unregistered, kept for the raster thread
};

}  // namespace mirn
