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

// Turns one byte of a copy of `picture(1920, 64, 1)`.
PixelBufferRef withByteChanged(size_t row, size_t byte, size_t rows_high = 1) {
  PixelBufferRef other = picture(1920, 64, 1);
  other->lockBaseAddress(kPixelBufferLockForWriting);
  for (size_t i = 0; i < rows_high; ++i) {
    other->baseAddress()[(row + i) * other->bytesPerRow() + byte] ^= 1;
  }
  other->unlockBaseAddress(kPixelBufferLockForWriting);
  return other;
}

TEST(PictureChange, EqualPicturesAreNoChange) {
  PictureChange change;
  EXPECT_EQ(change.changed(picture(64, 8, 1)), (ChangedRows{0, 7}));
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(change.changed(picture(64, 8, 1)), std::nullopt);
  }
}

TEST(PictureChange, ASingleByteAnywhereIsSeenWithinOneRoundOfLooks) {
  for (size_t row : {size_t{0}, size_t{7}, size_t{63}}) {
    for (size_t byte : {size_t{0}, size_t{255}, size_t{256}, size_t{7679}}) {
      PictureChange change;
      change.changed(picture(1920, 64, 1));
      std::optional<ChangedRows> rows;
      for (size_t look = 0; look < PictureChange::kPieces && !rows; ++look) {
        rows = change.changed(withByteChanged(row, byte));
      }
      EXPECT_EQ(rows, (ChangedRows{row, row})) << row << " " << byte;
    }
  }
}

TEST(PictureChange, ACaretIsSeenAtOnceWhereverItStands) {
  for (size_t byte = 0; byte < 7680; byte += 52) {
    PictureChange change;
    change.changed(picture(1920, 64, 1));
    EXPECT_EQ(change.changed(withByteChanged(20, byte, PictureChange::kPieces)),
              (ChangedRows{20, 20 + PictureChange::kPieces - 1}));
  }
}

TEST(PictureChange, AChangeThatWasMissedIsNotLostWhenTheNextPicturesAreEqual) {
  PictureChange change;
  change.changed(picture(1920, 64, 1));
  int seen = 0;
  for (size_t look = 0; look < 3 * PictureChange::kPieces; ++look) {
    PixelBufferRef again = withByteChanged(5, 100);
    seen += change.changed(again) ? 1 : 0;
  }
  EXPECT_EQ(seen, 1);
}

TEST(PictureChange, PaddingBehindTheRowsDoesNotCount) {
  PictureChange change;
  change.changed(picture(3, 4, 1));
  for (size_t look = 0; look < PictureChange::kPieces; ++look) {
    PixelBufferRef other = picture(3, 4, 1);
    ASSERT_GT(other->bytesPerRow(), 12U);
    other->lockBaseAddress(kPixelBufferLockForWriting);
    other->baseAddress()[12] = 99;
    other->unlockBaseAddress(kPixelBufferLockForWriting);
    EXPECT_EQ(change.changed(other), std::nullopt);
  }
}

TEST(PictureChange, AnotherSizeAndForgettingAreChanges) {
  PictureChange change;
  change.changed(picture(64, 8, 1));
  EXPECT_EQ(change.changed(picture(8, 64, 1)), (ChangedRows{0, 63}));
  change.forget();
  EXPECT_EQ(change.changed(picture(8, 64, 1)), (ChangedRows{0, 63}));
  EXPECT_EQ(change.changed(PixelBufferRef()), std::nullopt);
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
