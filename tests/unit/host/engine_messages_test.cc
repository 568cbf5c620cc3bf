#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "host/engine.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

using std::chrono_literals::operator""s;
using Bytes = std::vector<uint8_t>;

// A handler that does what the test says.
class Handler final : public BinaryMessageHandler {
 public:
  using Function = std::function<void(std::span<const uint8_t>, BinaryReply)>;
  explicit Handler(Function function) : function_(std::move(function)) {}
  void onMessage(std::span<const uint8_t> message, BinaryReply reply) override { function_(message, std::move(reply)); }

 private:
  Function function_;
};

std::shared_ptr<Handler> echo() {
  return std::make_shared<Handler>([](std::span<const uint8_t> message, BinaryReply reply) { reply.answer(message); });
}

TEST(EngineMessages, AnAnswerComesBack) {
  Engine engine;
  engine.messenger().setMessageHandler("a", echo());
  const Bytes message{1, 2, 3};
  const ChannelReply reply = engine.deliver("a", message);
  EXPECT_EQ(reply.kind, ChannelReply::Kind::kReply);
  EXPECT_EQ(reply.bytes, message);
}

TEST(EngineMessages, NoHandlerAndTheEmptyAnswerAreNotImplemented) {
  Engine engine;
  EXPECT_EQ(engine.deliver("a", {}).kind, ChannelReply::Kind::kNotImplemented);
  engine.messenger().setMessageHandler("a", echo());
  EXPECT_EQ(engine.deliver("a", {}).kind, ChannelReply::Kind::kNotImplemented);
}

TEST(EngineMessages, ADroppedAnswerIsNoReplyAndAHeldOneIsPending) {
  Engine engine;
  BinaryReply held;
  engine.messenger().setMessageHandler("drop", std::make_shared<Handler>([](auto, BinaryReply) {}));
  engine.messenger().setMessageHandler(
      "hold", std::make_shared<Handler>([&held](auto, BinaryReply reply) { held = std::move(reply); }));
  EXPECT_EQ(engine.deliver("drop", {}).kind, ChannelReply::Kind::kNoReply);
  EXPECT_EQ(engine.deliver("hold", {}).kind, ChannelReply::Kind::kPending);
  EXPECT_TRUE(held.answer(Bytes{1}));
  EXPECT_FALSE(held.answer(Bytes{1})) << "at most once";
}

TEST(EngineMessages, PostedMessagesArriveInOrderAndNeverInsideEachOther) {
  Engine engine;
  Bytes order;
  bool inside = false;
  engine.messenger().setMessageHandler(
      "a", std::make_shared<Handler>([&](std::span<const uint8_t> message, BinaryReply reply) {
        EXPECT_FALSE(std::exchange(inside, true));
        order.push_back(message[0]);
        if (message[0] == 1) {
          engine.send("a", {9}, {});  // from inside a handler: comes after what was sent before
        }
        reply.answer(message);
        inside = false;
      }));
  int replies = 0;
  for (uint8_t i = 1; i <= 5; ++i) {
    engine.send("a", {i}, [&replies, i](const ChannelReply& reply) {
      EXPECT_EQ(reply.bytes, Bytes{i});
      ++replies;
    });
  }
  EXPECT_TRUE(order.empty()) << "nothing runs before the loop does";
  EXPECT_TRUE(runLoopUntil([&] { return order.size() == 6 && replies == 5; }, 10s));
  EXPECT_EQ(order, (Bytes{1, 2, 3, 4, 5, 9}));
}

TEST(EngineMessages, AHandlerThatThrowsHasNotAnswered) {
  Engine engine;
  engine.messenger().setMessageHandler(
      "exception", std::make_shared<Handler>([](auto, BinaryReply) { throw std::runtime_error("made to fail"); }));
  engine.messenger().setMessageHandler("number", std::make_shared<Handler>([](auto, BinaryReply) { throw 5; }));
  engine.messenger().setMessageHandler("late", std::make_shared<Handler>([](auto, BinaryReply reply) {
                                         reply.answer(Bytes{1});
                                         throw 5;
                                       }));
  testing::internal::CaptureStderr();
  EXPECT_EQ(engine.deliver("exception", {}).kind, ChannelReply::Kind::kNoReply);
  EXPECT_EQ(engine.deliver("number", {}).kind, ChannelReply::Kind::kNoReply) << "and the handler counts as over";
  EXPECT_EQ(engine.deliver("late", {}).bytes, Bytes{1}) << "what was answered was answered";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "host: the handler of \"exception\" failed: made to fail\n"
            "host: the handler of \"number\" failed: not a standard exception\n"
            "host: the handler of \"late\" failed: not a standard exception\n");
}

