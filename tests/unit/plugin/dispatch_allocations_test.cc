// What a call costs on the heap, from the bytes of the message to the bytes of the answer.
#include <gtest/gtest.h>

#include <utility>

#include "embedding/plugin_registrar.h"
#include "plugin/registration.h"
#include "tests/unit/embedding/allocation_count.h"

namespace mirn::test {
namespace {

struct NoTextures : TextureRegistry {
  int64_t registerTexture(std::shared_ptr<ExternalTexture>) override { return 1; }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t) override {}
};

// Counts what comes back; takes nothing from the heap itself.
class CountingMessenger final : public BinaryMessenger, public BinaryReplySink {
 public:
  void send(std::string_view, std::span<const uint8_t>, std::function<void(std::span<const uint8_t>)>) override {}
  void setMessageHandler(std::string_view, std::shared_ptr<BinaryMessageHandler> handler) override {
    handler_ = std::move(handler);
  }
  void clearMessageHandler(std::string_view, const BinaryMessageHandler*) override { handler_.reset(); }

  void deliver(std::span<const uint8_t> message) { handler_->onMessage(message, BinaryReply(this)); }
  void answered(std::span<const uint8_t>) override { ++answers; }
  void dropped() override { ++drops; }

  uint64_t answers = 0;
  uint64_t drops = 0;

 private:
  std::shared_ptr<BinaryMessageHandler> handler_;
};

TEST(Dispatch, TakesAtMostOneBlockForAKeyOrAMoveWithoutAProxy) {
  CountingMessenger messenger;
  PluginRegistrar registrar(messenger, std::make_shared<NoTextures>());
  registerFlutterMirnPluginCApi(registrar);
  constexpr uint64_t kCalls = 100;
  const std::vector<std::vector<uint8_t>> messages = {
      encodeMethodCall("keyDown", ValueMap{{"key", 65}}),
      encodeMethodCall("mouseMove", ValueMap{{"x", 16000}, {"y", 9000}}),
  };
  for (const std::vector<uint8_t>& message : messages) {
    messenger.deliver(message);
    const Allocations before = allocations();
    for (uint64_t i = 0; i < kCalls; ++i) messenger.deliver(message);
    EXPECT_LE(allocations().count - before.count, kCalls);
  }
  EXPECT_EQ(messenger.answers, kCalls + 1) << "keyDown is answered";
  EXPECT_EQ(messenger.drops, kCalls + 1) << "mouseMove is not";
}

}  // namespace
}  // namespace mirn::test
