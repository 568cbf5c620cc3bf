// A program that has nothing of this project but what is installed: headers, library, pkg-config file. Registers the
// plug-in with an engine of its own, makes calls byte by byte, asks the texture for its picture and takes it away; puts
// back ends of its own in the place of hidapi, the USB register and the clock.
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "embedding/binary_messenger.h"
#include "embedding/method_channel.h"
#include "embedding/plugin_registrar.h"
#include "embedding/standard_codec.h"
#include "embedding/texture_registry.h"
#include "embedding/value.h"
#include "platform/clock.h"
#include "platform/hid_functions.h"
#include "platform/pixel_buffer.h"
#include "platform/usb_registry.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"

namespace {

using Bytes = std::vector<uint8_t>;

class Messenger final : public mirn::BinaryMessenger {
 public:
  void send(std::string_view, std::span<const uint8_t>, std::function<void(std::span<const uint8_t>)>) override {}
  void setMessageHandler(std::string_view channel, std::shared_ptr<mirn::BinaryMessageHandler> handler) override {
    handlers[std::string(channel)] = std::move(handler);
  }
  void clearMessageHandler(std::string_view channel, const mirn::BinaryMessageHandler* handler) override {
    const auto found = handlers.find(std::string(channel));
    if (found != handlers.end() && found->second.get() == handler) handlers.erase(found);
  }
  std::map<std::string, std::shared_ptr<mirn::BinaryMessageHandler>> handlers;
};

class Textures final : public mirn::TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<mirn::ExternalTexture> texture) override {
    kept[++last_] = std::move(texture);
    return last_;
  }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t id) override { kept.erase(id); }
  std::map<int64_t, std::shared_ptr<mirn::ExternalTexture>> kept;

 private:
  int64_t last_ = 0;
};

struct Answer final : mirn::BinaryReplySink {
  void answered(std::span<const uint8_t> reply) override { bytes.assign(reply.begin(), reply.end()); }
  void dropped() override {}
  Bytes bytes;
};

// The standard codec's form of a call without arguments.
Bytes call(const std::string& method) {
  Bytes message = {7, static_cast<uint8_t>(method.size())};
  message.insert(message.end(), method.begin(), method.end());
  message.push_back(0);
  return message;
}

// The sum of a picture's bytes, as something that draws it would read them.
uint64_t sumOf(mirn::ExternalTexture& texture) {
  const mirn::PixelBufferRef picture = texture.copyPixelBuffer();
  if (!picture) return 0;
  uint64_t sum = 0;
  picture->lockBaseAddress(mirn::kPixelBufferLockReadOnly);
  for (size_t row = 0; row < picture->height(); ++row) {
    const uint8_t* bytes = picture->baseAddress() + row * picture->bytesPerRow();
    for (size_t column = 0; column < picture->width() * 4; ++column) sum += bytes[column];
  }
  picture->unlockBaseAddress(mirn::kPixelBufferLockReadOnly);
  return sum;
}

// A USB register in which nothing works; it counts what it was asked for.
class NoRegistry final : public mirn::UsbRegistry {
 public:
  std::unique_ptr<mirn::UsbMatching> createMatching(const char*) override {
    ++asked;
    return nullptr;
  }
  std::unique_ptr<mirn::UsbNotificationPort> createNotificationPort() override { return nullptr; }
  int32_t addMatchingNotification(mirn::UsbNotificationPort&, mirn::UsbNotification, std::unique_ptr<mirn::UsbMatching>,
                                  mirn::UsbNotificationCallback, void*, mirn::UsbIterator*) override {
    return -1;
  }
  int32_t getMatchingServices(std::unique_ptr<mirn::UsbMatching>, mirn::UsbIterator*) override { return -1; }
  mirn::UsbService iteratorNext(mirn::UsbIterator) override { return 0; }
  void release(mirn::UsbHandle) override {}
  std::unique_ptr<mirn::UsbProperties> createProperties(mirn::UsbService) override { return nullptr; }
  std::shared_ptr<mirn::UsbRunLoop> currentRunLoop() override { return nullptr; }
  int asked = 0;
};

class StandingClock final : public mirn::Clock {
 public:
  Duration now() override { return {}; }
  void sleepFor(Duration) override {}
  void waitUntil(std::condition_variable_any&, mirn::Mutex&, Duration) override {}
};

// hidapi's calls without a device.
int g_opens = 0;
const mirn::HidFunctions kNoHid = {
    .init = [] { return 0; },
    .open = [](unsigned short, unsigned short, const wchar_t*) -> mirn::hid_device* {
      ++g_opens;
      return nullptr;
    },
    .write = [](mirn::hid_device*, const unsigned char*, size_t) { return -1; },
    .read_timeout = [](mirn::hid_device*, unsigned char*, size_t, int) { return -1; },
    .close = [](mirn::hid_device*) {},
    .topology = [](mirn::hid_device*) { return std::string(); },
};

bool failed(const char* what) {
  std::fprintf(stderr, "FAILED: %s\n", what);
  return true;
}

// Installs back ends of this program and sees that the library goes to them. False when all is well.
bool backEndsFail(mirn::BinaryMessageHandler& handler) {
  NoRegistry registry;
  StandingClock clock;
  if (!mirn::hostInstallHidFunctions(&kNoHid) || !mirn::hostInstallUsbRegistry(&registry) ||
      !mirn::hostInstallClock(&clock)) {
    return failed("a back end was refused though nothing is open");
  }
  if (mirn::hostDeviceAttached() || registry.asked != 1) return failed("the installed USB register wasn't asked");
  Answer connected;
  handler.onMessage(call("initKmProxy"), mirn::BinaryReply(&connected));
  // Success, false.
  if (connected.bytes != Bytes{0, 2} || g_opens == 0) return failed("the installed HID functions weren't asked");
  return (!mirn::hostInstallHidFunctions(nullptr) || !mirn::hostInstallUsbRegistry(nullptr) ||
          !mirn::hostInstallClock(nullptr) || !mirn::hostInstallCaptureSystem(nullptr)) &&
         failed("the real back ends can't be put back");
}

}  // namespace

int main() {
  Messenger messenger;
  const auto textures = std::make_shared<Textures>();
  mirn::PluginRegistrar registrar(messenger, textures);
  mirn::registerFlutterMirnPluginCApi(registrar);
  const auto handler = messenger.handlers.find("flutter_mirn");
  if (handler == messenger.handlers.end()) return failed("no handler for the channel");

  Answer created;
  handler->second->onMessage(call("createTexture"), mirn::BinaryReply(&created));
  // Success, a 64-bit number, the id that the registry gave.
  if (created.bytes != Bytes{0, 4, 1, 0, 0, 0, 0, 0, 0, 0}) return failed("createTexture must answer with the id 1");
  if (textures->kept.size() != 1) return failed("one texture must be registered");
  if (mirn::hostSessionStatistics().open) return failed("a session is open that nobody asked for");
  const uint64_t sum = sumOf(*textures->kept.begin()->second);
  std::printf("one channel, %zu textures, sum %llu\n", textures->kept.size(), static_cast<unsigned long long>(sum));
  if (backEndsFail(*handler->second)) return 1;
  mirn::destroyTexture(2);
  if (textures->kept.size() != 1) return failed("an unknown id took the texture away");
  mirn::destroyTexture(1);
  if (!textures->kept.empty()) return failed("destroyTexture left the texture");
  registrar.detach();
  return messenger.handlers.empty() ? 0 : failed("the handler stayed when the engine went");
}