TEST(EngineMessages, DeliveringFromInsideAHandlerIsRefused) {
  Engine engine;
  ChannelReply::Kind inner = ChannelReply::Kind::kReply;
  engine.messenger().setMessageHandler("a", std::make_shared<Handler>([&](auto, BinaryReply reply) {
                                         inner = engine.deliver("a", Bytes{2}).kind;
                                         reply.answer(Bytes{1});
                                       }));
  EXPECT_EQ(engine.deliver("a", Bytes{1}).kind, ChannelReply::Kind::kReply);
  EXPECT_EQ(inner, ChannelReply::Kind::kNotImplemented);
}

TEST(EngineMessages, TheLastHandlerServesAndOnlyItsOwnerTakesItAway) {
  Engine engine;
  const auto first = echo();
  const auto second = std::make_shared<Handler>([](auto, BinaryReply reply) { reply.answer(Bytes{2}); });
  engine.messenger().setMessageHandler("a", first);
  engine.messenger().setMessageHandler("a", second);
  engine.messenger().clearMessageHandler("a", first.get());
  EXPECT_EQ(engine.deliver("a", Bytes{7}).bytes, Bytes{2});
  engine.messenger().clearMessageHandler("a", second.get());
  EXPECT_EQ(engine.deliver("a", Bytes{7}).kind, ChannelReply::Kind::kNotImplemented);
}

TEST(EngineMessages, AHandlerThatReplacesItselfLivesUntilItReturns) {
  Engine engine;
  auto handler = std::make_shared<Handler>([&](auto, BinaryReply reply) {
    engine.messenger().setMessageHandler("a", echo());
    reply.answer(Bytes{5});
  });
  const std::weak_ptr<Handler> watch = handler;
  engine.messenger().setMessageHandler("a", std::move(handler));
  EXPECT_EQ(engine.deliver("a", Bytes{1}).bytes, Bytes{5});
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(engine.deliver("a", Bytes{1}).bytes, Bytes{1});
}

TEST(EngineMessages, NativeCodeReachesTheApplication) {
  Engine engine;
  Bytes got;
  Bytes answer;
  bool answered = false;
  engine.setApplicationHandler("events", [&](std::span<const uint8_t> message, const auto& reply) {
    got.assign(message.begin(), message.end());
    reply(Bytes{8});
  });
  engine.messenger().send("events", Bytes{1, 2}, [&](std::span<const uint8_t> reply) {
    answer.assign(reply.begin(), reply.end());
    answered = true;
  });
  engine.messenger().send("events", Bytes{3}, {});
  EXPECT_TRUE(runLoopUntil([&] { return answered && got == Bytes{3}; }, 10s));
  EXPECT_EQ(answer, Bytes{8});
  engine.setApplicationHandler("events", {});
  answered = false;
  engine.messenger().send("events", Bytes{1}, [&](std::span<const uint8_t> reply) { answered = reply.empty(); });
  EXPECT_TRUE(runLoopUntil([&] { return answered; }, 10s)) << "nobody listens: the empty answer";
}

TEST(EngineMessages, ADestroyedEngineAnswersNothingAnyMore) {
  int replies = 0;
  BinaryReply held;
  {
    Engine engine;
    engine.messenger().setMessageHandler("a", echo());
    engine.messenger().setMessageHandler(
        "hold", std::make_shared<Handler>([&](auto, BinaryReply reply) { held = std::move(reply); }));
    engine.send("hold", {1}, [&](const ChannelReply&) { ++replies; });
    drainLoop();
    engine.send("a", {1}, [&](const ChannelReply&) { ++replies; });
  }
  EXPECT_TRUE(held.answer(Bytes{1}));
  drainLoop();
  EXPECT_EQ(replies, 0);
}

TEST(EngineMessages, AnyThreadMaySend) {
  Engine engine;
  int replies = 0;
  engine.messenger().setMessageHandler("a", echo());
  std::thread other([&] {
    for (int i = 0; i < 100; ++i) {
      engine.send("a", {1}, [&](const ChannelReply&) { ++replies; });
    }
  });
  EXPECT_TRUE(runLoopUntil([&] { return replies == 100; }, 10s));
  other.join();
}

}  // namespace
}  // namespace mirn
