#include "apps/common/wheel_notches.h"

#include <gtest/gtest.h>

#include <limits>

namespace mirn {
namespace {

TEST(WheelNotches, AWheelClickIsOneNotch) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(1), 1);
  EXPECT_EQ(wheel.add(-1), -1);
}

TEST(WheelNotches, FractionsAddUp) {
  WheelNotches wheel;
  int notches = 0;
  for (int i = 0; i < 10; ++i) {
    notches += wheel.add(0.1);
  }
  EXPECT_EQ(notches, 1);
  for (int i = 0; i < 30; ++i) {
    notches += wheel.add(-0.1);
  }
  EXPECT_EQ(notches, -2);
}

TEST(WheelNotches, TurningBackStartsAfresh) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(0.9), 0);
  EXPECT_EQ(wheel.add(-0.5), 0);
  EXPECT_EQ(wheel.add(-0.5), -1);
}

TEST(WheelNotches, ResetForgets) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(0.9), 0);
  wheel.reset();
  EXPECT_EQ(wheel.add(0.9), 0);
}

TEST(WheelNotches, NonsenseAndHugeValuesAreHarmless) {
  WheelNotches wheel;
  EXPECT_EQ(wheel.add(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(wheel.add(std::numeric_limits<double>::infinity()), 0);
  EXPECT_EQ(wheel.add(1e300), 50);
  EXPECT_EQ(wheel.add(1.5), 1);
}

}  // namespace
}  // namespace mirn
