#include "embedding/standard_codec.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <random>

#include "embedding/key_index.h"
#include "tests/unit/embedding/allocation_count.h"
#include "tests/unit/embedding/notation.h"
#include "tests/unit/embedding/plain_decoder.h"
#include "tests/unit/embedding/random_value.h"

namespace mirn::test {
namespace {

#ifdef MIRN_SANITIZED
constexpr int kRounds = 2000;
#else
constexpr int kRounds = 20000;
#endif

Value decoded(std::string_view hex) {
  Value value;
  EXPECT_EQ(decodeMessage(parseHex(hex), &value), CodecError::kNone) << hex;
  return value;
}

CodecError refusal(const std::vector<uint8_t>& bytes) {
  Value value;
  return decodeMessage(bytes, &value);
}

TEST(StandardCodec, WhatIsWrittenReadsBackAlike) {
  std::mt19937 random(1);
  for (int round = 0; round < kRounds; ++round) {
    const Value value = randomValue(random);
    const std::vector<uint8_t> bytes = encodeMessage(value);
    Value back;
    ASSERT_EQ(decodeMessage(bytes, &back), CodecError::kNone) << toHex(bytes);
    ASSERT_TRUE(alike(back, value)) << toHex(bytes);
    ASSERT_EQ(encodeMessage(back), bytes);
  }
}

// Damaged messages: both ways of reading and a second decoder of another make must agree on each.
TEST(StandardCodec, AgreesWithAPlainDecoderOnDamagedMessages) {
  std::mt19937 random(2);
  int accepted = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<uint8_t> bytes = encodeMessage(randomValue(random));
    for (uint32_t damage = random() % 4; damage > 0 && !bytes.empty(); --damage) {
      const size_t at = random() % bytes.size();
      switch (random() % 4) {
        case 0:
          bytes[at] = static_cast<uint8_t>(random());
          break;
        case 1:
          bytes[at] = static_cast<uint8_t>(random() % 16);
          break;
        case 2:
          bytes.resize(at);
          break;
        default:
          bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), static_cast<uint8_t>(random() % 16));
      }
    }
    if (bytes.empty()) continue;
    PlainDecoder plain(bytes);
    std::optional<Value> expected = plain.value();
    if (expected && !plain.atEnd()) expected.reset();
    Value value;
    ValueView view;
    ASSERT_EQ(decodeMessage(bytes, &value) == CodecError::kNone, expected.has_value()) << toHex(bytes);
    ASSERT_EQ(viewMessage(bytes, &view) == CodecError::kNone, expected.has_value()) << toHex(bytes);
    if (!expected) continue;
    ++accepted;
    ASSERT_TRUE(alike(value, *expected)) << toHex(bytes);
    ASSERT_TRUE(alike(view.toValue(), *expected)) << toHex(bytes);
  }
  EXPECT_GT(accepted, kRounds / 10);
}

TEST(StandardCodec, SizesChangeTheirFormAt254And65536) {
  const auto head = [](size_t size) {
    const std::vector<uint8_t> bytes = encodeMessage(std::string(size, 'a'));
    return toHex({bytes.begin(), bytes.begin() + 6});
  };
  EXPECT_EQ(head(253).substr(0, 4), "07fd");
  EXPECT_EQ(head(254).substr(0, 8), "07fefe00");
  EXPECT_EQ(head(0xffff).substr(0, 8), "07feffff");
  EXPECT_EQ(head(0x10000), "07ff00000100");
  for (const size_t size : {size_t{253}, size_t{254}, size_t{0xffff}, size_t{0x10000}}) {
    const Value list = ValueList(size);
    Value back;
    ASSERT_EQ(decodeMessage(encodeMessage(list), &back), CodecError::kNone);
    EXPECT_EQ(back.asList()->size(), size);
  }
}

TEST(StandardCodec, IntegersKeepTheTagOfTheirType) {
  EXPECT_EQ(toHex(encodeMessage(int32_t{5})), "0305000000");
  EXPECT_EQ(toHex(encodeMessage(int64_t{5})), "040500000000000000");
}

TEST(StandardCodec, NestingIsRefusedBeyondTheLimit) {
  const auto nested = [](size_t depth, uint8_t tag) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < depth; ++i) {
      bytes.push_back(tag);
      bytes.push_back(1);
      if (tag == 13) bytes.push_back(0);  // the key
    }
    bytes.push_back(0);
    return bytes;
  };
  for (const uint8_t tag : {uint8_t{12}, uint8_t{13}}) {
    EXPECT_EQ(refusal(nested(kMaxDepth, tag)), CodecError::kNone);
    EXPECT_EQ(refusal(nested(kMaxDepth + 1, tag)), CodecError::kTooDeep);
    EXPECT_EQ(refusal(nested(1'000'000, tag)), CodecError::kTooDeep);
  }
  EXPECT_NE(describe(CodecError::kTooDeep).find("64"), std::string_view::npos);
}

