#include "apps/common/pointer_map.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace mirn {
namespace {

TEST(PlacePicture, ShownOneToOneWhenItFits) {
  Placement place = placePicture(1300, 800, 1280, 720, Scaling::kSharp);
  EXPECT_EQ(place.width, 1280);
  EXPECT_EQ(place.height, 720);
  EXPECT_EQ(place.left, 10);
  EXPECT_EQ(place.top, 40);
}

TEST(PlacePicture, WholeMultiplesOnly) {
  Placement place = placePicture(4000, 2200, 1280, 720, Scaling::kSharp);
  EXPECT_EQ(place.width, 3840);
  EXPECT_EQ(place.height, 2160);
}

TEST(PlacePicture, ShrinksWithItsAspect) {
  Placement wide = placePicture(960, 1000, 1920, 1080, Scaling::kSharp);
  EXPECT_EQ(wide.width, 960);
  EXPECT_EQ(wide.height, 540);
  EXPECT_EQ(wide.top, 230);
  Placement tall = placePicture(3000, 540, 1920, 1080, Scaling::kSharp);
  EXPECT_EQ(tall.width, 960);
  EXPECT_EQ(tall.left, 1020);
}

TEST(PlacePicture, FillUsesAllTheRoom) {
  Placement place = placePicture(1920, 1200, 1280, 720, Scaling::kFill);
  EXPECT_EQ(place.width, 1920);
  EXPECT_EQ(place.height, 1080);
}

TEST(PlacePicture, NothingFitsIntoNothing) {
  EXPECT_EQ(placePicture(0, 100, 1280, 720, Scaling::kFill).width, 0);
  EXPECT_EQ(placePicture(100, 100, 0, 720, Scaling::kFill).width, 0);
  EXPECT_EQ(placePicture(1, 1, 1920, 1080, Scaling::kFill).height, 1);
}

TEST(PictureUnder, EveryPixelOfAOneToOnePictureIsItself) {
  Placement place = placePicture(1300, 800, 1280, 720, Scaling::kSharp);
  for (int x = 0; x < 1280; ++x) {
    ASSERT_EQ(pictureUnder(place, 1280, 720, place.left + x, place.top).x, x);
  }
}

TEST(PictureUnder, ClampsInTheLetterboxAndBeyond) {
  Placement place = placePicture(1300, 800, 1280, 720, Scaling::kSharp);
  EXPECT_EQ(pictureUnder(place, 1280, 720, -50, -50).x, 0);
  EXPECT_EQ(pictureUnder(place, 1280, 720, 0, 0).y, 0);
  EXPECT_EQ(pictureUnder(place, 1280, 720, 1299, 799).x, 1279);
  EXPECT_EQ(pictureUnder(place, 1280, 720, 1e9, 1e9).y, 719);
  EXPECT_EQ(pictureUnder(place, 1280, 720, std::numeric_limits<double>::quiet_NaN(), 0).x, 0);
  EXPECT_EQ(pictureUnder({}, 1280, 720, 5, 5).x, 0);
}

TEST(PictureUnder, AShrunkPicturesPixelIsTheOneUnderTheMiddle) {
  Placement place{0, 0, 640, 360};
  EXPECT_EQ(pictureUnder(place, 1920, 1080, 0, 0).x, 1);
  EXPECT_EQ(pictureUnder(place, 1920, 1080, 639, 359).x, 1918);
}

TEST(PictureUnder, AWholeNumberThatLostALittleOnTheWayIsTheSamePixel) {
  Placement place{0, 25, 630, 354};
  EXPECT_EQ(pictureUnder(place, 1920, 1080, 629, 24.999998).y, 1);
  EXPECT_EQ(pictureUnder(place, 1920, 1080, 629, 25).y, 1);
  EXPECT_EQ(pictureUnder(place, 1920, 1080, 629, 24.5).y, 0);
}

TEST(PositionOfPixel, EndsAreTheEndsOfTheScale) {
  for (int size : {2, 3, 720, 1080, 1280, 1920, 4096}) {
    EXPECT_EQ(positionOfPixel(0, size), 0);
    EXPECT_EQ(positionOfPixel(size - 1, size), 32767) << size;
    EXPECT_EQ(positionOfPixel(-1, size), 0);
    EXPECT_EQ(positionOfPixel(size, size), 32767);
  }
  EXPECT_EQ(positionOfPixel(0, 1), 0);
  EXPECT_EQ(positionOfPixel(5, 0), 0);
}

// Targets turn a position back into a pixel in one of these ways; each must find the pixel that was meant.
TEST(PositionOfPixel, EveryPixelComesBackWhateverTheTargetDividesBy) {
  for (int size : {720, 1080, 1280, 1920}) {
    for (int pixel = 0; pixel < size; ++pixel) {
      int64_t position = positionOfPixel(pixel, size);
      ASSERT_EQ(std::min<int64_t>(position * size / 32767, size - 1), pixel) << size;
      ASSERT_EQ(position * size / 32768, pixel) << size;
      ASSERT_EQ(std::llround(static_cast<double>(position) * (size - 1) / 32767), pixel) << size;
    }
  }
}

}  // namespace
}  // namespace mirn
