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

TEST_F(UpgradeFlowTest, TheOldVersionCountsWhenItIsStillThereLater) {
  update(10);
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling) << "it may not have restarted yet";
  now_ += UpgradeFlow::kRestartPatience - milliseconds(1);
  update(10);
  EXPECT_FALSE(flow_.wantsHandshake(now_)) << "left alone meanwhile";
  now_ += milliseconds(1);
  update(10);
  EXPECT_TRUE(flow_.wantsHandshake(now_));
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kSameVersion);
  EXPECT_THAT(flow_.resultText(), HasSubstr("answers with version 1.0.0, the one it had before"));
}

TEST_F(UpgradeFlowTest, ADeviceThatAnswersOnceMoreBeforeItRestartsIsJudgedAfterwards) {
  update(10);
  flow_.handshake("1.0.0", now_);
  now_ += seconds(3);
  update(10, false);
  EXPECT_FALSE(flow_.wantsHandshake(now_));
  now_ += UpgradeFlow::kHandshakePatience;
  update(10, true);
  EXPECT_TRUE(flow_.wantsHandshake(now_)) << "it has its patience anew";
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
}

TEST_F(UpgradeFlowTest, ARestartInPlaceIsSeenByTheSecondLook) {
  update(10);
  flow_.handshake("1.0.0", now_);
  now_ += UpgradeFlow::kRestartPatience;
  update(10);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
}

TEST_F(UpgradeFlowTest, TheOldVersionAfterLeavingIsFinalAtOnce) {
  update(10);
  flow_.handshake("1.0.0", now_);
  now_ += seconds(1);
  update(10, false);
  now_ += seconds(1);
  update(10, true);
  ASSERT_TRUE(flow_.wantsHandshake(now_));
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kSameVersion);
}

TEST_F(UpgradeFlowTest, ADeviceThatFallsSilentAfterItsOldVersionIsNotAnswering) {
  update(10);
  flow_.handshake("1.0.0", now_);
  now_ += UpgradeFlow::kHandshakePatience + seconds(1);
  update(10);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling) << "late, but it was not asked again yet";
  ASSERT_TRUE(flow_.wantsHandshake(now_));
  flow_.handshake(std::nullopt, now_);
  update(10);
  EXPECT_EQ(flow_.result(), UpgradeResult::kNotAnswering);
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
  EXPECT_EQ(flow.resultText(), "The upgrade could not be started; the device keeps the firmware it has.");
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

TEST_F(UpgradeFlowTest, OneSilentChunkBreaksItOff) {
  now_ += seconds(1);
  update(4);
  now_ += seconds(9);
  update(4);
  now_ += seconds(1);
  // Answered late, and the ones behind it were taken at once.
  update(7, true, 1);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  EXPECT_TRUE(flow_.wantsHandshake(now_)) << "the new proxy drops the other three";
  EXPECT_FALSE(flow_.status(now_).all_taken);
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kRefused);
  EXPECT_EQ(flow_.resultText(),
            "The device refused chunk 5 of 10 or didn't answer it (1 chunk failed), so the upgrade was broken off. It "
            "answers with version 1.0.0. Start it again.");
}

TEST_F(UpgradeFlowTest, ChunksThatAreRefusedAtOnceAreCountedFromTheLastOneTaken) {
  update(2);
  now_ += milliseconds(20);
  update(9, true, 3);
  flow_.handshake("1.0.0", now_);
  EXPECT_THAT(flow_.resultText(), HasSubstr("refused chunk 7 of 10"));
}

TEST_F(UpgradeFlowTest, NoVersionMakesASuccessOfAFailedChunk) {
  update(10, true, 1);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kRefused);
  EXPECT_EQ(flow_.versionAfter(), "2.0.0");
  EXPECT_STREQ(upgradeResultWord(flow_.result()), "refused");
  EXPECT_EQ(flow_.status(now_).failed, 1U);
}

TEST_F(UpgradeFlowTest, AnotherVersionBehindAnUnpluggingIsNoSuccessEither) {
  update(4, false);
  update(4, true);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUnplugged);
  EXPECT_EQ(flow_.resultText(),
            "The device was unplugged after 4 of 10 chunks; it is back with version 2.0.0. Start it again.");
}

TEST_F(UpgradeFlowTest, ALastAnswerThatIsCountedLateMakesARestartOfAnUnplugging) {
  update(9, false);
  EXPECT_EQ(flow_.state(), UpgradeState::kUnplugged);
  update(10, false);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  EXPECT_FALSE(flow_.wasUnplugged());
  update(10, true);
  flow_.handshake("2.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kUpdated);
}

TEST_F(UpgradeFlowTest, ADeviceThatTookAllAndIsGoneInTheSameMomentIsRestarting) {
  update(10, false);
  EXPECT_EQ(flow_.state(), UpgradeState::kSettling);
  EXPECT_TRUE(flow_.status(now_).all_taken);
  now_ += UpgradeFlow::kHandshakePatience + seconds(1);
  update(10, false);
  EXPECT_EQ(flow_.result(), UpgradeResult::kNotAnswering);
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

TEST_F(UpgradeFlowTest, ThePatienceForTheReplugIsTheOwners) {
  for (seconds patience : {seconds(0), seconds(1), seconds(3600)}) {
    UpgradeFlow flow(file(), "1.0.0", {}, patience);
    flow.start(1, now_);
    flow.update({false, 4, 0}, now_);
    flow.update({false, 4, 0}, now_ + patience);
    EXPECT_EQ(flow.state(), UpgradeState::kUnplugged) << patience.count();
    flow.update({false, 4, 0}, now_ + patience + milliseconds(1));
    EXPECT_EQ(flow.result(), UpgradeResult::kUnplugged) << patience.count();
  }
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
  flow_.handshake("1.0.0", now_);
  EXPECT_EQ(flow_.result(), UpgradeResult::kRefused);
  EXPECT_THAT(flow_.resultText(), HasSubstr("took 3 of 10 chunks and no more, so"));
}

}  // namespace
}  // namespace mirn
