#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "device/protocol.h"
#include "tests/unit/device/plain_protocol.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

struct Frame {
  uint8_t command;
  uint16_t index;
  Bytes payload;
};

struct Destroy {
  void operator()(circle_data* ring) const { circle_data_destroy(ring); }
};

class ProtocolParse : public ::testing::Test {
 protected:
  // The decoder belongs to the process: bring it to "between frames" whatever an earlier test left behind.
  ProtocolParse() {
    push({0x00, 0xAA, 0xCC, 0x00});
    parse();
  }

  void push(const Bytes& bytes) {
    for (const uint8_t byte : bytes) {
      ring_->push(ring_.get(), byte);
    }
  }

  std::optional<Frame> parse() {
    Frame frame{};
    const uint8_t* payload = nullptr;
    const int size = protocol_parse(ring_.get(), &frame.command, &frame.index, &payload);
    if (size < 0) {
      EXPECT_EQ(size, -1);
      return std::nullopt;
    }
    frame.payload.assign(payload, payload + size);
    body_ = payload;
    return frame;
  }

  std::optional<Frame> parse(const Bytes& bytes) {
    push(bytes);
    return parse();
  }

  static Bytes pack(uint8_t command, const Bytes& payload, uint16_t index = 256) {
    Bytes out(maxFrameBytes(payload.size()));
    out.resize(static_cast<size_t>(protocol_pack(command, payload.data(), payload.size(), index, out.data())));
    return out;
  }

  std::unique_ptr<circle_data, Destroy> ring_{circle_data_create(8192)};
  const uint8_t* body_ = nullptr;
};

TEST_F(ProtocolParse, AFrameWithoutPayload) {
  const auto frame = parse({0xAA, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB});
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->command, 1);
  EXPECT_EQ(frame->index, 0x0100);
  EXPECT_THAT(frame->payload, IsEmpty());
}

TEST_F(ProtocolParse, AFrameWithEscapes) {
  const auto frame = parse({0xAA, 0x09, 0x00, 0x00, 0x01, 0xEF, 0x02, 0x03, 0xCC, 0x02, 0xCC, 0x01, 0xBB, 0xBB});
  ASSERT_TRUE(frame);
  EXPECT_THAT(frame->payload, ElementsAre(0xAA, 0xCC, 0xBB));
}

TEST_F(ProtocolParse, AnEmptyRingYieldsNothing) {
  EXPECT_FALSE(parse());
}

TEST_F(ProtocolParse, GarbageInFrontIsSkipped) {
  Bytes bytes{0x00, 0x01, 0xBB, 0x7F, 0xFF, 0x02};
  const Bytes good = pack(5, {1, 2, 3});
  bytes.insert(bytes.end(), good.begin(), good.end());
  EXPECT_TRUE(parse(bytes));
}

TEST_F(ProtocolParse, PaddingBehindAFrameIsSkippedByTheNextCall) {
  Bytes bytes = pack(5, {0});
  bytes.resize(64);
  ASSERT_TRUE(parse(bytes));
  EXPECT_EQ(circle_data_get_size(ring_.get()), 64U - 10U);
  const auto next = parse(pack(6, {7}));
  ASSERT_TRUE(next);
  EXPECT_EQ(next->command, 6);
}

TEST_F(ProtocolParse, ARawHeadInTheMiddleRestartsThere) {
  Bytes bytes = pack(3, {1, 2, 3, 4, 5, 6, 7});
  bytes.resize(10);  // up to the second payload byte
  const Bytes good = pack(9, {8});
  bytes.insert(bytes.end(), good.begin(), good.end());
  const auto frame = parse(bytes);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->command, 9);
  EXPECT_THAT(frame->payload, ElementsAre(8));
}

TEST_F(ProtocolParse, ARawHeadRestartsInEveryState) {
  const Bytes whole = pack(3, {1, 2});
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    Bytes bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut));
    const Bytes good = pack(9, {8});
    bytes.insert(bytes.end(), good.begin(), good.end());
    const auto frame = parse(bytes);
    ASSERT_TRUE(frame) << "cut behind byte " << cut;
    EXPECT_EQ(frame->command, 9);
    EXPECT_FALSE(parse());
  }
}

