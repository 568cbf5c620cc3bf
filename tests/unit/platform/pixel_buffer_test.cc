#include "platform/pixel_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>

namespace mirn {
namespace {

TEST(PixelBufferTest, AFourCharacterCodeHasItsFirstCharacterOnTop) {
  EXPECT_EQ(kPixelFormatBGRA, 0x42475241U);
  EXPECT_EQ(fourCharText(kPixelFormat420v), "420v");
  EXPECT_EQ(fourCharText(0x00010220), "??? ");
}

TEST(PixelBufferTest, ABgraBufferIsOneZeroedAlignedPlane) {
  const PixelBufferRef buffer = PixelBuffer::create(1366, 3, kPixelFormatBGRA);
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->planeCount(), 0U);
  EXPECT_EQ(buffer->width(), 1366U);
  EXPECT_EQ(buffer->height(), 3U);
  EXPECT_GE(buffer->bytesPerRow(), 1366U * 4);
  EXPECT_EQ(buffer->bytesPerRow() % kPixelBufferAlignment, 0U);
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer->baseAddress()) % kPixelBufferAlignment, 0U);
  for (size_t i = 0; i < buffer->dataSize(); ++i) {
    ASSERT_EQ(buffer->baseAddress()[i], 0);
  }
  buffer->unlockBaseAddress(kPixelBufferLockReadOnly);
}

struct PlaneCase {
  PixelFormat format;
  size_t chromaWidth;
  size_t chromaHeight;
};

TEST(PixelBufferTest, BiPlanarBuffersHaveChromaOfTheirSubsampling) {
  const PlaneCase cases[] = {{kPixelFormat420v, 4, 3}, {kPixelFormat420f, 4, 3}, {kPixelFormat422v, 4, 5},
                             {kPixelFormat422f, 4, 5}, {kPixelFormat444v, 7, 5}, {kPixelFormat444f, 7, 5}};
  for (const PlaneCase& expected : cases) {
    SCOPED_TRACE(fourCharText(expected.format));
    EXPECT_TRUE(isBiPlanar(expected.format));
    const PixelBufferRef buffer = PixelBuffer::create(7, 5, expected.format);
    ASSERT_TRUE(buffer);
    ASSERT_EQ(buffer->planeCount(), 2U);
    EXPECT_EQ(buffer->widthOfPlane(1), expected.chromaWidth);
    EXPECT_EQ(buffer->heightOfPlane(1), expected.chromaHeight);
    EXPECT_GE(buffer->bytesPerRowOfPlane(1), expected.chromaWidth * 2);
    EXPECT_EQ(buffer->heightOfPlane(0), 5U);
    EXPECT_EQ(buffer->bytesPerRowOfPlane(2), 0U);
  }
  EXPECT_FALSE(isBiPlanar(kPixelFormatBGRA));
  EXPECT_FALSE(isBiPlanar(kPixelFormatYuvs));
}

TEST(PixelBufferTest, AnImpossibleSizeFailsWithItsStatus) {
  PixelBufferStatus status = kPixelBufferSuccess;
  EXPECT_FALSE(PixelBuffer::create(0, 5, kPixelFormatBGRA, {}, &status));
  EXPECT_EQ(status, kPixelBufferInvalidSize);
  EXPECT_FALSE(PixelBuffer::create(SIZE_MAX, 1, kPixelFormatBGRA, {}, &status));
  EXPECT_EQ(status, kPixelBufferInvalidSize);
  EXPECT_TRUE(PixelBuffer::create(1, 1, kPixelFormatBGRA, {}, &status));
  EXPECT_EQ(status, kPixelBufferSuccess);
}

TEST(PixelBufferTest, TheBaseAddressIsThereWhileTheBufferIsLocked) {
  const PixelBufferRef buffer = PixelBuffer::create(2, 2, kPixelFormatBGRA);
  EXPECT_EQ(buffer->baseAddress(), nullptr);
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  buffer->lockBaseAddress(kPixelBufferLockForWriting);
  EXPECT_EQ(buffer->unlockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferSuccess);
  EXPECT_NE(buffer->baseAddress(), nullptr);
  EXPECT_EQ(buffer->unlockBaseAddress(kPixelBufferLockReadOnly), kPixelBufferNotLocked);
  EXPECT_EQ(buffer->unlockBaseAddress(kPixelBufferLockForWriting), kPixelBufferSuccess);
  EXPECT_EQ(buffer->baseAddress(), nullptr);
  EXPECT_EQ(buffer->locksTaken(), 2U);
}

TEST(PixelBufferTest, WrappedMemoryIsGivenBackWithTheLastReference) {
  uint8_t bytes[16] = {};
  int released = 0;
  PixelBufferRef buffer = PixelBuffer::wrap(2, 2, kPixelFormatBGRA, bytes, 8, [&released] { ++released; });
  PixelBufferRef second = buffer;
  buffer.reset();
  EXPECT_EQ(released, 0);
  second.reset();
  EXPECT_EQ(released, 1);
}

TEST(PixelBufferPoolTest, ReusesWhatNobodyHolds) {
  PixelBufferPool pool(4, 4, kPixelFormatBGRA, 3);
  std::set<PixelBuffer*> seen;
  for (int i = 0; i < 100; ++i) {
    const PixelBufferRef buffer = pool.acquire();
    ASSERT_TRUE(buffer);
    seen.insert(buffer.get());
  }
  EXPECT_EQ(seen.size(), 1U);
  EXPECT_EQ(pool.allocations(), 1U);
}

TEST(PixelBufferPoolTest, GivesNothingWhenEverythingIsHeldAndGoesOnWhenItIsNot) {
  PixelBufferPool pool(4, 4, kPixelFormatBGRA, 2);
  PixelBufferRef first = pool.acquire();
  const PixelBufferRef second = pool.acquire();
  EXPECT_NE(first, second);
  EXPECT_FALSE(pool.acquire());
  PixelBuffer* const freed = first.get();
  first.reset();
  EXPECT_EQ(pool.acquire().get(), freed);
  EXPECT_EQ(pool.allocations(), 2U);
}

TEST(PixelBufferPoolTest, PicturesOutliveTheirPool) {
  PixelBufferRef kept;
  {
    PixelBufferPool pool(4, 4, kPixelFormatBGRA, 2);
    kept = pool.acquire();
  }
  EXPECT_EQ(kept->referenceCount(), 1U);
}

}  // namespace
}  // namespace mirn
