// The adapter's edges that no command reaches.
#include <flutter_mirn/flutter_mirn_plugin.h>
#include <flutter_mirn/flutter_mirn_plugin_c_api.h>

#include <optional>
#include <stdexcept>

#include "linux/fl_messenger.h"
#include "plugin_fixture.h"

namespace mirn {
namespace {

TEST(FlutterRegistration, TheRegistrarMayGoAtOnceAndEachEngineEndsItsOwn) {
  watchGlibLog();
  StandinEngine first;
  StandinEngine second;
  fl_register_plugins(first.registry());
  fl_register_plugins(second.registry());
  EXPECT_EQ(first.handlers(), 1U);
  first.shutdown();
  EXPECT_EQ(first.handlers(), 0U);
  EXPECT_EQ(second.handlers(), 1U);
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, RegisteringTwiceReplacesTheFirst) {
  watchGlibLog();
  StandinEngine engine;
  fl_register_plugins(engine.registry());
  fl_register_plugins(engine.registry());
  EXPECT_EQ(engine.handlers(), 1U);
  engine.shutdown();
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, AnEngineThatIsGoneKeepsNothing) {
  watchGlibLog();
  StandinEngine engine;
  g_autoptr(FlPluginRegistrar) registrar =
      fl_plugin_registry_get_registrar_for_plugin(engine.registry(), "FlutterMirnPluginCApi");
  engine.shutdown();
  flutter_mirn_plugin_c_api_register_with_registrar(registrar);
  flutter_mirn_plugin_register_with_registrar(registrar);
  EXPECT_EQ(glibCriticals(), 0U);
}

TEST(FlutterRegistration, BothClassesHaveTypesOfTheirOwn) {
  EXPECT_TRUE(g_type_is_a(flutter_mirn_plugin_c_api_get_type(), G_TYPE_OBJECT));
  EXPECT_TRUE(g_type_is_a(flutter_mirn_plugin_get_type(), G_TYPE_OBJECT));
  EXPECT_NE(flutter_mirn_plugin_c_api_get_type(), flutter_mirn_plugin_get_type());
}

// The direction that no command uses: from native code to the application.
class FlutterMessenger : public testing::Test {
 protected:
  FlutterMessenger() {
    watchGlibLog();
    g_autoptr(FlPluginRegistrar) registrar = fl_plugin_registry_get_registrar_for_plugin(engine_.registry(), "Test");
    adapter_ = std::make_unique<FlMessengerAdapter>(fl_plugin_registrar_get_messenger(registrar), [] {});
    engine_.setDartHandler("events", [this](const MessageBytes& message) {
      received_.push_back(message);
      return MessageBytes{7, 8};
    });
  }
  ~FlutterMessenger() override { EXPECT_EQ(glibCriticals(), 0U); }

  // What a waiting function holds; expired once the function is gone.
  std::function<void(std::span<const uint8_t>)> waiting() {
    auto held = std::make_shared<int>(0);
    held_ = held;
    return [this, held](std::span<const uint8_t> reply) { replies_.emplace_back(reply.begin(), reply.end()); };
  }

  StandinEngine engine_;
  std::unique_ptr<FlMessengerAdapter> adapter_;
  std::vector<MessageBytes> received_;
  std::vector<MessageBytes> replies_;
  std::weak_ptr<int> held_;
};

TEST_F(FlutterMessenger, AMessageReachesTheApplicationAndItsAnswerComesBack) {
  const MessageBytes message = {1, 2, 3};
  adapter_->send("events", message, waiting());
  EXPECT_FALSE(held_.expired());
  ASSERT_TRUE(runLoopUntil([this] { return !replies_.empty(); }, kPatience));
  EXPECT_EQ(received_, std::vector<MessageBytes>(1, message));
  EXPECT_EQ(replies_, std::vector<MessageBytes>(1, {7, 8}));
  EXPECT_TRUE(runLoopUntil([this] { return held_.expired(); }, kPatience));
}

TEST_F(FlutterMessenger, NobodyOnTheChannelIsAnAnswerWithoutBytes) {
  adapter_->send("elsewhere", MessageBytes{1}, waiting());
  ASSERT_TRUE(runLoopUntil([this] { return !replies_.empty(); }, kPatience));
  EXPECT_EQ(replies_, std::vector<MessageBytes>(1));
}

TEST_F(FlutterMessenger, WithoutAReplyFunctionTheMessageGoesAllTheSame) {
  adapter_->send("events", MessageBytes{4}, nullptr);
  ASSERT_TRUE(runLoopUntil([this] { return !received_.empty(); }, kPatience));
  drainLoop();
  EXPECT_TRUE(replies_.empty());
}

TEST_F(FlutterMessenger, AnAnswerMayComeAfterTheAdapterHasGone) {
  adapter_->send("events", MessageBytes{1}, waiting());
  adapter_.reset();
  ASSERT_TRUE(runLoopUntil([this] { return !replies_.empty(); }, kPatience));
  EXPECT_TRUE(runLoopUntil([this] { return held_.expired(); }, kPatience));
}

// Through the embedding, which is C, no exception can go.
TEST_F(FlutterMessenger, AHandlerThatThrowsLeavesAWarningAndTheEmptySuccess) {
  struct Thrower : BinaryMessageHandler {
    void onMessage(std::span<const uint8_t> message, BinaryReply reply) override {
      if (message[0] == 1) throw std::runtime_error("made to fail");
      if (message[0] == 2) reply.answer(MessageBytes{5});
      throw 5;
    }
  };
  adapter_->setMessageHandler("throws", std::make_shared<Thrower>());
  const uint64_t before = glibWarnings();
  std::vector<std::optional<MessageBytes>> answers;
  for (const uint8_t kind : {1, 2, 3}) {
    engine_.send("throws", {kind}, [&](const std::optional<MessageBytes>& reply) { answers.push_back(reply); });
  }
  ASSERT_TRUE(runLoopUntil([&] { return answers.size() == 3; }, kPatience));
  const MessageBytes empty_success = {0, 0};
  EXPECT_EQ(answers, (std::vector<std::optional<MessageBytes>>{empty_success, MessageBytes{5}, empty_success}));
  EXPECT_EQ(glibWarnings(), before + 3);
}

TEST_F(FlutterMessenger, AfterTheEnginesEndTheFunctionGoesUncalled) {
  engine_.shutdown();
  adapter_->send("events", MessageBytes{1}, waiting());
  adapter_->send("events", MessageBytes{1}, nullptr);
  EXPECT_TRUE(held_.expired());
  drainLoop();
  EXPECT_TRUE(received_.empty());
  EXPECT_TRUE(replies_.empty());
}

}  // namespace
}  // namespace mirn
