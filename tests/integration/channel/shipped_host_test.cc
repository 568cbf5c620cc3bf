// A host that has nothing but the shared library and its headers.
#include <gtest/gtest.h>

#include "embedding/plugin_registrar.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "tests/unit/embedding/fake_messenger.h"

namespace mirn::test {
namespace {

constexpr char kChannel[] = "flutter_mirn";
using Message = std::vector<uint8_t>;

struct CountingTextures : TextureRegistry {
  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override {
    kept.push_back(std::move(texture));
    return static_cast<int64_t>(kept.size());
  }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t id) override { kept[static_cast<size_t>(id) - 1].reset(); }
  std::vector<std::shared_ptr<ExternalTexture>> kept;
};

// A call without arguments, by hand.
Message call(std::string_view method) {
  Message message = {7, static_cast<uint8_t>(method.size())};
  message.insert(message.end(), method.begin(), method.end());
  message.push_back(0);
  return message;
}

TEST(ShippedLibrary, ServesAHostThatHasNothingElse) {
  FakeMessenger messenger;
  auto textures = std::make_shared<CountingTextures>();
  {
    PluginRegistrar registrar(messenger, textures);
    registerFlutterMirnPluginCApi(registrar);
    EXPECT_EQ(messenger.deliver(kChannel, call("createTexture")).reply, (Message{0, 4, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(messenger.deliver(kChannel, call("createTexture")).reply, (Message{0, 4, 2, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(textures->kept.size(), 2U);
    EXPECT_EQ(messenger.deliver(kChannel, call("releaseTexture")).reply, (Message{0, 0}));
    EXPECT_EQ(messenger.deliver(kChannel, call("getUpgradeProgress")).reply, (Message{0, 12, 0}));
    EXPECT_EQ(messenger.deliver(kChannel, {}).reply, Message{});
    EXPECT_FALSE(hostSessionStatistics().open);
    registerFlutterMirnPlugin(registrar);
    EXPECT_EQ(messenger.deliver(kChannel, call("getHeight")).reply, (Message{0, 3, 0xE0, 1, 0, 0}));
  }
  EXPECT_FALSE(messenger.serves(kChannel));
}

}  // namespace
}  // namespace mirn::test
