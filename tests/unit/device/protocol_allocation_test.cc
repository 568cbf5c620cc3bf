// Encoder and decoder run for every record that is sent, beside threads that must not wait for the heap.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "device/payloads.h"
#include "device/protocol.h"
#include "tests/unit/device/wire_fixture.h"
#include "tests/unit/embedding/allocation_count.h"

namespace mirn {
namespace {

using test::allocations;

// No byte, one of each special kind, ordinary ones and the largest of all, each byte of which is escaped.
std::vector<std::vector<uint8_t>> payloads() {
  return {{},
          {kFrameHead, kFrameEscape, kFrameTail},
          std::vector<uint8_t>(33, 0x41),
          std::vector<uint8_t>(kMaxRequestPayloadBytes, 0x41),
          std::vector<uint8_t>(kMaxRequestPayloadBytes, kFrameHead)};
}

TEST(ProtocolAllocation, TheCounterSeesAnAllocation) {
  const uint64_t before = allocations().count;
  const auto number = std::make_unique<int>(1);
  EXPECT_EQ(allocations().count, before + 1) << *number;
}

TEST(ProtocolAllocation, PackingTakesNothingFromTheHeap) {
  std::array<uint8_t, maxFrameBytes(kMaxRequestPayloadBytes)> out;
  for (const std::vector<uint8_t>& payload : payloads()) {
    const uint64_t before = allocations().count;
    const int size = protocol_parser.pack(3, payload.data(), payload.size(), 256, out.data());
    EXPECT_EQ(allocations().count, before) << payload.size() << " bytes of payload";
    EXPECT_GT(size, static_cast<int>(payload.size()));
  }
}

TEST(ProtocolAllocation, ParsingTakesNothingFromTheHeap) {
  settleDecoder();
  std::array<uint8_t, maxFrameBytes(kMaxRequestPayloadBytes)> wire;
  circle_data* const ring = circle_data_create(4096);
  for (const std::vector<uint8_t>& payload : payloads()) {
    const int bytes = protocol_pack(3, payload.data(), payload.size(), 256, wire.data());
    uint8_t command = 0;
    uint16_t index = 0;
    const uint8_t* body = nullptr;
    int size = -1;
    const uint64_t before = allocations().count;
    // As reports bring it: in pieces, each followed by a try.
    for (int i = 0; i < bytes; ++i) {
      ring->push(ring, wire[static_cast<size_t>(i)]);
      if ((i + 1) % 64 == 0 || i + 1 == bytes) size = protocol_parser.parse(ring, &command, &index, &body);
    }
    EXPECT_EQ(allocations().count, before) << payload.size() << " bytes of payload";
    ASSERT_EQ(size, static_cast<int>(payload.size()));
    EXPECT_EQ(std::vector<uint8_t>(body, body + size), payload);
  }
  circle_data_destroy(ring);
}

}  // namespace
}  // namespace mirn
