// The stand-in engine's inside: what its GObjects reach, its raster thread, its tasks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "standin/standin_engine.h"

namespace mirn {

// Everything that the GObject shells below reach; they hold it weakly, as the real ones hold the engine.
struct StandinCore : std::enable_shared_from_this<StandinCore> {
  struct Handler {
    FlBinaryMessengerMessageHandler function = nullptr;
    gpointer user_data = nullptr;
    GDestroyNotify destroy = nullptr;
  };
  struct Texture {
    FlTexture* object = nullptr;  // one reference from register to unregister
    bool cached = false;
  };

  // A task of the platform thread, in order, on a later turn of the main loop.
  void post(std::function<void()> task);
  void dispatch(const std::string& channel, const MessageBytes& message, StandinEngine::Reply reply);
  void rasterLoop();
  Painted paintNow(int64_t id);
  void stopRaster();
  void shutdownMessenger();
  void shutdownTextures();

  std::map<std::string, Handler> handlers;
  std::map<std::string, StandinEngine::DartHandler> dart;
  std::atomic<uint64_t> responses{0};
  std::atomic<uint64_t> unanswered{0};

  mutable std::mutex mutex;
  std::condition_variable wake;
  std::map<int64_t, Texture> textures;
  std::deque<std::function<void()>> raster_tasks;
  bool stopping = false;
  bool started = false;
  bool running = true;  // false from shutdown on
  std::function<void()> looked_up;
  std::function<void()> returned;
  std::thread raster;

  FlPluginRegistry* registry = nullptr;
  FlBinaryMessenger* messenger = nullptr;
  FlTextureRegistrar* texture_registrar = nullptr;
};

using WeakCore = std::weak_ptr<StandinCore>;

}  // namespace mirn
