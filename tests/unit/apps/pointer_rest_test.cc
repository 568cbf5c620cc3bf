#include "apps/common/pointer_rest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/unit/apps/recording_sink.h"

namespace mirn {
namespace {

using std::chrono::milliseconds;

// The thinning as an application meets it: one absolute move in seven goes out, the newest waits for a non-move.
class ThinningSink : public InputSink {
 public:
  explicit ThinningSink(int count) : count_(count) {}
  void keyDown(int /*virtual_key*/) override { ++others; }
  void keyUp(int /*virtual_key*/) override { ++others; }
  void mouseMove(int x, int y) override {
    ++count_;
    if (count_ > 6) {
      count_ = 0;
      sent.emplace_back(x, y);
    }
  }
  void mouseButton(const char* /*type*/, int /*x*/, int /*y*/) override { ++others; }
  void mouseWheel(int /*x*/, int /*y*/, int /*delta*/) override { ++others; }

  int count() const { return count_; }

  std::vector<std::pair<int, int>> sent;
  int others = 0;

 private:
  int count_;
};

TEST(PointerRest, TheRestingPositionIsSentWhereverTheThinningStands) {
  for (int count = 0; count <= 6; ++count) {
    for (int moves = 1; moves <= 20; ++moves) {
      ThinningSink sink(count);
      PointerRest rest(sink);
      PointerRest::Time now{};
      for (int i = 0; i < moves; ++i) {
        rest.move(100 + i, 200 + i, now);
        now += milliseconds(1);
      }
      ASSERT_TRUE(rest.settle(now + PointerRest::kRestAfter));
      ASSERT_FALSE(sink.sent.empty());
      EXPECT_EQ(sink.sent.back(), std::make_pair(100 + moves - 1, 200 + moves - 1)) << count << " " << moves;
      EXPECT_EQ(sink.others, 0) << "no click and no key";
    }
  }
}

TEST(PointerRest, SettlingLeavesTheCountAsItWas) {
  ThinningSink sink(3);
  PointerRest rest(sink);
  rest.move(1, 2, {});
  int count = sink.count();
  rest.settle({}, true);
  EXPECT_EQ(sink.count(), count);
}

TEST(PointerRest, AMovingPointerIsNotSettled) {
  RecordingSink sink;
  PointerRest rest(sink);
  PointerRest::Time now{};
  for (int i = 0; i < 10; ++i) {
    now += milliseconds(10);
    rest.move(i, i, now);
    EXPECT_FALSE(rest.settle(now));
  }
  EXPECT_EQ(sink.events.size(), 10U);
  EXPECT_EQ(*rest.due(), now + PointerRest::kRestAfter);
}

TEST(PointerRest, SettlesOnce) {
  RecordingSink sink;
  PointerRest rest(sink);
  rest.move(5, 6, {});
  EXPECT_TRUE(rest.settle(PointerRest::Time{} + PointerRest::kRestAfter));
  EXPECT_FALSE(rest.settle(PointerRest::Time{} + milliseconds(1000)));
  EXPECT_FALSE(rest.due());
  EXPECT_EQ(sink.events.size(), 8U);
  EXPECT_EQ(std::count(sink.events.begin(), sink.events.end(), "move 5,6"), 8);
}

TEST(PointerRest, AClickSettles) {
  RecordingSink sink;
  PointerRest rest(sink);
  rest.move(5, 6, {});
  rest.settledAt(5, 6);
  EXPECT_FALSE(rest.due());
}

TEST(PointerRest, AfterANewProxyTheRestingPositionIsSentAgain) {
  RecordingSink sink;
  PointerRest rest(sink);
  rest.again({});
  EXPECT_FALSE(rest.due()) << "a pointer that was never put anywhere stays";
  rest.settledAt(7, 8);
  PointerRest::Time now = PointerRest::Time{} + milliseconds(1000);
  rest.again(now);
  ASSERT_EQ(rest.due(), now + PointerRest::kRestAfter);
  EXPECT_TRUE(rest.settle(now + PointerRest::kRestAfter));
  EXPECT_EQ(sink.events, std::vector<std::string>(PointerRest::kMovesToBeSure, "move 7,8"));
}

TEST(PointerRest, StandingStillWhileAMoveWaitsDoesNotPostponeIt) {
  RecordingSink sink;
  PointerRest rest(sink);
  rest.move(5, 6, {});
  rest.move(5, 6, PointerRest::Time{} + milliseconds(20));
  EXPECT_EQ(sink.events.size(), 1U);
  EXPECT_TRUE(rest.settle(PointerRest::Time{} + PointerRest::kRestAfter));
}

}  // namespace
}  // namespace mirn
