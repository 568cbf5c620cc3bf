#include "plugin/flutter_mirn_plugin.h"

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/os_version.h"
#include "plugin/command_guard.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/perfect_index.h"
#include "plugin/registration.h"
#include "video/camera_manager.h"

namespace mirn {
namespace {

void answerTexts(const std::vector<std::string>& texts, MethodResult& result) {
  MessageWriter envelope;
  envelope.byte(0);
  envelope.listHead(texts.size());
  for (const std::string& text : texts) envelope.text(text);
  result.successEncoded(envelope);
}

void answerVersion(CameraManager&, const FrameIntegers&, MethodResult& result) {
  MessageWriter envelope;
  envelope.byte(0);
  // The prefix is meant, whatever the system: applications compare it.
  envelope.text("macOS " + operatingSystemVersionString());
  result.successEncoded(envelope);
}

void answerDevices(CameraManager& camera, const FrameIntegers&, MethodResult& result) {
  answerTexts(camera.listDevices(), result);
}

void answerNoFrame(MethodResult& result) {
  result.error("CAPTURE_FAILED", "No frame available");
}

void answerFrame(CameraManager& camera, const FrameIntegers&, MethodResult& result) {
  const std::optional<FrameData> frame = camera.currentFrame();
  if (!frame) return answerNoFrame(result);
  constexpr size_t kRoomBesidesData = 64;
  MessageWriter envelope;
  envelope.reserve(frame->rgbData->size() + kRoomBesidesData);
  envelope.byte(0);
  envelope.mapHead(3);
  envelope.text("width");
  envelope.int32(static_cast<int32_t>(frame->width));
  envelope.text("height");
  envelope.int32(static_cast<int32_t>(frame->height));
  envelope.text("data");
  envelope.byteList({frame->rgbData->data(), frame->rgbData->size()});
  result.successEncoded(envelope);
}

// The last frame stays: captureFrame goes on answering it.
void release(CameraManager& camera, const FrameIntegers&, MethodResult& result) {
  if (camera.captureSession != nullptr) camera.captureSession->stopRunning();
  camera.captureSession.reset();
  camera.videoOutput.reset();
  camera.captureDevice.reset();
  result.success();
}

constexpr auto kCommands = std::to_array<FrameCommand>({
    {.name = "getPlatformVersion", .reply = FrameReply::kText, .run = answerVersion},
    {.name = "getDeviceList", .reply = FrameReply::kTextList, .run = answerDevices},
    // The numbers are not used: the camera looks for its device by name.
    {.name = "open",
     .arguments = FrameArguments::kSomeIntegers,
     .argumentError = "Index required",
     .reply = FrameReply::kBool,
     .run = [](CameraManager& camera, const FrameIntegers&,
               MethodResult& result) { result.successBool(camera.open()); }},
    {.name = "captureFrame", .reply = FrameReply::kFrame, .run = answerFrame},
    {.name = "setResolution",
     .arguments = FrameArguments::kTwoIntegers,
     .argumentError = "Width and height required",
     .reply = FrameReply::kBool,
     .run = [](CameraManager& camera, const FrameIntegers& size,
               MethodResult& result) { result.successBool(camera.setResolution(size.first, size.second)); }},
    {.name = "getWidth",
     .reply = FrameReply::kInt32,
     .run = [](CameraManager& camera, const FrameIntegers&,
               MethodResult& result) { result.successInt32(static_cast<int32_t>(camera.frameWidth.load())); }},
    {.name = "getHeight",
     .reply = FrameReply::kInt32,
     .run = [](CameraManager& camera, const FrameIntegers&,
               MethodResult& result) { result.successInt32(static_cast<int32_t>(camera.frameHeight.load())); }},
    {.name = "release", .reply = FrameReply::kNull, .run = release},
});

constexpr auto commandNames() {
  std::array<std::string_view, kCommands.size()> names;
  for (size_t i = 0; i < names.size(); ++i) names[i] = kCommands[i].name;
  return names;
}

constexpr PerfectIndex<kCommands.size()> kIndex(commandNames());
static_assert(kIndex.valid(), "two command names are alike in length, first and last eight bytes");

// What a command answers that failed with an exception: the same as without a device.
void answerFailure(FrameReply reply, MethodResult& result) {
  if (!result.pending()) return;  // the answer was out already
  switch (reply) {
    case FrameReply::kText:
      return result.success(Value(std::string()));
    case FrameReply::kTextList:
      return answerTexts({}, result);
    case FrameReply::kBool:
      return result.successBool(false);
    case FrameReply::kFrame:
      return answerNoFrame(result);
    case FrameReply::kInt32:
      return result.successInt32(0);
    case FrameReply::kNull:
      return result.success();
  }
}

bool readIntegers(FrameArguments wanted, const ValueView& list, FrameIntegers* integers) {
  if (wanted == FrameArguments::kIgnored) return true;
  if (!list.isIntegerList()) return false;
  if (wanted == FrameArguments::kSomeIntegers) return list.size() > 0;
  return list.size() == 2 && list.integerAt(0, &integers->first) && list.integerAt(1, &integers->second);
}

}  // namespace

std::span<const FrameCommand> frameCommands() {
  return kCommands;
}

FlutterMirnPlugin::FlutterMirnPlugin() : cameraManager(std::make_unique<CameraManager>()) {}

FlutterMirnPlugin::~FlutterMirnPlugin() = default;

void FlutterMirnPlugin::registerWithRegistrar(PluginRegistrar& registrar) {
  auto channel = std::make_unique<MethodChannel>(registrar.messenger(), std::string(kMirnChannel));
  registrar.addMethodCallDelegate(std::make_shared<FlutterMirnPlugin>(), std::move(channel));
}

void FlutterMirnPlugin::handleMethodCall(const MethodCallView& call, MethodResult result) {
  const size_t position = kIndex.find(call.method);
  if (position == kIndex.kNone) return result.notImplemented();
  const FrameCommand& command = kCommands[position];
  FrameIntegers integers;
  if (!readIntegers(command.arguments, call.arguments, &integers)) {
    return result.error("INVALID_ARGUMENT", command.argumentError);
  }
  if (!runGuarded("FlutterMirnPlugin", command.name, [&] { command.run(*cameraManager, integers, result); })) {
    answerFailure(command.reply, result);
  }
}

void registerFlutterMirnPlugin(PluginRegistrar& registrar) {
  FlutterMirnPlugin::registerWithRegistrar(registrar);
}

}  // namespace mirn
