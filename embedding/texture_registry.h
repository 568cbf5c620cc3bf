// Pictures for an engine: external textures and the registry that gives them their ids.
#pragma once

#include <cstdint>
#include <memory>

namespace mirn {

class PixelBufferRef;

// Something that an engine draws. The engine may call both operations from threads of its own, in any order.
class ExternalTexture {
 public:
  virtual ~ExternalTexture() = default;

  // The picture to show now, with a reference of its own; empty when there is none yet. Called for each frame that the
  // engine draws, on its raster thread.
  virtual PixelBufferRef copyPixelBuffer() = 0;

  // The engine has let `texture` go. An object that is told about another one ignores it.
  virtual void onTextureUnregistered(ExternalTexture* texture) = 0;
};

// The engine's side. registerTexture is called on the platform thread; textureFrameAvailable and unregisterTexture from
// any thread, possibly while the caller holds a lock: they must not wait for the platform thread. Where an engine wants
// its own call there, it posts it.
class TextureRegistry {
 public:
  virtual ~TextureRegistry() = default;

  // The registry keeps the texture until it is unregistered. The id is positive, and not given again while it is in
  // use. 0: the engine takes no textures now (it hasn't started, or it is gone), and nothing was kept.
  virtual int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) = 0;
  // An unknown id is ignored.
  virtual void textureFrameAvailable(int64_t id) = 0;
  virtual void unregisterTexture(int64_t id) = 0;
};

}  // namespace mirn
