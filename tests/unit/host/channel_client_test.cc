#include "host/channel_client.h"

#include <gtest/gtest.h>

#include "embedding/method_channel.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

using std::chrono_literals::operator""s;

// A channel that answers each method in its own way.
class ChannelClientTest : public ::testing::Test {
 protected:
  ChannelClientTest() : channel_(engine_.messenger(), "flutter_mirn"), client_(engine_) {
    channel_.setMethodCallHandler([this](const MethodCallView& call, MethodResult result) {
      last_arguments_ = call.arguments.toValue();
      if (call.method == "echo") {
        result.success(last_arguments_);
      } else if (call.method == "fail") {
        result.error("INVALID_ARGUMENT", "arguments must be dictionary");
      } else if (call.method == "unknown") {
        result.notImplemented();
      }
    });
  }

  Engine engine_;
  MethodChannel channel_;
  ChannelClient client_;
  Value last_arguments_;
};

TEST_F(ChannelClientTest, ValuesComeBackWithTheirTypes) {
  EXPECT_TRUE(client_.call("echo", Value(true)).asBool());
  EXPECT_EQ(client_.call("echo", Value(int32_t{-7})).asInt(), -7);
  EXPECT_EQ(client_.call("echo", Value(int64_t{1} << 40)).asInt(), int64_t{1} << 40);
  EXPECT_EQ(client_.call("echo", Value(1.5)).asDouble(), 1.5);
  EXPECT_EQ(client_.call("echo", Value("text")).asText(), "text");
  const CallOutcome list = client_.call("echo", Value(ValueList{Value(int32_t{1}), Value("two")}));
  EXPECT_EQ(list.listSize(), 2U);
  EXPECT_EQ(list.at(1), Value("two"));
  EXPECT_TRUE(list.at(2).isNull());
  const CallOutcome map = client_.call("echo", {{"width", 1920.0}});
  EXPECT_EQ(map.at("width"), Value(1920.0));
  EXPECT_TRUE(map.at("height").isNull());
}

TEST_F(ChannelClientTest, AnotherTypeGivesTheFallback) {
  const CallOutcome text = client_.call("echo", Value("text"));
  EXPECT_EQ(text.asInt(-5), -5);
  EXPECT_TRUE(text.asBool(true));
  EXPECT_EQ(text.asDouble(2.5), 2.5);
  EXPECT_EQ(text.listSize(), 0U);
  EXPECT_TRUE(text.at("x").isNull());
  EXPECT_EQ(client_.call("fail").asText("none"), "none");
}

TEST_F(ChannelClientTest, EveryKindOfAnswerIsToldApart) {
  EXPECT_EQ(client_.call("echo").kind, CallOutcome::Kind::kSuccess);
  const CallOutcome error = client_.call("fail");
  EXPECT_EQ(error.kind, CallOutcome::Kind::kError);
  EXPECT_EQ(error.code, "INVALID_ARGUMENT");
  EXPECT_EQ(error.message, "arguments must be dictionary");
  EXPECT_TRUE(error.details.isNull());
  EXPECT_EQ(client_.call("unknown").kind, CallOutcome::Kind::kNotImplemented);
  EXPECT_EQ(client_.call("mouseMove", {{"x", int32_t{1}}}).kind, CallOutcome::Kind::kNoReply);
  EXPECT_EQ(ChannelClient(engine_, "other").call("echo").kind, CallOutcome::Kind::kNotImplemented);
  EXPECT_EQ(decodeOutcome({ChannelReply::Kind::kReply, {9, 9}}).kind, CallOutcome::Kind::kBroken);
}

TEST_F(ChannelClientTest, LaterCallsAnswerInOrder) {
  std::vector<int64_t> answers;
  for (int32_t i = 0; i < 3; ++i) {
    client_.callLater("echo", Value(i), [&](const CallOutcome& outcome) { answers.push_back(outcome.asInt(-1)); });
  }
  client_.callLater("drop", {}, [&](const CallOutcome& outcome) {
    EXPECT_EQ(outcome.kind, CallOutcome::Kind::kNoReply);
    answers.push_back(-9);
  });
  EXPECT_TRUE(runLoopUntil([&] { return answers.size() == 4; }, 10s));
  EXPECT_EQ(answers, (std::vector<int64_t>{0, 1, 2, -9}));
}

TEST_F(ChannelClientTest, PostedCallsCarryTheirArguments) {
  client_.post("mouseMove", {{"x", int32_t{3}}, {"y", int32_t{4}}});
  EXPECT_TRUE(runLoopUntil([&] { return !last_arguments_.isNull(); }, 10s));
  EXPECT_EQ(last_arguments_, ChannelClient::map({{"x", int32_t{3}}, {"y", int32_t{4}}}));
}

}  // namespace
}  // namespace mirn
