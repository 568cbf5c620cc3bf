// Whole channel messages for both plug-ins with a virtual device: method names and keys from the tables, values of
// every kind, and now and then raw bytes. Every message is answered or dropped exactly once, an answer is an envelope,
// and only the three commands that never answer drop theirs.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "embedding/plugin_registrar.h"
#include "platform/usb_registry.h"
#include "plugin/flutter_mirn_plugin.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "video/mirn_texture.h"
#include "virtual/virtual_clock.h"
#include "virtual/virtual_setup.h"

namespace {

using namespace mirn;

// Takes the fuzzer's bytes apart; zeros behind their end.
class Choices {
 public:
  explicit Choices(Bytes bytes) : bytes_(bytes) {}

  bool empty() const { return bytes_.empty(); }
  uint8_t byte() {
    if (bytes_.empty()) return 0;
    const uint8_t value = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return value;
  }
  size_t below(size_t limit) { return byte() % limit; }
  uint64_t word() {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = value << 8 | byte();
    return value;
  }
  std::string text(size_t longest) {
    std::string result(below(longest + 1), ' ');
    for (char& letter : result) letter = static_cast<char>(byte());
    return result;
  }

 private:
  Bytes bytes_;
};

Value anyValue(Choices& choices, int depth = 0) {
  static const std::vector<std::string> kWords = {"lbdown", "lbup", "rbdown", "720P", "1080P", "65", "-1", "/nowhere"};
  switch (choices.below(depth < 3 ? 12 : 8)) {
    case 0:
      return {};
    case 1:
      return choices.byte() != 0;
    case 2:
      return static_cast<int32_t>(choices.word());
    case 3:
      return static_cast<int64_t>(choices.word());
    case 4:
      return static_cast<double>(static_cast<int64_t>(choices.word())) / 3;
    case 5:
      return choices.text(32);
    case 6:
      return kWords[choices.below(kWords.size())];
    case 7:
      return int32_t{choices.byte()};
    case 8:
      return std::vector<int32_t>(choices.below(4), 1280);
    case 9:
      return std::vector<uint8_t>(choices.below(4), 9);
    case 10: {
      ValueList list;
      for (size_t i = choices.below(4); i > 0; --i) list.push_back(anyValue(choices, depth + 1));
      return list;
    }
    default: {
      ValueMap map;
      for (size_t i = choices.below(4); i > 0; --i) {
        Value key = anyValue(choices, depth + 1);
        map.emplace_back(std::move(key), anyValue(choices, depth + 1));
      }
      return map;
    }
  }
}

// A row of a table with its own keys, most of them with a value.
std::vector<uint8_t> mainMessage(Choices& choices) {
  const MainCommand& command = mainCommands()[choices.below(mainCommands().size())];
  if (choices.below(8) == 0) return encodeMethodCall(command.name, anyValue(choices));
  ValueMap map;
  for (size_t i = 0; i < command.argumentCount(); ++i) {
    if (choices.below(8) != 0) map.emplace_back(command.arguments[i].key, anyValue(choices));
  }
  return encodeMethodCall(command.name, map);
}

std::vector<uint8_t> frameMessage(Choices& choices) {
  const FrameCommand& command = frameCommands()[choices.below(frameCommands().size())];
  if (choices.below(4) == 0) return encodeMethodCall(command.name, anyValue(choices));
  return encodeMethodCall(command.name, ValueList{1280 + 640 * (choices.byte() % 2), 720 + 360 * (choices.byte() % 2)});
}

class CheckingMessenger final : public BinaryMessenger, public BinaryReplySink {
 public:
  void send(std::string_view, std::span<const uint8_t>, std::function<void(std::span<const uint8_t>)>) override {}
  void setMessageHandler(std::string_view, std::shared_ptr<BinaryMessageHandler> handler) override {
    handler_ = std::move(handler);
  }
  void clearMessageHandler(std::string_view, const BinaryMessageHandler*) override { handler_.reset(); }

  void deliver(std::span<const uint8_t> message) {
    outcomes_ = 0;
    may_drop_ = neverAnswers(message);
    handler_->onMessage(message, BinaryReply(this));
    if (outcomes_ != 1) abort();
  }
  void answered(std::span<const uint8_t> reply) override {
    ++outcomes_;
    Envelope envelope;
    if (decodeEnvelope(reply, &envelope) != CodecError::kNone) abort();
  }
  void dropped() override {
    ++outcomes_;
    if (!may_drop_) abort();
  }

