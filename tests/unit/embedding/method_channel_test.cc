#include "embedding/method_channel.h"

#include <gtest/gtest.h>

#include "embedding/plugin_registrar.h"
#include "tests/unit/embedding/fake_messenger.h"
#include "tests/unit/embedding/notation.h"

namespace mirn::test {
namespace {

constexpr char kName[] = "some/channel";

class MethodChannelTest : public testing::Test {
 protected:
  std::string replyTo(std::string_view method, const Value& arguments = {}) {
    const FakeMessenger::Outcome outcome = messenger_.deliver(kName, encodeMethodCall(method, arguments));
    EXPECT_EQ(outcome.answers + outcome.drops, 1);
    return outcome.reply ? toHex(*outcome.reply) : "no reply";
  }

  FakeMessenger messenger_;
  MethodChannel channel_{messenger_, kName};
};

TEST_F(MethodChannelTest, EveryKindOfResultIsAnEnvelope) {
  channel_.setMethodCallHandler([](const MethodCallView& call, MethodResult result) {
    if (call.method == "null") return result.success();
    if (call.method == "true") return result.successBool(true);
    if (call.method == "false") return result.successBool(false);
    if (call.method == "int32") return result.successInt32(-2);
    if (call.method == "int64") return result.successInt64(1);
    if (call.method == "echo") return result.success(call.arguments.toValue());
    if (call.method == "error") return result.error("CODE", "message");
    if (call.method == "none") return;
    result.notImplemented();
  });
  EXPECT_EQ(replyTo("null"), "0000");
  EXPECT_EQ(replyTo("true"), "0001");
  EXPECT_EQ(replyTo("false"), "0002");
  EXPECT_EQ(replyTo("int32"), "0003feffffff");
  EXPECT_EQ(replyTo("int64"), "00040100000000000000");
  EXPECT_EQ(replyTo("echo", 2.5), "00060000000000000000000000000440");
  EXPECT_EQ(replyTo("error"), "010704434f444507076d65737361676500");
  EXPECT_EQ(replyTo("none"), "no reply");
  EXPECT_EQ(replyTo("else"), "");
}

TEST_F(MethodChannelTest, AMessageThatIsNoCallGetsTheEmptyReplyAndOneLine) {
  bool called = false;
  channel_.setMethodCallHandler([&called](const MethodCallView&, MethodResult) { called = true; });
  for (const char* hex : {"", "030100000000", "0701610000", "0701610f", "07056100", "00"}) {
    testing::internal::CaptureStdout();
    const FakeMessenger::Outcome outcome = messenger_.deliver(kName, parseHex(hex));
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(outcome.reply.has_value()) << hex;
    EXPECT_TRUE(outcome.reply->empty()) << hex;
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find(kName), std::string::npos) << log;
  }
  EXPECT_FALSE(called);
}

TEST_F(MethodChannelTest, ASecondAnswerIsNotSent) {
  bool second_pending = true;
  channel_.setMethodCallHandler([&](const MethodCallView&, MethodResult result) {
    result.successInt32(1);
    second_pending = result.pending();
    testing::internal::CaptureStdout();
    result.successInt32(2);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("twice"), std::string::npos);
  });
  EXPECT_EQ(replyTo("x"), "000301000000");
  EXPECT_FALSE(second_pending);
}

TEST_F(MethodChannelTest, AnAnswerMayComeAfterTheHandlerReturned) {
  std::unique_ptr<MethodResult> kept;
  channel_.setMethodCallHandler([&kept](const MethodCallView&, MethodResult result) {
    kept = std::make_unique<MethodResult>(std::move(result));
  });
  FakeMessenger::Outcome outcome;
  std::shared_ptr<BinaryMessageHandler> handler;
  struct Catcher : FakeMessenger {
    void setMessageHandler(std::string_view, std::shared_ptr<BinaryMessageHandler> set) override { kept = set; }
    std::shared_ptr<BinaryMessageHandler> kept;
  } catcher;
  MethodChannel channel(catcher, kName);
  channel.setMethodCallHandler([&kept](const MethodCallView&, MethodResult result) {
    kept = std::make_unique<MethodResult>(std::move(result));
  });
  catcher.kept->onMessage(encodeMethodCall("x", Value()), BinaryReply(&outcome));
  EXPECT_EQ(outcome.answers + outcome.drops, 0);
  kept->success();
  EXPECT_EQ(outcome.answers, 1);
  kept.reset();
  EXPECT_EQ(outcome.drops, 0);
}

