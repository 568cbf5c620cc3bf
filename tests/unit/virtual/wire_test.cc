#include "virtual/wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <random>

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

std::vector<WireFrame> feed(WireParser& parser, const Bytes& bytes) {
  std::vector<WireFrame> frames;
  for (const uint8_t byte : bytes) {
    if (parser.take(byte)) {
      frames.push_back(parser.frame());
    }
  }
  return frames;
}

TEST(WireBuilder, AFrameWithoutPayload) {
  EXPECT_THAT(buildWireFrame(1, 0x0100, {}), ElementsAreArray({0xAA, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB}));
}

TEST(WireBuilder, EscapesHeadAndEscapeOnly) {
  EXPECT_THAT(
      buildWireFrame(3, 0x00AA, Bytes{0xAA, 0xCC, 0xBB}),
      ElementsAreArray({0xAA, 0x09, 0x00, 0xCC, 0x02, 0x00, 0xEF, 0x02, 0x03, 0xCC, 0x02, 0xCC, 0x01, 0xBB, 0xBB}));
}

TEST(WireBuilder, ASpoiledChecksumDiffersInItsChecksumAlone) {
  Bytes spoiled = buildWireFrame(1, 256, {}, 0x0101);
  EXPECT_THAT(spoiled, ElementsAreArray({0xAA, 0x06, 0x00, 0x00, 0x01, 0xBD, 0x01, 0x01, 0xBB}));
  WireParser parser;
  EXPECT_THAT(feed(parser, spoiled), IsEmpty());
  EXPECT_EQ(parser.counters().bad_frames, 1U);
}

TEST(WireParser, AFrameByHand) {
  WireParser parser;
  const Bytes wire{0xAA, 0x09, 0x00, 0xCC, 0x02, 0x00, 0xEF, 0x02, 0x03, 0xCC, 0x02, 0xCC, 0x01, 0xBB, 0xBB};
  const auto frames = feed(parser, wire);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(frames[0].command, 3);
  EXPECT_EQ(frames[0].packet_index, 0x00AA);
  EXPECT_THAT(frames[0].payload, ElementsAre(0xAA, 0xCC, 0xBB));
  EXPECT_EQ(frames[0].wire, wire);
  EXPECT_FALSE(parser.inFrame());
}

TEST(WireParser, CountsBytesOutsideOfFrames) {
  WireParser parser;
  EXPECT_THAT(feed(parser, {0, 1, 0xBB, 0xCC}), IsEmpty());
  EXPECT_EQ(parser.counters().stray_bytes, 4U);
  EXPECT_EQ(parser.counters().bad_frames, 0U);
}

TEST(WireParser, AHeadRestartsAndTheBrokenFrameIsCounted) {
  WireParser parser;
  Bytes wire{0xAA, 0x09, 0x00};
  const Bytes good = buildWireFrame(9, 1, Bytes{7});
  wire.insert(wire.end(), good.begin(), good.end());
  EXPECT_EQ(feed(parser, wire).size(), 1U);
  EXPECT_EQ(parser.counters().bad_frames, 1U);
}

TEST(WireParser, AHeadBehindAnEscapeByteRestartsToo) {
  WireParser parser;
  Bytes wire{0xAA, 0x09, 0x00, 0xCC};
  const Bytes good = buildWireFrame(9, 1, Bytes{7});
  wire.insert(wire.end(), good.begin(), good.end());
  EXPECT_EQ(feed(parser, wire).size(), 1U);
}

TEST(WireParser, RefusesWrongEscapes) {
  for (const uint8_t wrong : {0x00, 0x03, 0xBB, 0xCC}) {
    WireParser parser;
    EXPECT_THAT(feed(parser, {0xAA, 0x07, 0x00, 0x00, 0x01, 0xC4, 0x00, 0x05, 0xCC, wrong}), IsEmpty());
    EXPECT_EQ(parser.counters().bad_frames, 1U) << int{wrong};
    EXPECT_FALSE(parser.inFrame());
  }
}

TEST(WireParser, RefusesLengthsBelowSixAndAboveItsLimit) {
  for (const int length : {0, 5, static_cast<int>(WireParser::kMaxPayload) + 7, 0xFFFF}) {
    WireParser parser;
    feed(parser, {0xAA, static_cast<uint8_t>(length & 0xFF), static_cast<uint8_t>(length >> 8)});
    EXPECT_EQ(parser.counters().bad_frames, 1U) << length;
    EXPECT_FALSE(parser.inFrame());
  }
}

TEST(WireParser, RefusesAWrongTailEvenAnEscapedOne) {
  Bytes wire = buildWireFrame(5, 256, Bytes{1});
  wire.back() = 0xBA;
  WireParser parser;
  EXPECT_THAT(feed(parser, wire), IsEmpty());
  wire.pop_back();
  wire.insert(wire.end(), {0xCC, 0x01});
  EXPECT_THAT(feed(parser, wire), IsEmpty());
  EXPECT_EQ(parser.counters().bad_frames, 2U);
}

TEST(WireParser, TakesEveryLengthUpToItsLimit) {
  WireParser parser;
  for (size_t size = 0; size <= WireParser::kMaxPayload; size += size < 300 ? 1 : 97) {
    const Bytes payload(size, 0xCC);
    const auto frames = feed(parser, buildWireFrame(7, 0xFFFF, payload));
    ASSERT_EQ(frames.size(), 1U) << size;
    ASSERT_EQ(frames[0].payload, payload);
    ASSERT_EQ(frames[0].packet_index, 0xFFFF);
  }
  EXPECT_EQ(parser.counters().bad_frames, 0U);
}

TEST(WireParser, ResetForgetsAFrameUnderway) {
  WireParser parser;
  const Bytes wire = buildWireFrame(5, 256, Bytes{1, 2});
  feed(parser, {wire.begin(), wire.begin() + 6});
  EXPECT_TRUE(parser.inFrame());
  parser.reset();
  EXPECT_FALSE(parser.inFrame());
  EXPECT_THAT(feed(parser, {wire.begin() + 6, wire.end()}), IsEmpty());
  parser.reset();
  EXPECT_EQ(parser.counters().bad_frames, 1U);
}

TEST(WireParser, SurvivesNoise) {
  std::mt19937 random(5);
  WireParser parser;
  for (int i = 0; i < 200000; ++i) {
    const unsigned dice = random() % 8;
    parser.take(dice == 0 ? 0xAA : dice == 1 ? 0xCC : static_cast<uint8_t>(random()));
  }
  EXPECT_EQ(feed(parser, buildWireFrame(1, 2, Bytes{3})).size(), 1U);
}

}  // namespace
}  // namespace mirn
