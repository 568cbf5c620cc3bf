#include "apps/common/picture_change.h"

#include <gtest/gtest.h>

#include "apps/common/png_file.h"

namespace mirn {
namespace {

PixelBufferRef picture(size_t width, size_t height, uint8_t fill) {
  PixelBufferRef buffer = PixelBuffer::create(width, height, kPixelFormatBGRA);
  buffer->lockBaseAddress(kPixelBufferLockForWriting);
  for (size_t row = 0; row < height; ++row) {
    std::fill_n(buffer->baseAddress() + row * buffer->bytesPerRow(), width * 4, fill);
  }
  buffer->unlockBaseAddress(kPixelBufferLockForWriting);
  return buffer;
}

TEST(PictureChange, EqualPicturesAreNoChange) {
  PictureChange change;
  EXPECT_TRUE(change.changed(picture(64, 8, 1)));
  EXPECT_FALSE(change.changed(picture(64, 8, 1)));
  EXPECT_FALSE(change.changed(picture(64, 8, 1)));
}

TEST(PictureChange, ASingleByteAnywhereIsAChange) {
  for (size_t place : {size_t{0}, size_t{255}, size_t{7 * 256 + 255}}) {
    PictureChange change;
    change.changed(picture(64, 8, 1));
    PixelBufferRef other = picture(64, 8, 1);
    other->lockBaseAddress(kPixelBufferLockForWriting);
    other->baseAddress()[place / 256 * other->bytesPerRow() + place % 256] ^= 1;
    other->unlockBaseAddress(kPixelBufferLockForWriting);
    EXPECT_TRUE(change.changed(other)) << place;
  }
}

TEST(PictureChange, PaddingBehindTheRowsDoesNotCount) {
  PictureChange change;
  change.changed(picture(3, 4, 1));
  PixelBufferRef other = picture(3, 4, 1);
  ASSERT_GT(other->bytesPerRow(), 12U);
  other->lockBaseAddress(kPixelBufferLockForWriting);
  other->baseAddress()[12] = 99;
  other->unlockBaseAddress(kPixelBufferLockForWriting);
  EXPECT_FALSE(change.changed(other));
}

TEST(PictureChange, AnotherSizeAndForgettingAreChanges) {
  PictureChange change;
  change.changed(picture(64, 8, 1));
  EXPECT_TRUE(change.changed(picture(8, 64, 1)));
  change.forget();
  EXPECT_TRUE(change.changed(picture(8, 64, 1)));
}

TEST(PngFile, EncodesAPictureAndRefusesAnythingElse) {
  std::vector<uint8_t> png = encodePng(picture(16, 9, 0x40));
  ASSERT_GT(png.size(), 33U);
  EXPECT_EQ(std::string(png.begin() + 1, png.begin() + 4), "PNG");
  EXPECT_EQ(png[19], 16);
  EXPECT_EQ(png[23], 9);
  EXPECT_EQ(png[25], 2) << "RGB";
  EXPECT_TRUE(encodePng(PixelBufferRef()).empty());
  EXPECT_TRUE(encodePng(PixelBuffer::create(4, 4, kPixelFormat420v)).empty());
}

TEST(PngFile, AFileThatCanNotBeWrittenIsSaid) {
  std::string error;
  EXPECT_FALSE(writePng(picture(4, 4, 0), "/nonexistent-folder/x.png", &error));
  EXPECT_NE(error.find("/nonexistent-folder/x.png"), std::string::npos);
  EXPECT_FALSE(writePng(PixelBufferRef(), testing::TempDir() + "x.png", &error));
  EXPECT_EQ(error, "There is no picture to save.");
}

TEST(PngFile, ScreenshotsAreNamedByTheirTime) {
  setenv("TZ", "UTC", 1);
  EXPECT_EQ(screenshotName(0), "mirn-1970-01-01-00-00-00.png");
}

}  // namespace
}  // namespace mirn
