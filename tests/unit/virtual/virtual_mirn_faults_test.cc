#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/virtual/mirn_driver.h"
#include "virtual/virtual_mirn.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using Bytes = MirnDriver::Bytes;
using namespace std::chrono_literals;

class VirtualMirnFaults : public ::testing::Test {
 protected:
  VirtualMirnFaults() : mirn_({.latency = 1ms, .jitter = 0ms, .warm_up_answers = 0}), host_(mirn_) {}

  std::optional<Bytes> key() { return host_.ask(3, {0, 4, 0, 0, 0, 0, 0}); }

  VirtualMirn mirn_;
  MirnDriver host_;
};

TEST_F(VirtualMirnFaults, Drop) {
  host_.faults("drop@1");
  EXPECT_FALSE(key());
  EXPECT_EQ(mirn_.input().keys[0], 4);
  EXPECT_TRUE(key());
  EXPECT_EQ(mirn_.counters().faults, 1U);
}

TEST_F(VirtualMirnFaults, Lose) {
  host_.faults("lose@1");
  EXPECT_FALSE(key());
  EXPECT_EQ(mirn_.receivedCount(), 0U);
  EXPECT_TRUE(key());
}

// A frame of several reports, as a bus brings it.
class VirtualMirnPieces : public VirtualMirnFaults {
 protected:
  std::vector<VirtualWriteResult> writeInPieces(const Bytes& frame) {
    std::vector<VirtualWriteResult> results;
    for (size_t at = 0; at < frame.size(); at += 64) {
      results.push_back(host_.write({frame.begin() + static_cast<std::ptrdiff_t>(at),
                                     frame.begin() + static_cast<std::ptrdiff_t>(std::min(at + 64, frame.size()))}));
    }
    return results;
  }

  const Bytes chunk_ = MirnDriver::frame(7, MirnDriver::chunk(0, 2));
};

TEST_F(VirtualMirnPieces, ALostFrameIsOneExchange) {
  host_.faults("lose@1, refuse=9@2");
  writeInPieces(chunk_);
  EXPECT_EQ(mirn_.counters().writes, 1U);
  EXPECT_EQ(mirn_.counters().faults, 1U);
  EXPECT_EQ(mirn_.counters().stray_bytes, 0U);
  EXPECT_EQ(mirn_.receivedCount(), 0U);
  EXPECT_THAT(key(), Optional(ElementsAre(9)));
}

TEST_F(VirtualMirnPieces, AFrameWhoseWriteFailsIsOneExchange) {
  host_.faults("write-error@1, refuse=9@2");
  EXPECT_THAT(writeInPieces(chunk_), ::testing::Each(VirtualWriteResult::kError));
  EXPECT_EQ(mirn_.counters().writes, 1U);
  EXPECT_THAT(key(), Optional(ElementsAre(9)));
}

TEST_F(VirtualMirnPieces, TheNextHeadEndsALostFrame) {
  host_.faults("lose@1");
  host_.write({chunk_.begin(), chunk_.begin() + 64});
  EXPECT_TRUE(key());
  EXPECT_EQ(mirn_.counters().writes, 2U);
}

// Its bytes may look like a frame's head.
TEST_F(VirtualMirnPieces, ALostRawReportBeginsNothing) {
  host_.faults("lose@1");
  host_.write({0x01, 0, 0, 0xAA, 0, 0xAA, 0});
  host_.write({0x01, 1, 0, 0, 0, 0, 0});
  EXPECT_EQ(mirn_.counters().writes, 2U);
  EXPECT_EQ(mirn_.input().buttons, 1);
}

TEST_F(VirtualMirnPieces, ALostFrameIsForgottenWithThePlugging) {
  host_.faults("lose@1");
  host_.write({chunk_.begin(), chunk_.begin() + 64});
  mirn_.unplug();
  mirn_.plug();
  host_.write({0x01, 1, 0, 0, 0, 0, 0});
  EXPECT_EQ(mirn_.input().buttons, 1);
}

