#include "video/letterbox.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace mirn {
namespace {

struct Case {
  size_t width;
  size_t height;
  Letterbox expected;  // scaled width and height, columns left, rows above
};

TEST(LetterboxTest, KnownSizes) {
  const Case cases[] = {
      {1280, 720, {640, 360, 0, 60}},   {1920, 1080, {640, 360, 0, 60}}, {640, 480, {640, 480, 0, 0}},
      {1080, 1920, {270, 480, 185, 0}}, {1366, 768, {640, 359, 0, 60}},  {1600, 900, {640, 360, 0, 60}},
      {1920, 1200, {640, 400, 0, 40}},  {3840, 2160, {640, 360, 0, 60}}, {320, 240, {640, 480, 0, 0}},
      {1024, 768, {640, 480, 0, 0}},    {1280, 1024, {600, 480, 20, 0}}, {2560, 1440, {640, 360, 0, 60}},
      {720, 576, {600, 480, 20, 0}},    {1, 1, {480, 480, 80, 0}},       {480, 640, {360, 480, 140, 0}},
      {10000, 1, {640, 0, 0, 240}},     {1, 10000, {0, 0, 320, 240}},
  };
  for (const Case& one : cases) {
    const auto box = letterbox(one.width, one.height);
    ASSERT_TRUE(box.has_value()) << one.width << "x" << one.height;
    EXPECT_EQ(*box, one.expected) << one.width << "x" << one.height << " gave " << box->width << "x" << box->height
                                  << " at " << box->left << "," << box->top;
  }
}

TEST(LetterboxTest, AnOddRestHasItsLargerBarBelow) {
  const auto box = letterbox(1366, 768);
  EXPECT_EQ(box->top, 60);
  EXPECT_EQ(kCanvasHeight - box->top - box->height, 61);
}

TEST(LetterboxTest, AThousandRandomSizesStayInsideAndKeepTheirShape) {
  std::mt19937 random(99);
  for (int round = 0; round < 1000; ++round) {
    const size_t width = 1 + random() % 8192;
    const size_t height = 1 + random() % 8192;
    const auto box = letterbox(width, height);
    ASSERT_TRUE(box.has_value());
    // Straight from the rule, step by step.
    const double aspect = static_cast<double>(width) / static_cast<double>(height);
    const int scaledWidth = static_cast<int>(std::min(aspect * 480.0, 640.0));
    const int scaledHeight = static_cast<int>(scaledWidth / aspect);
    ASSERT_EQ(box->width, scaledWidth) << width << "x" << height;
    ASSERT_EQ(box->height, scaledHeight) << width << "x" << height;
    ASSERT_GE(box->left, 0);
    ASSERT_GE(box->top, 0);
    ASSERT_LE(box->left + box->width, 640);
    ASSERT_LE(box->top + box->height, 480);
    // Centred: the two bars differ by one at most.
    ASSERT_LE(std::abs(640 - box->width - 2 * box->left), 1);
    ASSERT_LE(std::abs(480 - box->height - 2 * box->top), 1);
    // One side is filled, but for what the two truncations take.
    ASSERT_TRUE(box->width == 640 || box->height >= 480 - std::ceil(1 / aspect) - 1) << width << "x" << height;
  }
}

TEST(LetterboxTest, WhatIsNotFiniteIsRefused) {
  EXPECT_FALSE(letterbox(0, 0));
  EXPECT_FALSE(letterbox(0, 100));
  EXPECT_TRUE(letterbox(100, 0));  // an infinite shape gives an empty picture of full width
  EXPECT_EQ(letterbox(100, 0)->height, 0);
}

TEST(LetterboxTest, HugeSizesAreFine) {
  EXPECT_TRUE(letterbox(SIZE_MAX, SIZE_MAX));
  EXPECT_TRUE(letterbox(SIZE_MAX, 1));
  EXPECT_TRUE(letterbox(1, SIZE_MAX));
}

}  // namespace
}  // namespace mirn
