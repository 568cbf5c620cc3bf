#include "embedding/plugin_registrar.h"

#include <utility>

namespace mirn {

void Plugin::detachFromEngine(PluginRegistrar& /*registrar*/) {}

PluginRegistrar::PluginRegistrar(BinaryMessenger& messenger, std::shared_ptr<TextureRegistry> textures)
    : messenger_(messenger), textures_(std::move(textures)) {}

PluginRegistrar::~PluginRegistrar() {
  detach();
}

BinaryMessenger& PluginRegistrar::messenger() {
  return messenger_;
}

std::shared_ptr<TextureRegistry> PluginRegistrar::textures() {
  return textures_;
}

void PluginRegistrar::addMethodCallDelegate(std::shared_ptr<Plugin> plugin, std::unique_ptr<MethodChannel> channel) {
  // The handler holds the plug-in, so that an engine that keeps a handler while it runs keeps the plug-in too.
  channel->setMethodCallHandler(
      [plugin](const MethodCallView& call, MethodResult result) { plugin->handleMethodCall(call, std::move(result)); });
  registered_.push_back({std::move(plugin), std::move(channel)});
}

void PluginRegistrar::detach() {
  std::vector<Registered> leaving = std::exchange(registered_, {});
  for (Registered& entry : leaving) {
    entry.channel->clearMethodCallHandler();
    entry.plugin->detachFromEngine(*this);
  }
}

}  // namespace mirn