TEST_F(VirtualMirnPieces, TheDeviceThatLeavesAfterALostFrameStaysForAllOfIt) {
  host_.faults("lose@1 unplug-after@1");
  std::vector<VirtualWriteResult> expected(17, VirtualWriteResult::kAccepted);
  EXPECT_EQ(writeInPieces(chunk_), expected);
  EXPECT_FALSE(mirn_.plugged());
}

TEST_F(VirtualMirnFaults, Delay) {
  host_.faults("delay=80@1");
  key();
  EXPECT_EQ(host_.reports.at(0).due - host_.now, 81ms);
  key();
  EXPECT_EQ(host_.reports.at(1).due - host_.now, 81ms) << "the next answer waits behind it";
}

TEST_F(VirtualMirnFaults, Corrupt) {
  host_.faults("corrupt@1");
  EXPECT_FALSE(key());
  EXPECT_EQ(host_.parser.counters().bad_frames, 1U);
  EXPECT_TRUE(key());
}

TEST_F(VirtualMirnFaults, Truncate) {
  host_.faults("truncate=3@1 truncate=500@2");
  EXPECT_FALSE(key());
  EXPECT_EQ(host_.reports.at(0).bytes[2], 0);
  EXPECT_EQ(host_.reports.at(0).bytes[3], 0);
  EXPECT_TRUE(key());
}

TEST_F(VirtualMirnFaults, SplitEndsTheFirstReportWithTheFrameBegun) {
  for (int first = 0; first <= 63; ++first) {
    host_.faults("split=" + std::to_string(first) + "@1");
    host_.reports.clear();
    ASSERT_THAT(key(), Optional(ElementsAre(0))) << first;
    if (first >= 1 && first <= 9) {
      ASSERT_EQ(host_.reports.size(), 2U) << first;
      EXPECT_EQ(host_.reports[0].bytes[64 - static_cast<size_t>(first)], 0xAA);
      EXPECT_NE(host_.reports[1].bytes[0], 0xAA);
    }
  }
}

TEST_F(VirtualMirnFaults, SplitBehindGarbage) {
  host_.faults("split=4@1 garbage=7@1");
  EXPECT_TRUE(key());
  ASSERT_EQ(host_.reports.size(), 2U);
  EXPECT_EQ(host_.reports[0].bytes[60], 0xAA);
}

TEST_F(VirtualMirnFaults, Duplicate) {
  host_.faults("duplicate@1");
  host_.write(MirnDriver::frame(9, {}));
  EXPECT_EQ(host_.takeAnswers().size(), 2U);
}

TEST_F(VirtualMirnFaults, Refuse) {
  host_.faults("refuse@1, refuse=9@2, refuse@3/c12");
  EXPECT_THAT(key(), Optional(ElementsAre(1)));
  EXPECT_THAT(key(), Optional(ElementsAre(9)));
  EXPECT_EQ(mirn_.input(), VirtualInputState{});
  EXPECT_TRUE(mirn_.received().at(0).refused);
  EXPECT_THAT(key(), Optional(ElementsAre(0)));
  EXPECT_FALSE(mirn_.received().at(2).refused);
}

TEST_F(VirtualMirnFaults, ARefusedRawReportChangesNothing) {
  host_.faults("refuse@1/c12");
  host_.write({0x01, 1, 0, 1, 0, 1, 0});
  EXPECT_EQ(mirn_.input(), VirtualInputState{});
  host_.write({0x01, 1, 0, 1, 0, 1, 0});
  EXPECT_EQ(mirn_.input().buttons, 1);
}

TEST_F(VirtualMirnFaults, GarbageStandsInFrontAndIsNoFrame) {
  host_.faults("garbage=20@1, garbage=100@2, garbage=xAA01@3");
  EXPECT_TRUE(key());
  EXPECT_EQ(host_.reports.at(0).bytes[20], 0xAA);
  EXPECT_EQ(host_.parser.counters().bad_frames, 0U);
  EXPECT_TRUE(key());
  EXPECT_EQ(host_.reports.size(), 3U);
  EXPECT_TRUE(key());
  EXPECT_EQ(host_.parser.counters().bad_frames, 1U);
}

