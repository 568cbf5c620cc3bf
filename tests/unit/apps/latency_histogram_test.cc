#include "apps/common/latency_histogram.h"

#include <gtest/gtest.h>

#include <cmath>

namespace mirn {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

TEST(LatencyHistogram, QuantilesOfKnownTimes) {
  LatencyHistogram histogram;
  for (int i = 100; i >= 0; --i) {
    histogram.add(milliseconds(i));
  }
  EXPECT_DOUBLE_EQ(histogram.quantile(0), 0);
  EXPECT_DOUBLE_EQ(histogram.quantile(0.5), 50);
  EXPECT_DOUBLE_EQ(histogram.quantile(0.99), 99);
  EXPECT_DOUBLE_EQ(histogram.quantile(1), 100);
  EXPECT_DOUBLE_EQ(histogram.quantile(7), 100);
  EXPECT_DOUBLE_EQ(histogram.mean(), 50);
}

TEST(LatencyHistogram, EmptyIsZero) {
  LatencyHistogram histogram;
  EXPECT_EQ(histogram.count(), 0U);
  EXPECT_EQ(histogram.quantile(0.5), 0);
  EXPECT_EQ(histogram.mean(), 0);
  EXPECT_TRUE(histogram.buckets().empty());
  EXPECT_EQ(histogram.bars(), "");
}

TEST(LatencyHistogram, BucketsHoldTheirUpperEdge) {
  LatencyHistogram histogram;
  histogram.add(milliseconds(5));
  histogram.add(microseconds(5001));
  histogram.add(milliseconds(2000));
  auto buckets = histogram.buckets();
  EXPECT_EQ(buckets.front().upto_ms, 5);
  EXPECT_EQ(buckets.front().count, 1U);
  EXPECT_EQ(buckets[1].upto_ms, 10);
  EXPECT_EQ(buckets[1].count, 1U);
  EXPECT_TRUE(std::isinf(buckets.back().upto_ms));
  EXPECT_EQ(buckets.back().count, 1U);
}

TEST(LatencyHistogram, BarsAreDrawnToScale) {
  LatencyHistogram histogram;
  for (int i = 0; i < 4; ++i) {
    histogram.add(milliseconds(1));
  }
  histogram.add(milliseconds(2));
  EXPECT_EQ(histogram.bars(),
            "  <=    1.0 ms      4  " + std::string(40, '#') + "\n  <=    2.0 ms      1  ##########\n");
}

}  // namespace
}  // namespace mirn
