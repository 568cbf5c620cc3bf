// What a plug-in gets from the engine that loads it.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "embedding/binary_messenger.h"
#include "embedding/method_channel.h"
#include "embedding/texture_registry.h"

namespace mirn {

class PluginRegistrar;

// A plug-in object. Bound to the platform thread.
class Plugin {
 public:
  virtual ~Plugin() = default;
  virtual void handleMethodCall(const MethodCallView& call, MethodResult result) = 0;
  // The engine goes away; the plug-in is destroyed right after.
  virtual void detachFromEngine(PluginRegistrar& /*registrar*/) {}
};

// Made by a host for one engine (or for one plug-in of it). Keeps the plug-ins alive until it is detached or destroyed.
// Bound to the platform thread; the messenger must outlive it. All of it stands in this header, and what it calls of
// the library is virtual: a host that has nothing but the shared library can make one.
class PluginRegistrar {
 public:
  PluginRegistrar(BinaryMessenger& messenger, std::shared_ptr<TextureRegistry> textures)
      : messenger_(messenger), textures_(std::move(textures)) {}
  virtual ~PluginRegistrar() { detach(); }
  PluginRegistrar(const PluginRegistrar&) = delete;
  PluginRegistrar& operator=(const PluginRegistrar&) = delete;

  virtual BinaryMessenger& messenger() { return messenger_; }
  virtual std::shared_ptr<TextureRegistry> textures() { return textures_; }

  // From now on `plugin` gets the calls of `channel`. The handler that served that name before is replaced; its plug-in
  // stays alive until the engine goes.
  virtual void addMethodCallDelegate(std::shared_ptr<Plugin> plugin, std::unique_ptr<MethodChannel> channel) {
    // The handler holds the plug-in, so that an engine that keeps a handler while it runs keeps the plug-in too.
    channel->setMethodCallHandler([plugin](const MethodCallView& call, MethodResult result) {
      plugin->handleMethodCall(call, std::move(result));
    });
    registered_.push_back({std::move(plugin), std::move(channel)});
  }

  // Tells every plug-in that the engine goes, in the order of registration, and drops handlers and plug-ins. Does
  // nothing the second time.
  void detach() {
    std::vector<Registered> leaving = std::exchange(registered_, {});
    for (Registered& entry : leaving) {
      entry.channel->clearMethodCallHandler();
      entry.plugin->detachFromEngine(*this);
    }
  }

 private:
  struct Registered {
    std::shared_ptr<Plugin> plugin;
    std::unique_ptr<MethodChannel> channel;
  };

  BinaryMessenger& messenger_;
  std::shared_ptr<TextureRegistry> textures_;
  std::vector<Registered> registered_;
};

}  // namespace mirn
