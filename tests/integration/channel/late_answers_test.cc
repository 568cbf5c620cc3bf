// A slow device, on a clock on which waiting costs nothing: each exchange waits exactly as long as it may, and after an
// answer that came too late the same command, and then a new connection, works.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "plugin/mirn_host.h"
#include "tests/integration/channel/fault_rows.h"
#include "virtual/virtual_clock.h"

namespace mirn::test {
namespace {

using std::chrono::milliseconds;

// Outcomes that the link reports, of all kinds.
struct Outcomes {
  uint64_t sent = 0;
  uint64_t failed = 0;
  bool operator==(const Outcomes&) const = default;
};

Outcomes outcomes() {
  const HostLinkStatistics link = hostLinkStatistics();
  return {link.mouseSent + link.keyboardSent + link.firmwareSent,
          link.mouseFailed + link.keyboardFailed + link.firmwareFailed};
}

// One command whose exchange may take `limit`; the fault delays this exchange alone.
struct Limit {
  std::string name;
  const char* method;
  Value arguments;
  int device_command;
  int limit;                   // ms
  ReplyMatcher in_time;        // of an answer that takes 1 ms less
  ReplyMatcher late;           // of one that takes more
  int margin = 1;              // ms beyond the limit when late
  int times = 1;               // calls until the exchange is made: moves are thinned
  Outcomes when_in_time = {};  // of queued work
  Outcomes when_late = {};
  int late_wait = 0;  // ms that the late case takes; 0: the limit
};

void PrintTo(const Limit& limit, std::ostream* stream) {
  *stream << limit.name;
}

const Outcomes kOneSent{1, 0};
const Outcomes kOneFailed{0, 1};

constexpr int kChunks = 2;

std::string imagePath() {
  return testing::TempDir() + "late" + std::to_string(getpid());
}

std::vector<Limit> limits() {
  const std::string none = success();
  const std::string no_reply = "no-reply";
  const ReplyMatcher information = testing::StartsWith("000c04");
  return {
      // The information that it asks for next could still take the late greeting for its own answer, for 50 ms: hence
      // the margin.
      {"Greeting", "initKmProxy", {}, 1, 2000, success(true), success(false), 51, 1, {}, {}, 2050},
      {"FirstInformation", "initKmProxy", {}, 9, 50, success(true), success(false)},
      {"Information", "getMirnDevInfo", {}, 9, 50, information, success(ValueList{})},
      {"Name", "setMirnDevInfo", ValueMap{{"name", "n"}}, 10, 500, success(0), success(0)},
      {"Led", "setLedStatus", ValueMap{{"ledStatus", 1}}, 5, 500, none, none},
      {"KeyDown", "keyDown", ValueMap{{"key", 16}}, 3, 200, none, none, 1, 1, kOneSent, kOneFailed},
      {"KeyUp", "keyUp", ValueMap{}, 3, 200, none, none, 1, 1, kOneSent, kOneFailed},
      {"Move", "mouseMove", ValueMap{{"x", 1}, {"y", 1}}, 2, 50, no_reply, no_reply, 1, 7, kOneSent, kOneFailed},
      {"Button", "mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}}, 2, 50, no_reply, no_reply, 1, 1,
       kOneSent, kOneFailed},
      {"Wheel", "mouseWheel", ValueMap{{"x", 1}, {"y", 1}, {"delta", 1}}, 2, 50, no_reply, no_reply, 1, 1, kOneSent,
       kOneFailed},
      // The second chunk takes the late answer of the first for its own.
      {"Upgrade", "reqUpgradeFirmware", ValueMap{{"path", imagePath()}}, 7, 10000, success(1), success(1), 1, 1,
       Outcomes{kChunks, 0}, Outcomes{1, 1}, 10001},
  };
}

class LateAnswer : public testing::TestWithParam<Limit> {
 protected:
  LateAnswer() { std::ofstream(imagePath()) << std::string(kChunks * 1024, 'x'); }
  ~LateAnswer() override { std::filesystem::remove(imagePath()); }