TEST_F(MethodChannelTest, ClearingTakesOnlyItsOwnHandlerAway) {
  MethodChannel later(messenger_, kName);
  channel_.setMethodCallHandler([](const MethodCallView&, MethodResult result) { result.successInt32(1); });
  later.setMethodCallHandler([](const MethodCallView&, MethodResult result) { result.successInt32(2); });
  channel_.clearMethodCallHandler();
  EXPECT_EQ(replyTo("x"), "000302000000");
  later.clearMethodCallHandler();
  EXPECT_FALSE(messenger_.serves(kName));
  later.clearMethodCallHandler();
}

TEST_F(MethodChannelTest, AHandlerMayTakeItselfAwayWhileItRuns) {
  channel_.setMethodCallHandler([this](const MethodCallView& call, MethodResult result) {
    channel_.clearMethodCallHandler();
    result.success(std::string(call.method));
  });
  EXPECT_EQ(replyTo("x"), "00070178");
  EXPECT_EQ(replyTo("x"), "");
}

TEST_F(MethodChannelTest, CallsGoOutEncoded) {
  channel_.invokeMethod("m", Value());
  ASSERT_EQ(messenger_.sent.size(), 1U);
  EXPECT_EQ(messenger_.sent[0].channel, kName);
  EXPECT_EQ(toHex(messenger_.sent[0].message), "07016d00");
}

TEST(BinaryReply, IsAnsweredOrDroppedExactlyOnceHoweverItMoves) {
  FakeMessenger::Outcome answered;
  {
    BinaryReply reply(&answered);
    BinaryReply moved(std::move(reply));
    EXPECT_FALSE(reply.answer({}));  // NOLINT(bugprone-use-after-move): that is the point
    EXPECT_TRUE(moved.answer({}));
    EXPECT_FALSE(moved.answer({}));
  }
  EXPECT_EQ(answered.answers, 1);
  EXPECT_EQ(answered.drops, 0);

  FakeMessenger::Outcome replaced;
  FakeMessenger::Outcome kept;
  {
    BinaryReply reply(&replaced);
    reply = BinaryReply(&kept);
    EXPECT_EQ(replaced.drops, 1);
    EXPECT_TRUE(reply.pending());
  }
  EXPECT_EQ(kept.drops, 1);
  EXPECT_EQ(kept.answers + replaced.answers, 0);
}

class RecordingPlugin : public Plugin {
 public:
  RecordingPlugin(int number, std::vector<int>* detached) : number_(number), detached_(detached) {}
  void handleMethodCall(const MethodCallView&, MethodResult result) override { result.successInt32(number_); }
  void detachFromEngine(PluginRegistrar&) override { detached_->push_back(number_); }

 private:
  int number_;
  std::vector<int>* detached_;
};

TEST(PluginRegistrar, TheLastPluginServesTheNameAndAllAreDetachedOnceInOrder) {
  FakeMessenger messenger;
  std::vector<int> detached;
  std::weak_ptr<Plugin> first;
  {
    PluginRegistrar registrar(messenger, nullptr);
    for (int number = 1; number <= 2; ++number) {
      auto plugin = std::make_shared<RecordingPlugin>(number, &detached);
      if (number == 1) first = plugin;
      registrar.addMethodCallDelegate(plugin, std::make_unique<MethodChannel>(messenger, kName));
    }
    EXPECT_EQ(toHex(*messenger.deliver(kName, encodeMethodCall("x", Value())).reply), "000302000000");
    EXPECT_FALSE(first.expired());
    registrar.detach();
    EXPECT_EQ(detached, (std::vector<int>{1, 2}));
    EXPECT_TRUE(first.expired());
    EXPECT_FALSE(messenger.serves(kName));
  }
  EXPECT_EQ(detached.size(), 2U);
}

}  // namespace
}  // namespace mirn::test
