// A small engine of our own: what a plug-in needs of the engine that hosts it, for the console, the command line and
// the tests. It behaves as a real one does: application messages are delivered as main-loop tasks, in order and never
// inside each other, and a raster thread takes the pictures.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "embedding/binary_messenger.h"
#include "embedding/plugin_registrar.h"
#include "embedding/texture_registry.h"
#include "platform/pixel_buffer.h"

namespace mirn {

// What came of one message to the plug-in.
struct ChannelReply {
  enum class Kind : uint8_t {
    kReply,           // `bytes` holds it
    kNotImplemented,  // the empty reply, also where no handler serves the channel
    kNoReply,         // the handler let the answer go: legal for three commands
    kPending,         // the handler returned and keeps the right to answer (synchronous delivery only)
  };
  Kind kind = Kind::kNotImplemented;
  std::vector<uint8_t> bytes;
};

// Counters of one texture, as the raster thread saw it.
struct TextureStatistics {
  uint64_t marks = 0;  // textureFrameAvailable calls; several before one look collapse
  uint64_t taken = 0;  // looks that found a picture
  uint64_t empty = 0;  // looks that found none
};

// Bound to the platform thread (the default GLib main context) unless a call says otherwise. May be made and destroyed
// any number of times in one process, several at once too.
class Engine {
 public:
  // Called on the raster thread with each picture taken. The reference may be kept; the call should be short.
  using FrameListener = std::function<void(int64_t id, const PixelBufferRef& picture)>;
  // Called on the platform thread when native code sends on a channel; the answer goes to `reply`.
  using ApplicationHandler =
      std::function<void(std::span<const uint8_t> message, const std::function<void(std::span<const uint8_t>)>& reply)>;
  using ReplyCallback = std::function<void(ChannelReply reply)>;

  Engine();
  // Detaches the plug-ins, drops the handlers, lets the raster thread finish what it holds, drops the textures. Replies
  // that are still out come to nothing. The texture registry that plug-ins may have kept stays callable and does
  // nothing.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  BinaryMessenger& messenger();
  std::shared_ptr<TextureRegistry> textures();
  // A registrar for one more plug-in; the engine keeps it.
  PluginRegistrar& makeRegistrar();

  // Delivers a message to the plug-in right now, within this call. Not to be called from inside a handler of this
  // engine: the answer is kNotImplemented then, and a line stands on standard error.
  ChannelReply deliver(std::string_view channel, std::span<const uint8_t> message);
  // Delivers it as a task of the main loop, after all that were sent before. `reply` (may be empty) is called once, as
  // a later task, when the handler answers or lets go; never when the engine is destroyed first. Any thread.
  void send(std::string_view channel, std::vector<uint8_t> message, ReplyCallback reply);

  // Serves what native code sends on `channel`; an empty handler takes the one before away.
  void setApplicationHandler(std::string_view channel, ApplicationHandler handler);

  // Any thread. An empty listener removes the one before; once this returned, that one is not running any more (except
  // when it is called from within the listener itself).
  void setFrameListener(FrameListener listener);
  // The newest picture that the raster thread took of this texture; empty when none. Any thread.
  PixelBufferRef latestPicture(int64_t id) const;
  TextureStatistics textureStatistics(int64_t id) const;  // any thread
  size_t textureCount() const;                            // any thread
  // Takes pictures at most this often per second (a display's rate); 0, the default, as often as they are marked.
  void setRasterRate(int per_second);  // any thread
  // Waits until the raster thread has served every mark and removal so far. Any thread but the raster thread; the
  // caller must hold no lock that a texture takes.
  void syncRaster();

 private:
  class Messenger;
  class Registry;

  std::shared_ptr<Registry> registry_;
  std::shared_ptr<Messenger> messenger_;
  std::vector<std::unique_ptr<PluginRegistrar>> registrars_;
};

}  // namespace mirn
