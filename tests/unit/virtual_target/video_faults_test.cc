#include <gtest/gtest.h>

#include <limits>

#include "virtual/virtual_capture.h"

namespace mirn {
namespace {

constexpr uint64_t kForever = std::numeric_limits<uint64_t>::max();

TEST(VideoFaults, TextBecomesAPlan) {
  std::vector<VideoFault> plan;
  std::string error;
  ASSERT_TRUE(parseVideoFaults("truncate=100@5, corrupt@*/10;stall=800@30\nzero@2-4 lose@7+ flag@* unplug@100 fail@9",
                               &plan, &error))
      << error;
  const std::vector<VideoFault> expected = {
      {VideoFaultKind::kTruncate, 100, 5, 5, 1},  {VideoFaultKind::kCorrupt, 0, 10, kForever, 10},
      {VideoFaultKind::kStall, 800, 30, 30, 1},   {VideoFaultKind::kZero, 0, 2, 4, 1},
      {VideoFaultKind::kLose, 0, 7, kForever, 1}, {VideoFaultKind::kFlag, 0, 1, kForever, 1},
      {VideoFaultKind::kUnplug, 0, 100, 100, 1},  {VideoFaultKind::kFail, 0, 9, 9, 1}};
  EXPECT_EQ(plan, expected);
  EXPECT_TRUE(plan[1].hits(20));
  EXPECT_FALSE(plan[1].hits(21));
  EXPECT_TRUE(plan[3].hits(4));
  EXPECT_FALSE(plan[3].hits(5));
}

TEST(VideoFaults, NothingIsAnEmptyPlan) {
  std::vector<VideoFault> plan(3);
  std::string error;
  EXPECT_TRUE(parseVideoFaults(" ;,\n", &plan, &error));
  EXPECT_TRUE(plan.empty());
}

TEST(VideoFaults, WhatIsNotUnderstoodChangesNothingAndIsNamed) {
  for (const char* text : {"truncate", "@5", "burn@5", "stall=@5", "stall=x@5", "zero=1@5", "zero@", "zero@0",
                           "zero@5-3", "zero@*/0", "zero@-1", "zero@5-", "zero@+", "stall=99999999999@1", "zero@1x"}) {
    std::vector<VideoFault> plan(3);
    std::string error;
    EXPECT_FALSE(parseVideoFaults(text, &plan, &error)) << text;
    EXPECT_EQ(plan.size(), 3U) << text;
    EXPECT_NE(error.find(text), std::string::npos) << error;
  }
}

}  // namespace
}  // namespace mirn