TEST(StandardCodec, TheWriterNeverWritesWhatTheReaderRefuses) {
  Value deep = 1;
  for (int i = 0; i < kMaxDepth + 10; ++i) deep = ValueList{deep};
  const std::vector<uint8_t> bytes = encodeMessage(deep);
  EXPECT_EQ(refusal(bytes), CodecError::kNone);
  EXPECT_EQ(bytes.size(), static_cast<size_t>(kMaxDepth) * 2 + 1);
  EXPECT_EQ(bytes.back(), 0);  // null where it became too deep
}

TEST(StandardCodec, AClaimedLengthReservesNothing) {
  for (const char* hex :
       {"07ffffffffff6161", "08ffffffffff00", "09ffffffffff000000000000", "0affffffffff0000", "0bffffffffff0000",
        "0cffffffffff", "0dffffffffff", "0effffffffff0000000000", "0c020cffffffff7f0000", "0d010dffffffff7f00"}) {
    const std::vector<uint8_t> bytes = parseHex(hex);
    Value value;
    const Allocations before = allocations();
    EXPECT_EQ(decodeMessage(bytes, &value), CodecError::kOutOfData) << hex;
    EXPECT_EQ(allocations().count, before.count) << hex;
  }
}

TEST(StandardCodec, ReadingInPlaceTakesNoMemory) {
  const std::vector<uint8_t> bytes =
      encodeMethodCall("mouseEventButtons", ValueMap{{"x", 1}, {"y", 2}, {"type", "lbdown"}});
  const Allocations before = allocations();
  MethodCallView call;
  ASSERT_EQ(viewMethodCall(bytes, &call), CodecError::kNone);
  EXPECT_EQ(call.arguments.find("type").text(), "lbdown");
  EXPECT_EQ(call.arguments.find("y").integer(), 2);
  EXPECT_EQ(allocations().count, before.count);
}

TEST(StandardCodec, OfEqualKeysTheLastValueCountsAtTheFirstPlace) {
  EXPECT_TRUE(alike(decoded("0d030701610301000000070162000701610302000000"), parseNotation("{\"a\": 2, \"b\": null}")));
  ValueView view;
  const std::vector<uint8_t> bytes = parseHex("0d0207016103010000000701610302000000");
  ASSERT_EQ(viewMessage(bytes, &view), CodecError::kNone);
  EXPECT_EQ(view.find("a").integer(), 2);
}

TEST(StandardCodec, KeysAreEqualAsTheApplicationSeesThem) {
  EXPECT_TRUE(sameKey(int32_t{7}, int64_t{7}));
  EXPECT_FALSE(sameKey(int32_t{1}, 1.0));
  EXPECT_FALSE(sameKey(int32_t{1}, true));
  EXPECT_TRUE(sameKey(0.0, -0.0));
  const Value nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(sameKey(nan, nan));
  EXPECT_TRUE(sameKey(ValueList{1, "x"}, ValueList{int64_t{1}, "x"}));
  EXPECT_TRUE(sameKey(ValueMap{{1, "a"}, {2, "b"}}, ValueMap{{2, "b"}, {int64_t{1}, "a"}}));
  EXPECT_FALSE(sameKey(ValueMap{{1, "a"}}, ValueMap{{1, "b"}}));
  EXPECT_FALSE(sameKey(std::vector<uint8_t>{1}, std::vector<int32_t>{1}));
}

// The same rule through the index that large maps use.
TEST(StandardCodec, LargeMapsDropDoubledKeysOfEveryKind) {
  const std::vector<Value> keys = {Value(),
                                   true,
                                   int32_t{1},
                                   1.0,
                                   0.0,
                                   "1",
                                   std::vector<uint8_t>{1},
                                   std::vector<int32_t>{1},
                                   std::vector<int64_t>{1},
                                   std::vector<float>{0.0F},
                                   std::vector<double>{0.0},
                                   ValueList{1, 2},
                                   ValueMap{{1, 2}, {3, 4}}};
  const std::vector<Value> again = {Value(),
                                    true,
                                    int64_t{1},
                                    1.0,
                                    -0.0,
                                    "1",
                                    std::vector<uint8_t>{1},
                                    std::vector<int32_t>{1},
                                    std::vector<int64_t>{1},
                                    std::vector<float>{-0.0F},
                                    std::vector<double>{-0.0},
                                    ValueList{int64_t{1}, 2},
                                    ValueMap{{3, 4}, {1, 2}}};
  ValueMap doubled;
  for (const Value& key : keys) doubled.emplace_back(key, "first");
  for (int i = 100; i < 200; ++i) doubled.emplace_back(i, "only");
  for (const Value& key : again) doubled.emplace_back(key, "last");
  Value back;
  ASSERT_EQ(decodeMessage(encodeMessage(doubled), &back), CodecError::kNone);
  ASSERT_EQ(back.asMap()->size(), keys.size() + 100);
  for (size_t i = 0; i < keys.size(); ++i) {
    EXPECT_TRUE(alike((*back.asMap())[i].first, keys[i])) << i;
    EXPECT_EQ(*(*back.asMap())[i].second.asText(), "last") << i;
  }
}

