// The second plug-in: frames of the capture source as raw bytes. It never touches the device manager or the textures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "embedding/plugin_registrar.h"

namespace mirn {

class CameraManager;
class FlutterMirnPlugin;

// What a command of this plug-in wants for arguments.
enum class FrameArguments : uint8_t {
  kIgnored,
  kSomeIntegers,  // a list of integers with at least one element
  kTwoIntegers,   // a list of exactly two integers
};

enum class FrameReply : uint8_t { kText, kTextList, kBool, kFrame, kInt32, kNull };

// The integers of a call that wants some, at most two.
struct FrameIntegers {
  int64_t first = 0;
  int64_t second = 0;
};

struct FrameCommand {
  std::string_view name;
  FrameArguments arguments = FrameArguments::kIgnored;
  std::string_view argumentError{};  // message of "INVALID_ARGUMENT"
  FrameReply reply = FrameReply::kNull;
  void (*run)(CameraManager& camera, const FrameIntegers& integers, MethodResult& result) = nullptr;
};

// Bound to the platform thread. Every call is answered once, before the handler returns. Each instance has a camera of
// its own.
class FlutterMirnPlugin : public Plugin {
 public:
  // "register" is a word of the language: hence the longer name.
  static void registerWithRegistrar(PluginRegistrar& registrar);

  FlutterMirnPlugin();
  ~FlutterMirnPlugin() override;

  void handleMethodCall(const MethodCallView& call, MethodResult result) override;

 private:
  const std::unique_ptr<CameraManager> cameraManager;
};

// The command table in its order.
std::span<const FrameCommand> frameCommands();

}  // namespace mirn
