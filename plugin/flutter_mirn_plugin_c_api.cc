#include "plugin/flutter_mirn_plugin_c_api.h"

#include <array>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "plugin/command_guard.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_manager.h"
#include "plugin/perfect_index.h"
#include "plugin/registration.h"
#include "plugin/standard_output.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

using Plug = FlutterMirnPluginCApi;
using Args = CommandArguments;

void answerTexts(MethodResult& result, const std::vector<std::string>& texts) {
  MessageWriter envelope;
  envelope.byte(0);
  envelope.listHead(texts.size());
  for (const std::string& text : texts) envelope.text(text);
  result.successEncoded(envelope);
}

void answerIntegers(MethodResult& result, const std::vector<int32_t>& integers) {
  MessageWriter envelope;
  envelope.byte(0);
  envelope.listHead(integers.size());
  for (const int32_t integer : integers) envelope.int32(integer);
  result.successEncoded(envelope);
}

void answerSize(MethodResult& result, const MirnSize& size) {
  MessageWriter envelope;
  envelope.byte(0);
  envelope.mapHead(2);
  envelope.text("width");
  envelope.float64(size.width);
  envelope.text("height");
  envelope.float64(size.height);
  result.successEncoded(envelope);
}

constexpr ArgumentType kInt32 = ArgumentType::kInt32;
constexpr ArgumentType kInt64 = ArgumentType::kInt64;
constexpr ArgumentType kText = ArgumentType::kText;

