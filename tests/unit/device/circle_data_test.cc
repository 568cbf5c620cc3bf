#include "device/circle_data.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <random>

#include "tests/unit/embedding/allocation_count.h"

#if defined(MIRN_SANITIZED_ADDRESS)
// An allocation that can't be had returns null here as it does without the sanitizer, whose runtime must see this.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

namespace mirn {
namespace {

struct Destroy {
  void operator()(circle_data* ring) const { circle_data_destroy(ring); }
};
using Ring = std::unique_ptr<circle_data, Destroy>;

Ring makeRing(size_t size) {
  return Ring(circle_data_create(size));
}

void pushMany(circle_data* ring, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    ASSERT_EQ(circle_data_push(ring, static_cast<uint8_t>(i)), 0);
  }
}

TEST(CircleData, StartsEmptyWithBothPositionsAtTheBase) {
  const Ring ring = makeRing(8);
  ASSERT_NE(ring, nullptr);
  EXPECT_EQ(ring->size, 8U);
  EXPECT_EQ(ring->read_pos, ring->base);
  EXPECT_EQ(ring->write_pos, ring->base);
  EXPECT_EQ(circle_data_get_size(ring.get()), 0U);
}

TEST(CircleData, TheRecordCarriesItsOperations) {
  const Ring ring = makeRing(8);
  EXPECT_EQ(ring->push, circle_data_push);
  EXPECT_EQ(ring->pop, circle_data_pop);
  EXPECT_EQ(ring->get_size, circle_data_get_size);
}

TEST(CircleData, PopsInTheOrderOfPushing) {
  const Ring ring = makeRing(8);
  pushMany(ring.get(), 5);
  for (uint8_t expected = 0; expected < 5; ++expected) {
    uint8_t byte = 0xFF;
    EXPECT_EQ(circle_data_pop(ring.get(), &byte), 0);
    EXPECT_EQ(byte, expected);
  }
}

TEST(CircleData, PopFromAnEmptyRingFailsAndLeavesTheOutputAlone) {
  const Ring ring = makeRing(8);
  uint8_t byte = 0x5A;
  EXPECT_EQ(circle_data_pop(ring.get(), &byte), -1);
  EXPECT_EQ(byte, 0x5A);
}

TEST(CircleData, WrapsFromTheLastByteToTheBase) {
  const Ring ring = makeRing(4);
  uint8_t byte = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(circle_data_push(ring.get(), static_cast<uint8_t>(i)), 0);
    ASSERT_EQ(circle_data_push(ring.get(), static_cast<uint8_t>(i + 100)), 0);
    ASSERT_EQ(circle_data_get_size(ring.get()), 2U);
    ASSERT_EQ(circle_data_pop(ring.get(), &byte), 0);
    ASSERT_EQ(byte, i);
    ASSERT_EQ(circle_data_pop(ring.get(), &byte), 0);
    ASSERT_EQ(byte, i + 100);
    ASSERT_GE(ring->write_pos, ring->base);
    ASSERT_LT(ring->write_pos, ring->base + ring->size);
  }
}

TEST(CircleData, HoldsOneByteLessThanItsSize) {
  const Ring ring = makeRing(4096);
  pushMany(ring.get(), 4095);
  EXPECT_EQ(circle_data_get_size(ring.get()), 4095U);
}

TEST(CircleData, ThePushThatMakesThePositionsMeetEmptiesTheRing) {
  const Ring ring = makeRing(4096);
  pushMany(ring.get(), 4096);  // the last one also returns 0
  EXPECT_EQ(circle_data_get_size(ring.get()), 0U);
  uint8_t byte = 0;
  EXPECT_EQ(circle_data_pop(ring.get(), &byte), -1);
}

TEST(CircleData, GoesOnAfterItLostItsContents) {
  const Ring ring = makeRing(16);
  pushMany(ring.get(), 16);
  ASSERT_EQ(circle_data_push(ring.get(), 0x77), 0);
  uint8_t byte = 0;
  EXPECT_EQ(circle_data_pop(ring.get(), &byte), 0);
  EXPECT_EQ(byte, 0x77);
}

TEST(CircleData, ARingOfOneByteIsAlwaysEmpty) {
  const Ring ring = makeRing(1);
  EXPECT_EQ(circle_data_push(ring.get(), 1), 0);
  EXPECT_EQ(circle_data_get_size(ring.get()), 0U);
}

TEST(CircleData, ARingOfNoBytesRefusesThePush) {
  const Ring ring = makeRing(0);
  ASSERT_NE(ring, nullptr);
  uint8_t byte = 0;
  EXPECT_EQ(circle_data_push(ring.get(), 1), -1);
  EXPECT_EQ(circle_data_pop(ring.get(), &byte), -1);
}

#if !defined(MIRN_SANITIZED_THREAD)
TEST(CircleData, CreationReturnsNullWhenTheBufferCannotBeHad) {
  const volatile size_t size = SIZE_MAX / 2;
  EXPECT_EQ(circle_data_create(size), nullptr);
}
#endif

TEST(CircleData, CreationReturnsNullWhenTheRecordCannotBeHad) {
  test::failAllocationAfter(1);  // the buffer can be had
  EXPECT_EQ(circle_data_create(8), nullptr);
  const Ring ring = makeRing(8);
  EXPECT_NE(ring, nullptr);
}

TEST(CircleData, DestroyAcceptsNull) {
  EXPECT_EQ(circle_data_destroy(nullptr), 0);
}

TEST(CircleData, DestroyReturnsZero) {
  EXPECT_EQ(circle_data_destroy(circle_data_create(16)), 0);
}

TEST(CircleData, BehavesLikeAQueueThatForgetsEverythingWhenItFills) {
  std::mt19937 random(7);
  for (const size_t size : {2U, 3U, 17U, 64U}) {
    const Ring ring = makeRing(size);
    std::deque<uint8_t> model;
    for (int i = 0; i < 20000; ++i) {
      if (random() % 5 < 3) {
        const auto byte = static_cast<uint8_t>(random());
        ASSERT_EQ(ring->push(ring.get(), byte), 0);
        model.push_back(byte);
        if (model.size() == size) {
          model.clear();
        }
      } else {
        uint8_t byte = 0;
        ASSERT_EQ(ring->pop(ring.get(), &byte), model.empty() ? -1 : 0);
        if (!model.empty()) {
          ASSERT_EQ(byte, model.front());
          model.pop_front();
        }
      }
      ASSERT_EQ(ring->get_size(ring.get()), model.size());
    }
  }
}

}  // namespace
}  // namespace mirn
