// The main plug-in: turns the calls of one channel into operations of the device manager and of the textures.
#pragma once

#include <memory>
#include <span>
#include <string_view>

#include "embedding/plugin_registrar.h"
#include "plugin/command.h"

namespace mirn {

// The name that both plug-ins serve.
inline constexpr std::string_view kMirnChannel = "flutter_mirn";

// Bound to the platform thread. Keeps no device state: all instances share the manager.
class FlutterMirnPluginCApi : public Plugin {
 public:
  static void registerWithRegistrar(PluginRegistrar& registrar);

  // Makes the manager unless there is one.
  static std::shared_ptr<FlutterMirnPluginCApi> initWithTextures(std::shared_ptr<TextureRegistry> textures);

  void handleMethodCall(const MethodCallView& call, MethodResult result) override;
  void detachFromEngine(PluginRegistrar& registrar) override;

  // Does nothing: textures stay until destroyTexture takes them, and the manager survives the engine. That is meant.
  static void releaseTexture();

  // A new texture under a new id of the registry; 0, and no texture, when the engine refuses it or has no registry.
  int64_t createTexture();

  const std::shared_ptr<TextureRegistry>& textures() const { return textures_; }
  void setTextures_(std::shared_ptr<TextureRegistry> textures) { textures_ = std::move(textures); }

 private:
  explicit FlutterMirnPluginCApi(std::shared_ptr<TextureRegistry> textures) : textures_(std::move(textures)) {}

  std::shared_ptr<TextureRegistry> textures_;
};

// The command table in its order.
std::span<const MainCommand> mainCommands();

// The row of a name, or null. Takes as long for 200 rows as for 22.
const MainCommand* findMainCommand(std::string_view name);

}  // namespace mirn
