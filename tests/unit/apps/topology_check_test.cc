#include "apps/common/topology_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace mirn {
namespace {

TEST(TopologyCheck, OnePlaceIsOneDevice) {
  EXPECT_TRUE(compareTopology("1-4.2", "1-4.2").same);
  EXPECT_FALSE(compareTopology("1-4.2", "1-4.2").elsewhere);
  EXPECT_EQ(compareTopology("1-4.2", "1-4.2").reason, "");
}

TEST(TopologyCheck, TwoPlacesHoldInputBackAndSaysBoth) {
  TopologyVerdict verdict = compareTopology("1-4.2", "1-4");
  EXPECT_FALSE(verdict.same);
  EXPECT_TRUE(verdict.elsewhere);
  EXPECT_THAT(verdict.reason, testing::HasSubstr("port 1-4,"));
  EXPECT_THAT(verdict.reason, testing::HasSubstr("port 1-4.2."));
}

TEST(TopologyCheck, AMissingPartHoldsInputBackToo) {
  EXPECT_FALSE(compareTopology("", "").same);
  EXPECT_FALSE(compareTopology("1-4", "").same);
  EXPECT_FALSE(compareTopology("", "1-4").same);
  EXPECT_FALSE(compareTopology("", "1-4").reason.empty());
  EXPECT_FALSE(compareTopology("1-4", "").elsewhere);
  EXPECT_FALSE(compareTopology("", "1-4").elsewhere);
}

}  // namespace
}  // namespace mirn