TEST_F(ProtocolParse, AWrongEscapeDropsTheFrame) {
  for (const uint8_t wrong : {0x00, 0x03, 0xBB, 0xFF}) {
    Bytes bytes{0xAA, 0x07, 0x00, 0x00, 0x01, 0xC4, 0x00, 0x05, 0xCC, wrong, 0x04, 0xBB};
    EXPECT_FALSE(parse(bytes)) << int{wrong};
  }
  EXPECT_TRUE(parse(pack(5, {4})));
}

TEST_F(ProtocolParse, ASecondEscapeByteMerelyRepeatsTheFirst) {
  // length 7, checksum 5 + CC + BB = 0x018C
  const auto frame = parse({0xAA, 0x07, 0x00, 0x00, 0x01, 0x8C, 0x01, 0x05, 0xCC, 0xCC, 0xCC, 0x01, 0xBB});
  ASSERT_TRUE(frame);
  EXPECT_THAT(frame->payload, ElementsAre(0xCC));
}

TEST_F(ProtocolParse, AnEscapeByteSwallowsTheHeadBehindIt) {
  Bytes bytes{0xCC};
  const Bytes swallowed = pack(5, {1});
  bytes.insert(bytes.end(), swallowed.begin(), swallowed.end());
  EXPECT_FALSE(parse(bytes));
  EXPECT_TRUE(parse(pack(5, {1})));
}

TEST_F(ProtocolParse, AnEscapeByteAtAReportsEndSwallowsTheHeadOfTheNextCall) {
  Bytes report = pack(5, {1});
  report.resize(64);
  report[63] = 0xCC;
  ASSERT_TRUE(parse(report));
  EXPECT_FALSE(parse());  // takes the rest of the report
  EXPECT_FALSE(parse(pack(5, {2})));
  EXPECT_TRUE(parse(pack(5, {3})));
}

TEST_F(ProtocolParse, AnEscapedHeadBetweenFramesBeginsOneToo) {
  const auto frame = parse({0xCC, 0x02, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB});
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->command, 1);
}

TEST_F(ProtocolParse, AFrameSplitOverTwoReportsComesWithTheSecond) {
  const Bytes whole = pack(9, Bytes(33, 0x41));
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    EXPECT_FALSE(parse({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)}));
    const auto frame = parse({whole.begin() + static_cast<std::ptrdiff_t>(cut), whole.end()});
    ASSERT_TRUE(frame) << "cut behind byte " << cut;
    EXPECT_EQ(frame->payload, Bytes(33, 0x41));
  }
}

TEST_F(ProtocolParse, AnEscapePairSplitOverTwoReportsIsOneByte) {
  const Bytes whole = pack(9, {0xAA});
  EXPECT_FALSE(parse({whole.begin(), whole.end() - 2}));
  const auto frame = parse({whole.end() - 2, whole.end()});
  ASSERT_TRUE(frame);
  EXPECT_THAT(frame->payload, ElementsAre(0xAA));
}

TEST_F(ProtocolParse, AWrongChecksumYieldsNothingAndTheNextFrameComesInTheSameCall) {
  Bytes bytes = pack(5, {1, 2, 3});
  bytes[5] ^= 1;
  EXPECT_FALSE(parse(bytes));
  const Bytes good = pack(6, {4});
  bytes.insert(bytes.end(), good.begin(), good.end());
  const auto frame = parse(bytes);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->command, 6);
}

TEST_F(ProtocolParse, AWrongTailDropsTheFrame) {
  Bytes bytes = pack(5, {1});
  bytes.back() = 0xBA;
  EXPECT_FALSE(parse(bytes));
  EXPECT_TRUE(parse(pack(5, {1})));
}

TEST_F(ProtocolParse, AnEscapedByteIsNoTail) {
  Bytes bytes = pack(5, {1});
  bytes.pop_back();
  bytes.insert(bytes.end(), {0xCC, 0x01});
  EXPECT_FALSE(parse(bytes));
}

TEST_F(ProtocolParse, ALengthOfFiveOrLessDropsTheFrame) {
  for (uint8_t length = 0; length <= 5; ++length) {
    EXPECT_FALSE(parse({0xAA, length, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB}));
    // Dropped at once, with its command: an escaped head is a head only between frames.
    EXPECT_TRUE(parse({0xAA, length, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01,  //
                       0xCC, 0x02, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB}))
        << int{length};
  }
  EXPECT_TRUE(parse(pack(1, {})));
}

