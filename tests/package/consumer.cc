// A program that has nothing of this project but what is installed: headers, library, pkg-config file. Registers the
// plug-in with an engine of its own, makes a call byte by byte, and asks the texture for its picture.
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
#include "platform/pixel_buffer.h"
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

bool failed(const char* what) {
  std::fprintf(stderr, "FAILED: %s\n", what);
  return true;
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
  registrar.detach();
  return messenger.handlers.empty() ? 0 : failed("the handler stayed when the engine went");
}