// What the channel offers, in the order in which it is documented. The asymmetries between the rows are meant:
// applications depend on each of them.
constexpr MainCommand kCommands[] = {
    {.name = "createTexture",
     .reply = ReplyKind::kInt64,
     .run = [](Plug& plugin, const Args&, MethodResult& result) { result.successInt64(plugin.createTexture()); }},
    {.name = "releaseTexture",
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args&, MethodResult& result) {
           Plug::releaseTexture();
           result.success();
         }},
    {.name = "getDeviceList",
     .reply = ReplyKind::kTextList,
     .run = [](Plug&, const Args&, MethodResult& result) { answerTexts(result, mirn_->getDeviceList()); }},
    {.name = "isVidPidExist",
     .reply = ReplyKind::kBool,
     .run = [](Plug&, const Args&, MethodResult& result) { result.successBool(mirn_->getDeviceExist()); }},
    {.name = "initKmProxy",
     .reply = ReplyKind::kBool,
     .run = [](Plug&, const Args&, MethodResult& result) { result.successBool(mirn_->initKmProxy()); }},
    {.name = "setVideoQuality",
     .arguments = {{{"quality", kText}}},
     .notDictionary = Instead::kZero,
     .keyMissing = Instead::kForward,
     .reply = ReplyKind::kBool,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           const std::string quality(arguments.text(0));
           result.successBool(mirn_->setVideoQuality(arguments.has(0) ? &quality : nullptr));
         }},
    {.name = "setLedStatus",
     .arguments = {{{"ledStatus", kInt32}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kForward,
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           mirn_->setLedStatus(arguments.int32(0));
           result.success();
         }},
    {.name = "getMirnDevInfo",
     .reply = ReplyKind::kTextList,
     .run = [](Plug&, const Args&, MethodResult& result) { answerTexts(result, mirn_->getMirnDevInfo()); }},
    {.name = "setMirnDevInfo",
     .arguments = {{{"name", kText}}},
     .notDictionary = Instead::kMinusTwo,
     .keyMissing = Instead::kMinusThree,
     .reply = ReplyKind::kInt32,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           mirn_->setMirnDevInfo(std::string(arguments.text(0)));
           result.successInt32(0);  // also when the device refused it
         }},
    {.name = "reqUpgradeFirmware",
     .arguments = {{{"path", kText}}},
     .notDictionary = Instead::kMinusTwo,
     .keyMissing = Instead::kMinusThree,
     .reply = ReplyKind::kInt32,
     .failure = kUpgradeImpossible,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           result.successInt32(mirn_->reqUpgradeFirmware(std::string(arguments.text(0))));
         }},
    {.name = "open",
     .reply = ReplyKind::kBool,
     .run = [](Plug&, const Args&, MethodResult& result) { result.successBool(mirn_->open()); }},
    {.name = "release",
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args&, MethodResult& result) {
           mirn_->close();
           result.success();
         }},
    {.name = "bindTexture",
     .arguments = {{{"textureId", kInt64}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kErrorObject,
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           mirn_->bindTexture(arguments.int64(0));
           result.success();
         }},
    {.name = "normalColor",
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args&, MethodResult& result) {
           mirn_->normalColor();
           result.success();
         }},
    {.name = "bestColor",
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args&, MethodResult& result) {
           mirn_->bestColor();
           result.success();
         }},
    // A missing key is key 0, which lets every held key go.
    {.name = "keyUp",
     .arguments = {{{"key", kInt32}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kForward,
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           mirn_->keyUp(arguments.int32(0));
           result.success();
         }},
    {.name = "keyDown",
     .arguments = {{{"key", kInt32}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kNull,
     .reply = ReplyKind::kNull,
     .run =
         [](Plug&, const Args& arguments, MethodResult& result) {
           mirn_->keyDown(arguments.int32(0));
           result.success();
         }},
    // The three pointer commands let their reply go: the application does not wait for it.
    {.name = "mouseMove",
     .arguments = {{{"x", kInt32}, {"y", kInt32}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kNoReply,
     .reply = ReplyKind::kNoReply,
     .run = [](Plug&, const Args& arguments,
               MethodResult&) { mirn_->mouseMove(arguments.int32(0), arguments.int32(1)); }},
    {.name = "mouseEventButtons",
     .arguments = {{{"x", kInt32}, {"y", kInt32}, {"type", kText}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kNoReply,
     .reply = ReplyKind::kNoReply,
     .run = [](Plug&, const Args& arguments,
               MethodResult&) { mirn_->mouseEventButtons(arguments.text(2), arguments.int32(0), arguments.int32(1)); }},
    {.name = "mouseWheel",
     .arguments = {{{"x", kInt32}, {"y", kInt32}, {"delta", kInt32}}},
     .notDictionary = Instead::kErrorObject,
     .keyMissing = Instead::kNoReply,
     .reply = ReplyKind::kNoReply,
     .run = [](Plug&, const Args& arguments,
               MethodResult&) { mirn_->mouseWheel(arguments.int32(0), arguments.int32(1), arguments.int32(2)); }},
    {.name = "getSize",
     .reply = ReplyKind::kSizeMap,
     .run = [](Plug&, const Args&, MethodResult& result) { answerSize(result, mirn_->getSize()); }},
    {.name = "getUpgradeProgress",
     .reply = ReplyKind::kIntegerList,
     .run = [](Plug&, const Args&, MethodResult& result) { answerIntegers(result, mirn_->getUpgradeProgress()); }},
};

constexpr auto commandNames() {
  std::array<std::string_view, std::size(kCommands)> names;
  for (size_t i = 0; i < names.size(); ++i) names[i] = kCommands[i].name;
  return names;
}

constexpr PerfectIndex<std::size(kCommands)> kIndex(commandNames());
static_assert(kIndex.valid(), "two command names are alike in length, first and last eight bytes");

void answerInstead(Instead instead, MethodResult& result) {
  switch (instead) {
    case Instead::kErrorObject:
      return result.error("INVALID_ARGUMENT", "arguments must be dictionary");
    case Instead::kZero:
      return result.successInt32(0);
    case Instead::kMinusTwo:
      return result.successInt32(-2);
    case Instead::kMinusThree:
      return result.successInt32(-3);
    case Instead::kNull:
      return result.success();
    case Instead::kForward:
    case Instead::kNoReply:
      return;
  }
}

// What a command answers that failed with an exception: the same as without a device.
void answerFailure(const MainCommand& command, MethodResult& result) {
  if (!result.pending()) return;  // the answer was out already
  switch (command.reply) {
    case ReplyKind::kNull:
      return result.success();
    case ReplyKind::kBool:
      return result.successBool(false);
    case ReplyKind::kInt32:
      return result.successInt32(command.failure);
    case ReplyKind::kInt64:
      return result.successInt64(0);
    case ReplyKind::kTextList:
      return answerTexts(result, {});
    case ReplyKind::kIntegerList:
      return answerIntegers(result, {});
    case ReplyKind::kSizeMap:
      return answerSize(result, {});
    case ReplyKind::kNoReply:
      return;
  }
}

// Whether every key of the row is there.
bool readArguments(const MainCommand& command, size_t count, const ValueView& dictionary, CommandArguments* arguments) {
  std::array<std::string_view, kMostArguments> keys;
  for (size_t i = 0; i < count; ++i) keys[i] = command.arguments[i].key;
  dictionary.findAll({keys.data(), count}, {arguments->values.data(), count});
  bool complete = true;
  for (size_t i = 0; i < count; ++i) {
    ValueView& value = arguments->values[i];
    // A text key that holds something else counts as absent.
    if (command.arguments[i].type == kText && value.kind() != ValueKind::kText) value = ValueView();
    complete = complete && !value.isAbsent();
  }
  return complete;
}

}  // namespace

std::span<const MainCommand> mainCommands() {
  return kCommands;
}

const MainCommand* findMainCommand(std::string_view name) {
  const size_t position = kIndex.find(name);
  return position == kIndex.kNone ? nullptr : &kCommands[position];
}

void FlutterMirnPluginCApi::registerWithRegistrar(PluginRegistrar& registrar) {
  auto channel = std::make_unique<MethodChannel>(registrar.messenger(), std::string(kMirnChannel));
  registrar.addMethodCallDelegate(initWithTextures(registrar.textures()), std::move(channel));
}

std::shared_ptr<FlutterMirnPluginCApi> FlutterMirnPluginCApi::initWithTextures(
    std::shared_ptr<TextureRegistry> textures) {
  std::shared_ptr<FlutterMirnPluginCApi> plugin(new FlutterMirnPluginCApi(std::move(textures)));
  createManager();
  return plugin;
}

void FlutterMirnPluginCApi::handleMethodCall(const MethodCallView& call, MethodResult result) {
  // The process is on its way out: there is nothing left to ask.
  if (mirn_ == nullptr) return result.notImplemented();
  const MainCommand* command = findMainCommand(call.method);
  if (command == nullptr) {
    printStandardOutput("error: no handled cmd!");  // without a line end
    return result.success();
  }
  CommandArguments arguments;
  if (const size_t count = command->argumentCount(); count > 0) {
    if (!call.arguments.isMap()) return answerInstead(command->notDictionary, result);
    const bool complete = readArguments(*command, count, call.arguments, &arguments);
    if (!complete && command->keyMissing != Instead::kForward) return answerInstead(command->keyMissing, result);
  }
  if (!runGuarded("FlutterMirnPluginCApi", command->name, [&] { command->run(*this, arguments, result); })) {
    answerFailure(*command, result);
  }
}

void FlutterMirnPluginCApi::detachFromEngine(PluginRegistrar& /*registrar*/) {
  releaseTexture();
}

void FlutterMirnPluginCApi::releaseTexture() {}

int64_t FlutterMirnPluginCApi::createTexture() {
  if (textures_ == nullptr) return 0;  // an engine that draws nothing
  std::shared_ptr<MirnTexture> texture = MirnTexture::init();
  const int64_t id = textures_->registerTexture(texture);
  if (id != 0) insertTexture(id, std::move(texture), textures_);  // 0: refused, and nobody would ever draw it
  return id;
}

void registerFlutterMirnPluginCApi(PluginRegistrar& registrar) {
  FlutterMirnPluginCApi::registerWithRegistrar(registrar);
}

}  // namespace mirn