TEST_F(ProtocolParse, ALowLengthByteOf0x80OrMoreNeverCompletes) {
  // 130 bytes: low length byte 0x88, read as 0xFF88
  EXPECT_FALSE(parse(pack(1, Bytes(130, 0))));
  // what comes then is its payload until 2049 bytes have come or a head restarts
  EXPECT_TRUE(parse(pack(1, {})));
}

TEST_F(ProtocolParse, EveryPayloadLengthUpToTheBodyDecodesUnlessItsLowLengthByteIsHigh) {
  for (size_t size = 0; size <= 2048; ++size) {
    const bool low = ((size + 6) & 0xFF) < 0x80;
    ASSERT_EQ(parse(pack(1, Bytes(size, 0x33))).has_value(), low) << size << " bytes";
    ASSERT_EQ(parse().has_value(), false);
  }
}

TEST_F(ProtocolParse, TheLowIndexByteIsWidenedAsASignedNumber) {
  EXPECT_EQ(parse(pack(1, {}, 0x0080))->index, 0xFF80);
  EXPECT_EQ(parse(pack(1, {}, 0x01FF))->index, 0xFFFF);
  EXPECT_EQ(parse(pack(1, {}, 0x017F))->index, 0x017F);
  EXPECT_EQ(parse(pack(1, {}, 0xFF00))->index, 0xFF00);
  EXPECT_EQ(parse(pack(1, {}, 0x12AA))->index, 0xFFAA);
}

TEST_F(ProtocolParse, TheLowChecksumByteIsNotWidened) {
  // 1 + BB = 0x00BC has a high low byte
  EXPECT_TRUE(parse(pack(1, {})));
}

TEST_F(ProtocolParse, TheLargestBodyDecodesAndOneByteMoreIsDropped) {
  EXPECT_EQ(parse(pack(7, Bytes(2048, 0x42)))->payload, Bytes(2048, 0x42));
  EXPECT_FALSE(parse(pack(7, Bytes(2049, 0x42))));
  EXPECT_FALSE(parse(pack(7, Bytes(2100, 0x42))));
  EXPECT_TRUE(parse(pack(7, {1})));
}

TEST_F(ProtocolParse, AnOverflowingBodyIsDroppedAtItsByte2049) {
  // Length 0x7F7F: 32,633 bytes of payload announced. The frame inside the overflow is seen once the body overflowed.
  Bytes bytes{0xAA, 0x7F, 0x7F, 0x00, 0x01, 0x00, 0x00, 0x01};
  bytes.insert(bytes.end(), 2049, 0x11);
  bytes.insert(bytes.end(), {0xCC, 0x02, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB});
  EXPECT_TRUE(parse(bytes)) << "the escaped head is a head only between frames";
}

TEST_F(ProtocolParse, OneByteLessDoesNotOverflow) {
  Bytes bytes{0xAA, 0x7F, 0x7F, 0x00, 0x01, 0x00, 0x00, 0x01};
  bytes.insert(bytes.end(), 2047, 0x11);
  bytes.insert(bytes.end(), {0xCC, 0x02, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB});
  EXPECT_FALSE(parse(bytes));
}

TEST_F(ProtocolParse, BehindAShortPayloadTheBodyIsZero) {
  ASSERT_TRUE(parse(pack(9, Bytes(1900, 0xEE))));
  ASSERT_TRUE(parse(pack(9, {1})));
  EXPECT_EQ(body_[0], 1);
  for (size_t i = 1; i < kFrameBodyBytes; ++i) {
    ASSERT_EQ(body_[i], 0) << i;
  }
}

TEST_F(ProtocolParse, ADroppedFramesBytesDoNotShowInTheNextBody) {
  Bytes bad = pack(9, Bytes(500, 0xEE));
  bad.back() = 0;
  EXPECT_FALSE(parse(bad));
  ASSERT_TRUE(parse(pack(9, {})));
  for (size_t i = 0; i < kFrameBodyBytes; ++i) {
    ASSERT_EQ(body_[i], 0) << i;
  }
}

