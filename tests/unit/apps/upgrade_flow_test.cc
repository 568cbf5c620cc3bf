#include "apps/common/upgrade_flow.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirn {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

class UpgradeFlowTest : public testing::Test {
 protected:
  static UpgradeFile file() {
    UpgradeFile file;
    file.ok = true;
    file.image_bytes = 9 * 1024 + 1;
    file.chunks = chunksOf(file.image_bytes);
    return file;
  }
  // Counters never start at zero: this is the second upgrade of the process.
  UpgradeFlowTest() : flow_(file(), "1.0.0", {true, 100, 7}) { flow_.start(1, now_); }

  void update(uint64_t answered, bool present = true, uint64_t failed = 0) {
    flow_.update({present, 100 + answered, 7 + failed}, now_);
  }

  UpgradeFlow::Time now_{};
  UpgradeFlow flow_;
};

TEST(UpgradePath, HexIsDecidedByTheFirstOccurrence) {
  EXPECT_TRUE(isHexPath("a.hex"));
  EXPECT_TRUE(isHexPath("a.HEX"));
  EXPECT_FALSE(isHexPath("a.Hex"));
  EXPECT_FALSE(isHexPath("a.hex.hex"));
  EXPECT_FALSE(isHexPath("a.hex/firmware"));
  EXPECT_FALSE(isHexPath("a.bin"));
}

TEST(UpgradePath, ChunksRoundUp) {
  EXPECT_EQ(chunksOf(0), 0U);
  EXPECT_EQ(chunksOf(1), 1U);
  EXPECT_EQ(chunksOf(1024), 1U);
  EXPECT_EQ(chunksOf(1025), 2U);
}

TEST_F(UpgradeFlowTest, ShowsChunkPercentageRateAndRemainingTime) {
  now_ += seconds(2);
  update(5);
  UpgradeStatus status = flow_.status(now_);
  EXPECT_EQ(status.chunk, 5U);
  EXPECT_EQ(status.total, 10U);
  EXPECT_DOUBLE_EQ(status.percent, 50);
  EXPECT_DOUBLE_EQ(status.bytes_per_second, 2560);
  EXPECT_EQ(*status.remaining, seconds(2));
}

TEST_F(UpgradeFlowTest, NothingIsPredictedBeforeTheFirstChunk) {
  UpgradeStatus status = flow_.status(now_);
  EXPECT_EQ(status.percent, 0);
  EXPECT_FALSE(status.remaining);
}

TEST_F(UpgradeFlowTest, AllChunksAloneAreNoSuccess) {
  update(10);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  EXPECT_EQ(flow_.result(), UpgradeResult::kNone);
  EXPECT_TRUE(flow_.wantsHandshake(now_));
}

TEST_F(UpgradeFlowTest, AnotherVersionInTheHandshakeIsTheSuccess) {
  update(10);
  flow_.handshake("1.0.1", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
  EXPECT_EQ(flow_.resultText(), "The device now runs version 1.0.1 (before: 1.0.0).");
}

TEST_F(UpgradeFlowTest, TheOldVersionIsSaidAsSuch) {
  update(10);
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kSameVersion);
}

TEST_F(UpgradeFlowTest, HandshakesAreRepeatedUntilTheDeviceIsBack) {
  update(10);
  flow_.handshake(std::nullopt, now_);
  EXPECT_FALSE(flow_.wantsHandshake(now_));
  now_ += UpgradeFlow::kHandshakeEvery;
  EXPECT_TRUE(flow_.wantsHandshake(now_));
  flow_.handshake("", now_);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling) << "an empty version is no handshake";
  now_ += UpgradeFlow::kHandshakePatience + milliseconds(1);
  update(10);
  EXPECT_EQ(flow_.result(), UpgradeResult::kNotAnswering);
  EXPECT_THAT(flow_.resultText(), HasSubstr("Everything was sent, but"));
}

TEST_F(UpgradeFlowTest, ARefusedCommandEndsIt) {
  UpgradeFlow flow(file(), "1.0.0", {});
  flow.start(-4, now_);
  EXPECT_EQ(flow.result(), UpgradeResult::kNotStarted);
}

TEST_F(UpgradeFlowTest, UnpluggingInTheMiddleEndsClearlyAfterReplugging) {
  update(4);
  // The chunks that were queued fail at once, and the last one counts as taken: no word of success.
  update(10, false, 5);
  EXPECT_EQ(flow_.state(), UpgradeState::kUnplugged);
  EXPECT_FALSE(flow_.wantsHandshake(now_));
  now_ += seconds(20);
  update(10, true, 5);
  EXPECT_TRUE(flow_.wantsHandshake(now_));
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUnplugged);
  EXPECT_THAT(flow_.resultText(), HasSubstr("after 4 of 10 chunks"));
  EXPECT_THAT(flow_.resultText(), HasSubstr("back with version 1.0.0"));
}

TEST_F(UpgradeFlowTest, UnpluggingThatIsNoticedAfterTheLastChunkFailedIsStillOne) {
  update(4);
  update(10, true, 5);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  flow_.handshake(std::nullopt, now_);
  update(10, false, 5);
  EXPECT_EQ(flow_.state(), UpgradeState::kUnplugged);
  now_ += UpgradeFlow::kHandshakePatience + seconds(1);
  update(10, false, 5);
  EXPECT_EQ(flow_.state(), UpgradeState::kUnplugged) << "it waits for the hand that plugs it in again";
  update(10, true, 5);
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUnplugged);
  EXPECT_THAT(flow_.resultText(), HasSubstr("after 4 of 10 chunks"));
}

TEST_F(UpgradeFlowTest, ADeviceThatTookEverythingMayLeaveTheBusAndComeBack) {
  update(10);
  update(10, false);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  EXPECT_FALSE(flow_.wantsHandshake(now_));
  update(10, true);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
}

TEST_F(UpgradeFlowTest, ADeviceThatStopsTakingChunksIsNotSaidToHaveThemAll) {
  update(10, true, 5);
  now_ += UpgradeFlow::kHandshakePatience + seconds(1);
  update(10, true, 5);
  EXPECT_EQ(flow_.result(), UpgradeResult::kNotAnswering);
  EXPECT_THAT(flow_.resultText(), HasSubstr("took 4 of 10 chunks, but"));
}

TEST_F(UpgradeFlowTest, ANewVersionAfterReplugCountsAsUpdated) {
  update(10, false);
  update(10, true);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
}

TEST_F(UpgradeFlowTest, WaitingForTheReplugHasAnEnd) {
  update(4, false);
  now_ += UpgradeFlow::kReplugPatience + seconds(1);
  update(4, false);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUnplugged);
  EXPECT_THAT(flow_.resultText(), HasSubstr("doesn't answer"));
}

TEST_F(UpgradeFlowTest, GivingUpEndsTheWait) {
  flow_.giveUp();
  EXPECT_EQ(flow_.state(), UpgradeState::kSending);
  update(4, false);
  flow_.giveUp();
  EXPECT_EQ(flow_.result(), UpgradeResult::kUnplugged);
}

TEST_F(UpgradeFlowTest, SilenceWhileSendingEndsInAHandshakeAttempt) {
  update(3);
  now_ += UpgradeFlow::kChunkPatience + seconds(1);
  update(3);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
}

}  // namespace
}  // namespace mirn
