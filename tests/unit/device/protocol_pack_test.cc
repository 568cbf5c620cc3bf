#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "device/protocol.h"
#include "tests/unit/device/plain_protocol.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::ElementsAreArray;

// Packs into a buffer of exactly the promised size with a fence behind it.
Bytes pack(uint8_t command, const Bytes& payload, uint16_t index) {
  constexpr uint8_t kFence = 0x5E;
  Bytes out(maxFrameBytes(payload.size()) + 8, kFence);
  const int size = protocol_pack(command, payload.data(), payload.size(), index, out.data());
  EXPECT_GT(size, 0);
  EXPECT_LE(static_cast<size_t>(size), maxFrameBytes(payload.size()));
  for (size_t i = maxFrameBytes(payload.size()); i < out.size(); ++i) {
    EXPECT_EQ(out[i], kFence) << "written behind the promised end, at " << i;
  }
  out.resize(static_cast<size_t>(size));
  return out;
}

TEST(ProtocolPack, AFrameWithoutPayload) {
  // head, length 6, index 0x0100, checksum 1 + BB, command, tail
  EXPECT_THAT(pack(1, {}, 0x0100), ElementsAreArray({0xAA, 0x06, 0x00, 0x00, 0x01, 0xBC, 0x00, 0x01, 0xBB}));
}

TEST(ProtocolPack, ANullPayloadOfNoBytesIsAFrameWithoutPayload) {
  uint8_t out[16];
  EXPECT_EQ(protocol_pack(9, nullptr, 0, 256, out), 9);
}

TEST(ProtocolPack, ANullPayloadWithALengthIsRefusedAndNothingIsWritten) {
  uint8_t out[64] = {0x5E};
  EXPECT_EQ(protocol_pack(9, nullptr, 1, 256, out), -1);
  EXPECT_EQ(out[0], 0x5E);
}

TEST(ProtocolPack, EscapesHeadAndEscapeBytesAndNothingElse) {
  // length 9; checksum 3 + AA + CC + BB + BB = 0x02EF
  EXPECT_THAT(pack(3, {0xAA, 0xCC, 0xBB}, 256),
              ElementsAreArray({0xAA, 0x09, 0x00, 0x00, 0x01, 0xEF, 0x02, 0x03, 0xCC, 0x02, 0xCC, 0x01, 0xBB, 0xBB}));
}

TEST(ProtocolPack, EscapesTheIndex) {
  EXPECT_THAT(pack(1, {}, 0x00AA), ElementsAreArray({0xAA, 0x06, 0x00, 0xCC, 0x02, 0x00, 0xBC, 0x00, 0x01, 0xBB}));
  EXPECT_THAT(pack(1, {}, 0xCCAA),
              ElementsAreArray({0xAA, 0x06, 0x00, 0xCC, 0x02, 0xCC, 0x01, 0xBC, 0x00, 0x01, 0xBB}));
}

TEST(ProtocolPack, EscapesTheLength) {
  // 198 bytes of payload give length 0xCC, 164 give 0xAA
  const Bytes frame_cc = pack(1, Bytes(198, 0), 256);
  EXPECT_THAT(Bytes(frame_cc.begin(), frame_cc.begin() + 4), ElementsAreArray({0xAA, 0xCC, 0x01, 0x00}));
  const Bytes frame_aa = pack(1, Bytes(164, 0), 256);
  EXPECT_THAT(Bytes(frame_aa.begin(), frame_aa.begin() + 4), ElementsAreArray({0xAA, 0xCC, 0x02, 0x00}));
}

TEST(ProtocolPack, EscapesTheChecksum) {
  // 0x11 + BB = CC
  EXPECT_THAT(pack(0x11, {}, 256), ElementsAreArray({0xAA, 0x06, 0x00, 0x00, 0x01, 0xCC, 0x01, 0x00, 0x11, 0xBB}));
}