TEST_F(ProtocolParse, TwoFramesInOneRingComeOneByOne) {
  Bytes bytes = pack(1, {1});
  const Bytes second = pack(2, {2});
  bytes.insert(bytes.end(), second.begin(), second.end());
  push(bytes);
  EXPECT_EQ(parse()->command, 1);
  EXPECT_EQ(parse()->command, 2);
  EXPECT_FALSE(parse());
}

TEST_F(ProtocolParse, TheDecoderSurvivesItsRing) {
  const Bytes whole = pack(9, {1, 2, 3});
  EXPECT_FALSE(parse({whole.begin(), whole.begin() + 5}));
  ring_.reset(circle_data_create(4096));
  EXPECT_TRUE(parse({whole.begin() + 5, whole.end()}));
}

// A ring whose pop is not the usual one is read through it, byte by byte.
TEST_F(ProtocolParse, AForeignPopIsCalledForEveryByte) {
  static int calls;
  calls = 0;
  ring_->pop = [](circle_data* ring, uint8_t* byte) {
    ++calls;
    return circle_data_pop(ring, byte);
  };
  const Bytes frame = pack(2, {1, 2, 3});
  EXPECT_TRUE(parse(frame));
  EXPECT_EQ(calls, static_cast<int>(frame.size()));
  EXPECT_FALSE(parse());
  // The largest body, and one byte more.
  EXPECT_EQ(parse(pack(7, Bytes(2048, 0x42)))->payload, Bytes(2048, 0x42));
  EXPECT_FALSE(parse(pack(7, Bytes(2049, 0x42))));
  EXPECT_TRUE(parse(pack(7, {1})));
}

// Hostile and sound bytes in any mixture, cut anywhere, in a small ring that wraps: the same frames as the plain
// decoder finds.
TEST_F(ProtocolParse, FindsWhatThePlainDecoderFinds) {
  std::mt19937 random(11);
  plain::Decoder reference;
  ring_.reset(circle_data_create(701));
  const std::unique_ptr<circle_data, Destroy> copy(circle_data_create(701));
  int found = 0;
#if defined(MIRN_SANITIZED)
  constexpr int kRounds = 4000;
#else
  constexpr int kRounds = 40000;
#endif
  for (int round = 0; round < kRounds; ++round) {
    Bytes bytes;
    if (random() % 3 != 0) {
      Bytes payload(random() % 4 == 0 ? random() % 300 : random() % 40);
      for (uint8_t& byte : payload) {
        byte = random() % 4 == 0 ? (random() % 2 == 0 ? 0xAA : 0xCC) : static_cast<uint8_t>(random());
      }
      bytes = pack(static_cast<uint8_t>(random()), payload, static_cast<uint16_t>(random()));
      if (random() % 4 == 0) {
        bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
      }
    } else {
      constexpr uint8_t kSpice[] = {0xAA, 0xCC, 0xBB, 0x01, 0x02, 0x00, 0x06, 0x07};
      bytes.resize(random() % 64);
      for (uint8_t& byte : bytes) {
        byte = random() % 2 == 0 ? kSpice[random() % sizeof(kSpice)] : static_cast<uint8_t>(random());
      }
    }
    for (const uint8_t byte : bytes) {
      circle_data_push(ring_.get(), byte);
      circle_data_push(copy.get(), byte);
    }
    while (true) {
      uint8_t command = 0;
      uint16_t index = 0;
      const uint8_t* payload = nullptr;
      const int expected =
          reference.parse([&](uint8_t* byte) { return circle_data_pop(copy.get(), byte); }, &command, &index, &payload);
      const auto frame = parse();
      ASSERT_EQ(frame.has_value(), expected >= 0) << "round " << round;
      ASSERT_EQ(circle_data_get_size(ring_.get()), circle_data_get_size(copy.get()));
      if (!frame) {
        break;
      }
      ++found;
      ASSERT_EQ(frame->command, command);
      ASSERT_EQ(frame->index, index);
      ASSERT_THAT(frame->payload, ElementsAreArray(payload, static_cast<size_t>(expected)));
      ASSERT_EQ(std::memcmp(body_, payload, kFrameBodyBytes), 0);
    }
  }
  EXPECT_GT(found, kRounds / 4);
}

}  // namespace
}  // namespace mirn
