#pragma once

// The texture bridge: hands captured frames to an engine's renderer by reference. Two process-wide maps tie a texture
// id to its texture and to the registry that gave the id.

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "embedding/texture_registry.h"
#include "platform/pixel_buffer.h"
#include "video/destroy_texture.h"

namespace mirn {

/// Holds the newest frame and gives it to the engine. Thread-safe: frames come on the main queue, the engine asks on
/// its raster thread, the two are serialised by `locker`.
class MirnTexture : public ExternalTexture {
 public:
  static std::shared_ptr<MirnTexture> init();
  ~MirnTexture() override;

  /// Keeps `buffer` as the current frame; nothing is copied. Null: the frame before stays.
  void updatePixelBuffer(const PixelBufferRef& buffer);
  /// The current frame with a reference of its own; null before the first one.
  PixelBufferRef copyPixelBuffer() override;
  /// Lets the frame go when `texture` is this one; else nothing.
  void onTextureUnregistered(ExternalTexture* texture) override;

  /// Null or a new buffer with the bytes of `source`. Not used by the frame path.
  PixelBufferRef createPixelBufferWithExample(const PixelBufferRef& source);
  /// Copies rows. `format` decides between planes and a single image. Rows, planes and bytes beyond what both buffers
  /// have are left alone.
  void copypixelbuffer(const PixelBufferRef& destination, const PixelBufferRef& source, PixelFormat format);
  /// A new 'BGRA' buffer from `w` x `h` packed 4-byte pixels (blue, green, red, anything); alpha becomes 255. Null for
  /// a null pointer or an empty size.
  PixelBufferRef createPixelBufferFromRGBData(const uint8_t* data, int64_t w, int64_t h);

  /// The lock around the current frame, made at first use.
  std::shared_ptr<Mutex> locker();
  /// Another one in its place, from the next operation on. Null: a new one is made at the next use.
  void setLocker(std::shared_ptr<Mutex> lock);

 private:
  MirnTexture() = default;

  // Every access to _target happens under locker() and then under targetLock_: the locker may be replaced in the middle
  // of anything, the frame stays guarded.
  Mutex targetLock_;
  PixelBufferRef _target MIRN_GUARDED_BY(targetLock_);
  Mutex lockerLock_;
  std::shared_ptr<Mutex> _locker MIRN_GUARDED_BY(lockerLock_);
};

/// Guards both maps. Taken before a texture's own lock, never the other way round. Not recursive.
extern Mutex g_MacOSTextureLock;
extern std::map<int64_t, std::shared_ptr<MirnTexture>> g_TextureMgr MIRN_GUARDED_BY(g_MacOSTextureLock);
// The registry is kept alive: an engine may go while its textures are still in the maps.
extern std::map<int64_t, std::shared_ptr<TextureRegistry>> g_TextureRegistryMgr MIRN_GUARDED_BY(g_MacOSTextureLock);

/// Puts a registered texture into both maps, replacing earlier entries of that id. Any thread.
void insertTexture(int64_t id, std::shared_ptr<MirnTexture> texture, std::shared_ptr<TextureRegistry> registry)
    MIRN_EXCLUDES(g_MacOSTextureLock);

/// The ids of all live textures in ascending order, into `ids` (its capacity is reused). Any thread.
void liveTextureIds(std::vector<int64_t>& ids) MIRN_EXCLUDES(g_MacOSTextureLock);

/// One frame for one texture: keeps `buffer` in the texture and tells its registry. An id that isn't in both maps is
/// ignored. Any thread.
void updateTexture(int64_t id, const PixelBufferRef& buffer) MIRN_EXCLUDES(g_MacOSTextureLock);

/// What runs first at process exit, before the maps above are destroyed: it releases the manager. Set once, by whoever
/// owns the manager.
void setFreeMirnManager(void (*release)());

}  // namespace mirn