TEST(ProtocolPack, EscapesTheCommand) {
  // AA + BB = 0x0165
  EXPECT_THAT(pack(0xAA, {}, 256), ElementsAreArray({0xAA, 0x06, 0x00, 0x00, 0x01, 0x65, 0x01, 0xCC, 0x02, 0xBB}));
}

TEST(ProtocolPack, TheTailIsNeverEscapedAndTheHeadIsTheOnlyRawHead) {
  const Bytes frame = pack(7, Bytes(1028, 0xAA), 256);
  EXPECT_EQ(frame.back(), 0xBB);
  EXPECT_EQ(std::count(frame.begin(), frame.end(), 0xAA), 1);
}

TEST(ProtocolPack, AChunkOfEscapesNeedsTwoBytesForEachByte) {
  Bytes payload(1028, 0xCC);
  // 13 bytes around the payload, with one escape: the length 1034 = 0x040A has none, the checksum is
  // 7 + BB + 1028 * CC = 0x033DF2 -> F2 3D
  const Bytes frame = pack(7, payload, 256);
  EXPECT_EQ(frame.size(), 9 + 2 * payload.size());
}

TEST(ProtocolPack, TheWorstCaseStaysOneByteBelowThePromise) {
  // Everything escaped: length CCAA, index CCCC, command AA, each payload byte. AA and CC are even and the tail's BB is
  // odd, so the checksum's low byte never is one of them; its high byte can be.
  Bytes payload(0xCCAA - 6, 0xCC);
  uint32_t sum = 0xAA + 0xBB + static_cast<uint32_t>(payload.size()) * 0xCC;
  for (size_t changed = 0; (sum >> 8 & 0xFF) != 0xCC; ++changed) {
    payload.at(changed) = 0xAA;
    sum -= 0x22;
  }
  EXPECT_EQ(pack(0xAA, payload, 0xCCCC).size(), maxFrameBytes(payload.size()) - 1);
}

TEST(ProtocolPack, TheChecksumIsTakenModulo65536) {
  const Bytes frame = pack(7, Bytes(1028, 0xFF), 256);
  // 7 + BB + 1028 * FF = 262,334 = 0x400BE
  EXPECT_EQ(frame[5], 0xBE);
  EXPECT_EQ(frame[6], 0x00);
}

TEST(ProtocolPack, APayloadWhoseLengthWrapsToNoneIsSentAsNone) {
  EXPECT_EQ(pack(7, Bytes(65530, 1), 256).size(), 9U);           // length 0
  EXPECT_EQ(pack(7, Bytes(65536, 1), 256).size(), 9U);           // length 6
  EXPECT_EQ(pack(7, Bytes(65537, 1), 256).size(), 9U + 65537U);  // length 7
}

TEST(ProtocolPack, WritesWhatThePlainEncoderWrites) {
  std::mt19937 random(3);
  for (int round = 0; round < 3000; ++round) {
    Bytes payload(round < 200 ? static_cast<size_t>(round) : random() % 1100);
    const unsigned density = random() % 6;
    for (uint8_t& byte : payload) {
      const bool special = density == 5 || random() % 16 < density * density;
      byte = special ? (random() % 2 == 0 ? 0xAA : 0xCC) : static_cast<uint8_t>(random());
    }
    const auto command = static_cast<uint8_t>(random());
    const auto index = static_cast<uint16_t>(random());
    Bytes expected(maxFrameBytes(payload.size()));
    expected.resize(static_cast<size_t>(plain::pack(command, payload.data(), payload.size(), index, expected.data())));
    ASSERT_EQ(pack(command, payload, index), expected) << "payload of " << payload.size() << " bytes";
  }
}

TEST(ProtocolParser, TheTableHoldsBothOperations) {
  EXPECT_EQ(protocol_parser.parse, protocol_parse);
  EXPECT_EQ(protocol_parser.pack, protocol_pack);
}

}  // namespace
}  // namespace mirn