// Each with each would be 10^10 comparisons.
TEST(StandardCodec, AMapOfAHundredThousandKeysReadsInLinearTime) {
  ValueMap numbers;
  ValueMap not_numbers;
  for (int i = 0; i < 100'000; ++i) {
    numbers.emplace_back(i, Value());
    not_numbers.emplace_back(std::numeric_limits<double>::quiet_NaN(), Value());
  }
  for (const ValueMap* map : {&numbers, &not_numbers}) {
    const auto begin = std::chrono::steady_clock::now();
    Value back;
    ASSERT_EQ(decodeMessage(encodeMessage(*map), &back), CodecError::kNone);
    EXPECT_EQ(back.asMap()->size(), map->size());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  }
}

// Each map is a key of the next one, and large enough for an index. A second look at each level would be 2^62 looks.
TEST(StandardCodec, MapsThatAreKeysOfMapsReadInLinearTime) {
  for (const Value& innermost : {Value(1), Value(std::numeric_limits<double>::quiet_NaN())}) {
    Value key = innermost;
    for (int level = 0; level < kMaxDepth - 2; ++level) {
      ValueMap map;
      for (int i = 0; i < 20; ++i) map.emplace_back("k" + std::to_string(i), Value());
      map.emplace_back(std::move(key), "deep");
      key = Value(std::move(map));
    }
    // The same key twice: one pair is left, unless the key is none that can be found.
    ValueMap twice;
    for (int i = 0; i < 20; ++i) twice.emplace_back(i, Value());
    twice.emplace_back(key, "first");
    twice.emplace_back(std::move(key), "last");
    Value back;
    ASSERT_EQ(decodeMessage(encodeMessage(twice), &back), CodecError::kNone);
    const bool findable = std::holds_alternative<int32_t>(innermost);
    ASSERT_EQ(back.asMap()->size(), findable ? 21U : 22U);
    EXPECT_EQ(*back.asMap()->at(20).second.asText(), findable ? "last" : "first");
  }
}

// Sixteen pairs, few enough for a search from the head, whose keys are such maps again. Two of one depth differ in
// their last pair alone, so that comparing them goes through nearly all of them.
Value mapOfSmallMaps(int depth, int number) {
  if (depth == 0) return number;
  ValueMap map;
  for (int i = 0; i < 15; ++i) map.emplace_back(mapOfSmallMaps(depth - 1, i), Value());
  map.emplace_back(mapOfSmallMaps(depth - 1, 15 + number), Value());
  return map;
}

// Counted, not timed: each level hashes what is below it a few times and compares hardly anything.
TEST(StandardCodec, SmallMapsThatAreKeysOfMapsTakeWorkLikeTheirSize) {
  uint64_t pairs = 0;
  uint64_t below = 1;
  for (int depth = 1; depth <= 4; ++depth) {
    below *= 16;
    pairs += below;
    const std::vector<uint8_t> bytes = encodeMessage(mapOfSmallMaps(depth, 0));
    const uint64_t before = keyElementsVisited();
    Value back;
    ASSERT_EQ(decodeMessage(bytes, &back), CodecError::kNone);
    const uint64_t visited = keyElementsVisited() - before;
    EXPECT_LE(visited, pairs * 4 * static_cast<uint64_t>(depth)) << depth;
    EXPECT_EQ(back.asMap()->size(), 16U);
  }
}

TEST(StandardCodec, AKeyWithANanInItIsNeverTheSame) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<Value> keys = {double{nan},
                                   std::vector<float>{1, nan},
                                   std::vector<double>{1, nan},
                                   ValueList{1, ValueList{double{nan}}},
                                   ValueMap{{double{nan}, 1}},
                                   ValueMap{{1, double{nan}}}};
  ValueMap map;
  for (int i = 0; i < 20; ++i) map.emplace_back(i, Value());
  for (const Value& key : keys) map.emplace_back(key, Value());
  for (const Value& key : keys) map.emplace_back(key, Value());
  Value back;
  ASSERT_EQ(decodeMessage(encodeMessage(map), &back), CodecError::kNone);
  EXPECT_EQ(back.asMap()->size(), 20 + 2 * keys.size());
}