TEST_F(VirtualMirnFaults, Stall) {
  host_.faults("stall=500@1");
  key();
  EXPECT_EQ(host_.reports.at(0).due - host_.now, 501ms);
  host_.now += 100ms;
  key();
  EXPECT_EQ(host_.reports.at(1).due - host_.now, 401ms);
  host_.now += 1s;
  key();
  EXPECT_EQ(host_.reports.at(2).due - host_.now, 1ms);
}

TEST_F(VirtualMirnFaults, WriteError) {
  host_.faults("write-error@1");
  EXPECT_EQ(host_.write(MirnDriver::frame(9, {})), VirtualWriteResult::kError);
  EXPECT_EQ(mirn_.receivedCount(), 0U);
  EXPECT_EQ(host_.write(MirnDriver::frame(9, {})), VirtualWriteResult::kAccepted);
}

TEST_F(VirtualMirnFaults, ReadError) {
  host_.faults("read-error@1");
  EXPECT_FALSE(key());
  ASSERT_EQ(host_.reports.size(), 1U);
  EXPECT_TRUE(host_.reports[0].read_error);
}

TEST_F(VirtualMirnFaults, Unplug) {
  host_.faults("unplug@2");
  EXPECT_TRUE(key());
  EXPECT_EQ(host_.write(MirnDriver::frame(3, {0, 9, 0, 0, 0, 0, 0})), VirtualWriteResult::kGone);
  EXPECT_FALSE(mirn_.plugged());
  EXPECT_EQ(mirn_.receivedCount(), 1U);
}

TEST_F(VirtualMirnFaults, APluggingForgetsWhatKeptTheDeviceBusy) {
  for (const char* const fault : {"stall=500@1", "delay=500@1"}) {
    host_.faults(fault);
    key();
    mirn_.unplug();
    mirn_.plug();
    host_.faults("");
    host_.reports.clear();
    key();
    EXPECT_EQ(host_.reports.at(0).due - host_.now, 1ms) << fault;
  }
}

TEST_F(VirtualMirnFaults, UnplugAfterTheRequest) {
  host_.faults("unplug-after@1");
  EXPECT_EQ(host_.write(MirnDriver::frame(9, {})), VirtualWriteResult::kAccepted);
  EXPECT_FALSE(mirn_.plugged());
  EXPECT_EQ(mirn_.receivedCount(), 1U);
  EXPECT_TRUE(host_.takeAnswers().empty());
}

TEST_F(VirtualMirnFaults, UnplugAfterAFrameThatCameInPieces) {
  host_.faults("unplug-after@1");
  const Bytes wire = MirnDriver::frame(9, {});
  EXPECT_EQ(host_.write({wire.begin(), wire.begin() + 4}), VirtualWriteResult::kAccepted);
  EXPECT_TRUE(mirn_.plugged());
  EXPECT_EQ(host_.write({wire.begin() + 4, wire.end()}), VirtualWriteResult::kAccepted);
  EXPECT_FALSE(mirn_.plugged());
}

TEST_F(VirtualMirnFaults, ACommandsOwnExchangesCount) {
  host_.faults("drop@2/c3, lose@1/c12");
  host_.ask(9);
  EXPECT_TRUE(key());
  host_.write({0x01, 1, 0, 1, 0, 1, 0});
  EXPECT_EQ(mirn_.counters().raw_reports, 0U);
  EXPECT_FALSE(key());
  EXPECT_TRUE(key());
}

TEST_F(VirtualMirnFaults, ACommandIsFoundBehindEscapedFields) {
  host_.faults("drop@1/c3");
  host_.write(buildWireFrame(3, 0xCCAA, Bytes(7)));
  EXPECT_TRUE(host_.takeAnswers().empty());
}

TEST_F(VirtualMirnFaults, ANewPlanCountsFromOne) {
  host_.faults("drop@2");
  EXPECT_TRUE(key());
  host_.faults("drop@2");
  EXPECT_TRUE(key());
  EXPECT_FALSE(key());
}

}  // namespace
}  // namespace mirn
