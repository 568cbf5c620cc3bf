// One external texture as the embedding's pixel-buffer texture.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "embedding/texture_registry.h"

namespace mirn {

// What all textures of one registry share: proof that the raster thread is through with one that was unregistered.
//
// The embedding reads the memory that copy_pixels returned within the same task of its one raster thread, and takes no
// reference to the texture meanwhile. No call tells when that task is over. But it can look up no texture that is
// unregistered, so at most one task may still be busy with it, perhaps just before its copy_pixels; and once *another*
// texture of the same engine is asked for its picture, that task is over. Thread-safe.
class RasterWatch {
 public:
  // This texture was unregistered just now.
  void await(const void* texture) {
    const MutexGuard guard(mutex_);
    awaited_.push_back(texture);
  }
  // The raster thread begins to ask this texture.
  void asked(const void* texture) {
    const MutexGuard guard(mutex_);
    std::erase_if(awaited_, [texture](const void* one) { return one != texture; });
  }
  bool awaits(const void* texture) const {
    const MutexGuard guard(mutex_);
    return std::find(awaited_.begin(), awaited_.end(), texture) != awaited_.end();
  }

 private:
  mutable Mutex mutex_;
  std::vector<const void*> awaited_ MIRN_GUARDED_BY(mutex_);
};

}  // namespace mirn

G_BEGIN_DECLS

G_DECLARE_FINAL_TYPE(MirnPixelTexture, mirn_pixel_texture, MIRN, PIXEL_TEXTURE, FlPixelBufferTexture)

G_END_DECLS

namespace mirn {

// A new texture object, one reference to the caller. Its copy_pixels turns `texture`'s picture into R, G, B, A; the
// returned memory stays as it is until the next call or the end of the object.
MirnPixelTexture* newPixelTexture(std::shared_ptr<ExternalTexture> texture, std::shared_ptr<RasterWatch> watch);

}  // namespace mirn