TEST(StandardCodec, ANullMessageHasNoBytes) {
  Value value = 1;
  EXPECT_EQ(decodeMessage({}, &value), CodecError::kNone);
  EXPECT_TRUE(value.isNull());
  ValueView view;
  EXPECT_EQ(viewMessage({}, &view), CodecError::kOutOfData);
}

TEST(ValueView, FindsSeveralKeysInOneWalk) {
  const std::vector<uint8_t> bytes = encodeMessage(ValueMap{{1, "x"}, {"y", 2}, {ValueList{"x"}, 9}, {"x", 1}});
  ValueView map;
  ASSERT_EQ(viewMessage(bytes, &map), CodecError::kNone);
  const std::array<std::string_view, 3> keys = {"x", "y", "z"};
  std::array<ValueView, 3> values;
  map.findAll(keys, values);
  EXPECT_EQ(values[0].integer(), 1);
  EXPECT_EQ(values[1].integer(), 2);
  EXPECT_TRUE(values[2].isAbsent());
  EXPECT_EQ(values[2].kind(), ValueKind::kAbsent);
}

TEST(ValueView, YieldsTheDefaultOfWhatItIsNot) {
  const std::vector<uint8_t> bytes = encodeMessage("text");
  ValueView text;
  ASSERT_EQ(viewMessage(bytes, &text), CodecError::kNone);
  EXPECT_EQ(text.integer(), 0);
  EXPECT_EQ(text.number(), 0.0);
  EXPECT_FALSE(text.boolean());
  EXPECT_TRUE(text.find("x").isAbsent());
  int64_t element = 0;
  EXPECT_FALSE(text.integerAt(0, &element));
  EXPECT_FALSE(text.isIntegerList());
  EXPECT_TRUE(ValueView().toValue().isNull());
}

TEST(ValueView, ReadsIntegersOfEveryListThatHoldsThem) {
  const std::vector<Value> lists = {ValueList{ValueList{}, 8, int64_t{9}}, std::vector<uint8_t>{7, 8, 9},
                                    std::vector<int32_t>{7, 8, 9}, std::vector<int64_t>{7, 8, 9}};
  for (const Value& list : lists) {
    const std::vector<uint8_t> bytes = encodeMessage(list);
    ValueView view;
    ASSERT_EQ(viewMessage(bytes, &view), CodecError::kNone);
    int64_t element = 0;
    EXPECT_TRUE(view.integerAt(1, &element));
    EXPECT_EQ(element, 8);
    EXPECT_TRUE(view.integerAt(2, &element));
    EXPECT_EQ(element, 9);
    EXPECT_FALSE(view.integerAt(3, &element));
    EXPECT_EQ(view.isIntegerList(), list.asList() == nullptr);
  }
  const std::vector<uint8_t> doubles = encodeMessage(std::vector<double>{1});
  ValueView view;
  ASSERT_EQ(viewMessage(doubles, &view), CodecError::kNone);
  EXPECT_FALSE(view.isIntegerList());
}

TEST(MessageWriter, GrowsPastItsInlineBytes) {
  MessageWriter writer;
  std::vector<uint8_t> large(MessageWriter::kInlineBytes * 3, 0x5a);
  writer.listHead(3);
  writer.byteList(large);
  writer.int32(1);
  writer.byteList(large);
  Value back;
  ASSERT_EQ(decodeMessage(writer.bytes(), &back), CodecError::kNone);
  EXPECT_TRUE(alike(back, ValueList{large, 1, large}));
}

TEST(Envelope, DecodesEachKind) {
  Envelope envelope;
  ASSERT_EQ(decodeEnvelope({}, &envelope), CodecError::kNone);
  EXPECT_EQ(envelope.kind, Envelope::Kind::kNotImplemented);
  ASSERT_EQ(decodeEnvelope(encodeError("c", Value(), 3), &envelope), CodecError::kNone);
  EXPECT_EQ(envelope.kind, Envelope::Kind::kError);
  EXPECT_EQ(envelope.code, "c");
  EXPECT_TRUE(envelope.message.isNull());
  EXPECT_EQ(decodeEnvelope(parseHex("02"), &envelope), CodecError::kBadEnvelope);
  EXPECT_EQ(decodeEnvelope(parseHex("00"), &envelope), CodecError::kOutOfData);
  EXPECT_EQ(decodeEnvelope(parseHex("0000ff"), &envelope), CodecError::kTrailingData);
}

}  // namespace
}  // namespace mirn::test
