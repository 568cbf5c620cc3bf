// What a plug-in gets from the engine that loads it.
#pragma once

#include <memory>
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
  virtual void detachFromEngine(PluginRegistrar& registrar);
};

// Made by a host for one engine (or for one plug-in of it). Keeps the plug-ins alive until it is detached or destroyed.
// Bound to the platform thread; the messenger must outlive it. Virtual so that it can be used across the library's
// border.
class PluginRegistrar {
 public:
  PluginRegistrar(BinaryMessenger& messenger, std::shared_ptr<TextureRegistry> textures);
  virtual ~PluginRegistrar();
  PluginRegistrar(const PluginRegistrar&) = delete;
  PluginRegistrar& operator=(const PluginRegistrar&) = delete;

  virtual BinaryMessenger& messenger();
  virtual std::shared_ptr<TextureRegistry> textures();

  // From now on `plugin` gets the calls of `channel`. The handler that served that name before is replaced; its plug-in
  // stays alive until the engine goes.
  virtual void addMethodCallDelegate(std::shared_ptr<Plugin> plugin, std::unique_ptr<MethodChannel> channel);

  // Tells every plug-in that the engine goes, in the order of registration, and drops handlers and plug-ins. Does
  // nothing the second time.
  void detach();

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