  // Calls the command until its exchange was made, waits for its outcome, and compares reply, outcome and time.
  void expect(const ReplyMatcher& reply, const Outcomes& outcome, milliseconds time) {
    const Outcomes before = outcomes();
    const auto begin = clock_.get().now();
    for (int i = 0; i < GetParam().times; ++i) {
      EXPECT_TRUE(answers(world_, GetParam().method, GetParam().arguments, reply));
    }
    const Outcomes all{before.sent + outcome.sent, before.failed + outcome.failed};
    EXPECT_TRUE(world_.eventually([&] {
      const Outcomes now = outcomes();
      return now.sent + now.failed >= all.sent + all.failed;
    }));
    const auto took = std::chrono::duration_cast<milliseconds>(clock_.get().now() - begin);
    if (!connects()) {
      EXPECT_EQ(took, time);
      EXPECT_EQ(outcomes(), all) << "failed: " << outcomes().failed - before.failed;
    } else {
      // A connection that goes may get a release of its keys out, and its answer stands behind the late one.
      EXPECT_GE(took, time);
      EXPECT_LE(took, time + milliseconds(1));
    }
  }

  static bool connects() { return std::string_view(GetParam().method) == "initKmProxy"; }

  // Only the first exchange with the row's command is delayed.
  void delay(int time) {
    world_.mirn().setFaultPlan(
        planOf("delay=" + std::to_string(time) + "@1/c" + std::to_string(GetParam().device_command)));
  }

  ScopedVirtualClock clock_;
  ChannelWorld world_;
};

TEST_P(LateAnswer, IsWaitedForUpToTheLimitAndNoLonger) {
  const Limit& row = GetParam();
  ASSERT_EQ(world_.reply("initKmProxy"), success(true));
  delay(row.limit - 1);
  expect(row.in_time, row.when_in_time, milliseconds(row.limit - 1));

  delay(row.limit + row.margin);
  expect(row.late, row.when_late, milliseconds(row.late_wait != 0 ? row.late_wait : row.limit));

  // The same command again works: it finds the late answer on the line and takes it for its own, which is meant. So
  // does a new connection: its greeting takes whatever is still to come, and any answer will do.
  const milliseconds rest(connects() || row.late_wait != 0 ? 0 : row.margin);
  expect(row.in_time, row.when_in_time, rest);
  expectANewConnectionWorks(world_);
}

INSTANTIATE_TEST_SUITE_P(Exchanges, LateAnswer, testing::ValuesIn(limits()),
                         [](const auto& each) { return each.param.name; });

// Every command, whatever it exchanges.
class EveryAnswerIsLate : public testing::TestWithParam<int> {
 protected:
  // Below the shortest limit, or above the longest.
  static bool inTime() { return GetParam() < 50; }
};

TEST_P(EveryAnswerIsLate, EveryCommandAnswersAndANewConnectionWorks) {
  ScopedVirtualClock clock;
  ChannelWorld world;
  const std::string image = imagePath();
  std::ofstream(image) << std::string(5000, 'x');
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  for (const FaultRow& row : mainFaultRows(world, image)) {
    SCOPED_TRACE(row.method);
    if (row.session) {
      ASSERT_EQ(world.reply("open"), success(true));
    }
    world.mirn().setFaultPlan(planOf("delay=" + std::to_string(GetParam()) + "@*"));
    for (int again = 0; again < 2; ++again) {
      EXPECT_TRUE(answers(world, row.method, row.arguments, inTime() ? row.answered : row.silent));
    }
    EXPECT_EQ(world.reply("release"), success());
    world.mirn().setFaultPlan({});
    // The device has got through all that it was asked.
    clock.get().sleepFor(std::chrono::minutes(5));
    expectANewConnectionWorks(world);
  }
  std::filesystem::remove(image);
}

INSTANTIATE_TEST_SUITE_P(Delays, EveryAnswerIsLate, testing::Values(49, 10100),
                         [](const auto& each) { return std::to_string(each.param) + "ms"; });

// On the real clock: the call itself waits.
TEST(LateAnswers, AreWaitedForWithinTheirTime) {
  ChannelWorld world;
  ASSERT_EQ(world.reply("initKmProxy"), success(true));
  world.mirn().setFaultPlan(planOf("delay=150@*"));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(world.reply("setLedStatus", ValueMap{{"ledStatus", 9}}), success());
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(150));
  EXPECT_EQ(world.mirn().led().status, 9);
  EXPECT_EQ(hostLedStatus(), 9);
}

}  // namespace
}  // namespace mirn::test
