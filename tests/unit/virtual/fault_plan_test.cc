#include "virtual/fault_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

FaultPlan parse(std::string_view text) {
  FaultPlan plan;
  std::string error;
  EXPECT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
  return plan;
}

std::string errorOf(std::string_view text) {
  FaultPlan plan;
  std::string error;
  EXPECT_FALSE(FaultPlan::parse(text, &plan, &error)) << text;
  return error;
}

std::vector<uint64_t> hits(const FaultPlan& plan, uint64_t until = 12) {
  std::vector<uint64_t> exchanges;
  for (uint64_t exchange = 1; exchange <= until; ++exchange) {
    if (!plan.at(exchange, 3, exchange).empty()) {
      exchanges.push_back(exchange);
    }
  }
  return exchanges;
}

TEST(FaultPlan, AnEmptyTextIsAnEmptyPlan) {
  EXPECT_TRUE(parse("").empty());
  EXPECT_TRUE(parse(" ,;\n\t ").empty());
}

TEST(FaultPlan, EachKindIsRead) {
  const std::pair<std::string_view, FaultKind> kinds[] = {
      {"drop@1", FaultKind::kDrop},
      {"lose@1", FaultKind::kLose},
      {"delay=80@1", FaultKind::kDelay},
      {"corrupt@1", FaultKind::kCorrupt},
      {"truncate=5@1", FaultKind::kTruncate},
      {"split=5@1", FaultKind::kSplit},
      {"duplicate@1", FaultKind::kDuplicate},
      {"refuse=9@1", FaultKind::kRefuse},
      {"garbage=3@1", FaultKind::kGarbage},
      {"stall=10@1", FaultKind::kStall},
      {"write-error@1", FaultKind::kWriteError},
      {"read-error@1", FaultKind::kReadError},
      {"unplug@1", FaultKind::kUnplug},
      {"unplug-after@1", FaultKind::kUnplugAfter},
  };
  for (const auto& [text, kind] : kinds) {
    const FaultPlan plan = parse(text);
    ASSERT_EQ(plan.faults().size(), 1U) << text;
    EXPECT_EQ(plan.faults()[0].kind, kind) << text;
    EXPECT_EQ(plan.text(), text);
  }
}

TEST(FaultPlan, WhenItHits) {
  EXPECT_THAT(hits(parse("drop@3")), ElementsAre(3));
  EXPECT_THAT(hits(parse("drop@3-5")), ElementsAre(3, 4, 5));
  EXPECT_THAT(hits(parse("drop@10+")), ElementsAre(10, 11, 12));
  EXPECT_THAT(hits(parse("drop@*/5")), ElementsAre(5, 10));
  EXPECT_THAT(hits(parse("drop@2-9/3")), ElementsAre(2, 5, 8));
  EXPECT_THAT(hits(parse("drop@3+/4")), ElementsAre(3, 7, 11));
  EXPECT_EQ(hits(parse("drop@*")).size(), 12U);
  EXPECT_THAT(hits(parse("drop@2, lose@7;corrupt@9\ndrop@11")), ElementsAre(2, 7, 9, 11));
}

TEST(FaultPlan, ACommandCountsItsOwnExchanges) {
  const FaultPlan plan = parse("drop@2/c3");
  EXPECT_EQ(plan.at(9, 3, 2).size(), 1U);
  EXPECT_TRUE(plan.at(2, 3, 1).empty());
  EXPECT_TRUE(plan.at(2, 4, 2).empty());
}

TEST(FaultPlan, SeveralFaultsHitTogetherInTheirOrder) {
  const FaultPlan plan = parse("delay=5@1 corrupt@1 duplicate@2");
  const auto faults = plan.at(1, 1, 1);
  ASSERT_EQ(faults.size(), 2U);
  EXPECT_EQ(faults[0]->kind, FaultKind::kDelay);
  EXPECT_EQ(faults[0]->value, 5U);
  EXPECT_EQ(faults[1]->kind, FaultKind::kCorrupt);
}

TEST(FaultPlan, ARefusalWithoutAValueIsStatusOne) {
  EXPECT_EQ(parse("refuse@1").faults()[0].value, 1U);
}

TEST(FaultPlan, GarbageIsGivenInBytesOrInHex) {
  EXPECT_EQ(parse("garbage=9@1").faults()[0].value, 9U);
  EXPECT_THAT(parse("garbage=xCC00aa@1").faults()[0].bytes, ElementsAre(0xCC, 0x00, 0xAA));
}

TEST(FaultPlan, TextGivesTheSamePlanAgain) {
  const std::string text =
      "drop@3, lose@*, delay=80@2-4, corrupt@5+, truncate=12@1, split=5@1/c9, refuse=7@*/10, garbage=xCC01@1, "
      "stall=500@1, lose@2-8/3, lose@2+/3/c9, lose@1+/3, unplug@12";
  EXPECT_EQ(parse(text).text(), text);
}

TEST(FaultPlan, WhatIsNotUnderstoodIsNamed) {
  EXPECT_THAT(errorOf("drop"), HasSubstr("\"drop\""));
  EXPECT_THAT(errorOf("drop@2, explode@3"), HasSubstr("\"explode@3\""));
  for (const std::string_view text : {"drop@0",
                                      "drop@",
                                      "drop@x",
                                      "drop@5-3",
                                      "drop@-3",
                                      "drop@3-",
                                      "drop@+",
                                      "drop@*/0",
                                      "drop@*/",
                                      "drop@3/2",
                                      "drop@3-5/0",
                                      "drop@3+/",
                                      "drop@3-5/x",
                                      "drop@1/c256",
                                      "drop@1/c",
                                      "drop=5@1",
                                      "delay@1",
                                      "delay=@1",
                                      "delay=-1@1",
                                      "delay=99999999999999999999@1",
                                      "refuse=256@1",
                                      "split=64@1",
                                      "garbage=x@1",
                                      "garbage=xA@1",
                                      "garbage=xZZ@1",
                                      "garbage=5000@1",
                                      "@1",
                                      "=@1",
                                      "@",
                                      "=",
                                      "delay=3600001@1",
                                      "drop@18446744073709551616",
                                      "drop@1.5"}) {
    EXPECT_NE(errorOf(text), "") << text;
  }
}

TEST(FaultPlan, AFailedReadingLeavesThePlanAlone) {
  FaultPlan plan = parse("drop@3");
  std::string error;
  EXPECT_FALSE(FaultPlan::parse("drop@4 nonsense", &plan, &error));
  EXPECT_EQ(plan.text(), "drop@3");
}

TEST(FaultPlan, AnyTextIsSurvivedAndWhatIsReadRoundTrips) {
  std::mt19937 random(9);
  const std::string_view pieces[] = {"drop", "delay=5",   "@",  "*", "/", "3", "-",        "+",
                                     "/c",   "garbage=x", "CC", "=", ",", " ", "unplug@1", "\xFF"};
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (unsigned i = random() % 8; i > 0; --i) {
      text += pieces[random() % std::size(pieces)];
    }
    FaultPlan plan;
    std::string error;
    if (FaultPlan::parse(text, &plan, &error)) {
      EXPECT_EQ(parse(plan.text()).text(), plan.text());
    } else {
      EXPECT_NE(error, "");
    }
  }
}

}  // namespace
}  // namespace mirn