 private:
  // A call of one of the main plug-in's commands that let their reply go. (The second plug-in knows none of them.)
  static bool neverAnswers(std::span<const uint8_t> message) {
    MethodCallView call;
    if (viewMethodCall(message, &call) != CodecError::kNone) return false;
    const MainCommand* command = findMainCommand(call.method);
    return command != nullptr && command->reply == ReplyKind::kNoReply;
  }

  std::shared_ptr<BinaryMessageHandler> handler_;
  int outcomes_ = 0;
  bool may_drop_ = false;
};

struct NoTextures : TextureRegistry {
  int64_t registerTexture(std::shared_ptr<ExternalTexture>) override { return ++last_; }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t) override {}
  int64_t last_ = 0;
};

// No bus: the scan finds nothing, the monitor does not get started.
class NoRegistry final : public UsbRegistry {
 public:
  std::unique_ptr<UsbMatching> createMatching(const char*) override { return nullptr; }
  std::unique_ptr<UsbNotificationPort> createNotificationPort() override { return nullptr; }
  int32_t addMatchingNotification(UsbNotificationPort&, UsbNotification, std::unique_ptr<UsbMatching>,
                                  UsbNotificationCallback, void*, UsbIterator*) override {
    return -1;
  }
  int32_t getMatchingServices(std::unique_ptr<UsbMatching>, UsbIterator*) override { return -1; }
  UsbService iteratorNext(UsbIterator) override { return 0; }
  void release(UsbHandle) override {}
  std::unique_ptr<UsbProperties> createProperties(UsbService) override { return nullptr; }
  std::shared_ptr<UsbRunLoop> currentRunLoop() override {
    struct Loop : UsbRunLoop {
      void addSource(UsbRunLoopSource&) override {}
      void run() override {}
      void stop() override {}
    };
    return std::make_shared<Loop>();
  }
};

// Made once; lives as long as the process.
struct World {
  World() {
    // The library's plain lines would drown the fuzzer's.
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) dup2(null, STDOUT_FILENO);
    VirtualMirnSettings mirn;
    mirn.latency = {};
    mirn.jitter = {};
    mirn.warm_up_latency = {};
    mirn.history_limit = 1;
    VirtualCaptureSettings camera;
    camera.frames_per_second = 0;
    setup = std::make_unique<VirtualSetup>(1, mirn, camera);
    setup->install();
    hostInstallClock(&clock);
    hostInstallUsbRegistry(&registry);
    main = std::make_unique<PluginRegistrar>(main_messenger, std::make_shared<NoTextures>());
    registerFlutterMirnPluginCApi(*main);
    second = std::make_unique<PluginRegistrar>(second_messenger, std::make_shared<NoTextures>());
    registerFlutterMirnPlugin(*second);
  }

  VirtualClock clock;
  NoRegistry registry;
  std::unique_ptr<VirtualSetup> setup;
  CheckingMessenger main_messenger;
  CheckingMessenger second_messenger;
  std::unique_ptr<PluginRegistrar> main;
  std::unique_ptr<PluginRegistrar> second;
};

// createTexture again and again would only fill the maps.
void destroyTextures() {
  for (int64_t id = 1; id < 4096; ++id) destroyTexture(id);
}

}  // namespace

// The proxy outlives an input, and a task that its sending thread has in hand would be taken for a leak. What leaks is
// found by the suite under the address sanitizer.
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static auto* const world = new World;
  Choices choices(Bytes(data, size));
  if (choices.below(16) == 0) {
    std::string plan_error;
    FaultPlan plan;
    FaultPlan::parse(choices.below(2) == 0 ? "unplug@3" : "refuse=7@*/3", &plan, &plan_error);
    world->setup->mirn().setFaultPlan(plan);
  }
  for (int message = 0; message < 24 && !choices.empty(); ++message) {
    switch (choices.below(8)) {
      case 0:
        world->second_messenger.deliver(frameMessage(choices));
        break;
      case 1: {
        const std::string raw = choices.text(64);
        world->main_messenger.deliver({reinterpret_cast<const uint8_t*>(raw.data()), raw.size()});
        break;
      }
      default:
        world->main_messenger.deliver(mainMessage(choices));
    }
  }
  world->setup->mirn().setFaultPlan({});
  if (!world->setup->mirn().plugged()) world->setup->replug();
  static uint64_t runs = 0;
  if (++runs % 1024 == 0) destroyTextures();
  return 0;
}
