#include "video/mirn_texture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <thread>
#include <vector>

#include "tests/support/video/log_capture.h"

namespace mirn {
namespace {

void fill(const PixelBufferRef& buffer, uint8_t seed) {
  buffer->lockBaseAddress(kPixelBufferLockForWriting);
  for (size_t i = 0; i < buffer->dataSize(); ++i) {
    buffer->baseAddress()[i] = static_cast<uint8_t>(i * 7 + seed);
  }
  buffer->unlockBaseAddress(kPixelBufferLockForWriting);
}

bool sameBytes(const PixelBufferRef& left, const PixelBufferRef& right) {
  left->lockBaseAddress(kPixelBufferLockReadOnly);
  right->lockBaseAddress(kPixelBufferLockReadOnly);
  const bool same = left->dataSize() == right->dataSize() &&
                    std::memcmp(left->baseAddress(), right->baseAddress(), left->dataSize()) == 0;
  right->unlockBaseAddress(kPixelBufferLockReadOnly);
  left->unlockBaseAddress(kPixelBufferLockReadOnly);
  return same;
}

TEST(MirnTextureTest, BeforeAnyFrameThereIsNothing) {
  EXPECT_FALSE(MirnTexture::init()->copyPixelBuffer());
}

TEST(MirnTextureTest, TheNewestFrameIsHandedOutByReference) {
  const auto texture = MirnTexture::init();
  const PixelBufferRef first = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  const PixelBufferRef second = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  const uint64_t copied = pixelBytesCopied();
  texture->updatePixelBuffer(first);
  EXPECT_EQ(first->referenceCount(), 2U);
  texture->updatePixelBuffer(second);
  EXPECT_EQ(first->referenceCount(), 1U);
  const PixelBufferRef shown = texture->copyPixelBuffer();
  EXPECT_EQ(shown, second);
  EXPECT_EQ(second->referenceCount(), 3U);  // ours, the texture's, the engine's
  EXPECT_EQ(texture->copyPixelBuffer(), second);
  EXPECT_EQ(second->locksTaken(), 0U);
  EXPECT_EQ(pixelBytesCopied(), copied);
}

TEST(MirnTextureTest, NoFrameKeepsTheFrameBefore) {
  const auto texture = MirnTexture::init();
  const PixelBufferRef frame = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  texture->updatePixelBuffer(frame);
  texture->updatePixelBuffer({});
  EXPECT_EQ(texture->copyPixelBuffer(), frame);
}

TEST(MirnTextureTest, UnregisteringThisTextureLetsTheFrameGoAndLogs) {
  test::LogCapture log;
  const auto texture = MirnTexture::init();
  const auto other = MirnTexture::init();
  const PixelBufferRef frame = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  texture->updatePixelBuffer(frame);
  texture->onTextureUnregistered(other.get());
  texture->onTextureUnregistered(nullptr);
  EXPECT_EQ(texture->copyPixelBuffer(), frame);
  EXPECT_TRUE(test::LogCapture::lines().empty());
  texture->onTextureUnregistered(texture.get());
  EXPECT_FALSE(texture->copyPixelBuffer());
  EXPECT_EQ(frame->referenceCount(), 1U);
  ASSERT_EQ(test::LogCapture::lines().size(), 1U);
  EXPECT_EQ(test::LogCapture::lines()[0], "onTextureUnregistered release pixelBuffer");
  texture->onTextureUnregistered(texture.get());
  EXPECT_EQ(test::LogCapture::lines().size(), 1U);
}

TEST(MirnTextureTest, TheEndOfATextureLetsTheFrameGo) {
  auto texture = MirnTexture::init();
  const PixelBufferRef frame = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  texture->updatePixelBuffer(frame);
  texture.reset();
  EXPECT_EQ(frame->referenceCount(), 1U);
}

TEST(MirnTextureTest, TheLockIsMadeOnceAndCanBeReplaced) {
  const auto texture = MirnTexture::init();
  const auto lock = texture->locker();
  ASSERT_TRUE(lock);
  EXPECT_EQ(texture->locker(), lock);
  const auto another = std::make_shared<Mutex>();
  texture->setLocker(another);
  EXPECT_EQ(texture->locker(), another);
  texture->setLocker(nullptr);
  ASSERT_TRUE(texture->locker());
  EXPECT_NE(texture->locker(), another);
}

TEST(MirnTextureTest, AHeldLockKeepsTheFrameFromChanging) {
  const auto texture = MirnTexture::init();
  const PixelBufferRef frame = PixelBuffer::create(4, 4, kPixelFormatBGRA);
  const auto lock = texture->locker();
  std::thread writer;
  {
    MutexGuard guard(*lock);
    writer = std::thread([&] { texture->updatePixelBuffer(frame); });
    EXPECT_EQ(frame->referenceCount(), 1U);
  }
  writer.join();
  EXPECT_EQ(texture->copyPixelBuffer(), frame);
}

// ---- utilities

TEST(MirnTextureCopyTest, ADeepCopyHasTheSameBytesInEveryFormat) {
  const auto texture = MirnTexture::init();
  for (const PixelFormat format : {kPixelFormatBGRA, kPixelFormatYuvs, kPixelFormat420v, kPixelFormat420f,
                                   kPixelFormat422v, kPixelFormat422f, kPixelFormat444v, kPixelFormat444f}) {
    SCOPED_TRACE(fourCharText(format));
    const PixelBufferRef source = PixelBuffer::create(7, 5, format);
    fill(source, 3);
    const PixelBufferRef copy = texture->createPixelBufferWithExample(source);
    ASSERT_TRUE(copy);
    EXPECT_NE(copy, source);
    EXPECT_EQ(copy->format(), format);
    EXPECT_EQ(copy->width(), 7U);
    EXPECT_EQ(copy->height(), 5U);
    EXPECT_TRUE(copy->attributes().ioSurfaceBacked);
    EXPECT_TRUE(sameBytes(copy, source));
    EXPECT_EQ(copy->referenceCount(), 1U);
  }
}

TEST(MirnTextureCopyTest, ABufferThatCantBeMadeIsLoggedInItsOwnWords) {
  test::LogCapture log;
  uint8_t bytes[4] = {};
  const auto texture = MirnTexture::init();
  EXPECT_FALSE(texture->createPixelBufferWithExample(PixelBuffer::wrap(0, 1, kPixelFormatBGRA, bytes, 4)));
  ASSERT_EQ(test::LogCapture::lines().size(), 1U);
  EXPECT_EQ(test::LogCapture::lines()[0], "无法创建新的像素缓冲区");
  EXPECT_FALSE(texture->createPixelBufferWithExample({}));
}

TEST(MirnTextureCopyTest, DifferentStridesCopyTheCommonRowWidth) {
  const auto texture = MirnTexture::init();
  std::vector<uint8_t> wide(3 * 24);
  std::iota(wide.begin(), wide.end(), uint8_t{1});
  std::vector<uint8_t> narrow(3 * 16, 0);
  const PixelBufferRef source = PixelBuffer::wrap(4, 3, kPixelFormatBGRA, wide.data(), 24);
  const PixelBufferRef destination = PixelBuffer::wrap(4, 3, kPixelFormatBGRA, narrow.data(), 16);
  texture->copypixelbuffer(destination, source, kPixelFormatBGRA);
  for (size_t y = 0; y < 3; ++y) {
    for (size_t x = 0; x < 16; ++x) {
      ASSERT_EQ(narrow[y * 16 + x], wide[y * 24 + x]);
    }
  }
  std::vector<uint8_t> wider(3 * 32, 0xaa);
  const PixelBufferRef larger = PixelBuffer::wrap(4, 3, kPixelFormatBGRA, wider.data(), 32);
  texture->copypixelbuffer(larger, source, kPixelFormatBGRA);
  for (size_t y = 0; y < 3; ++y) {
    for (size_t x = 0; x < 32; ++x) {
      ASSERT_EQ(wider[y * 32 + x], x < 24 ? wide[y * 24 + x] : 0xaa);
    }
  }
}

TEST(MirnTextureCopyTest, EqualStridesCopyTheWholeBlock) {
  const auto texture = MirnTexture::init();
  std::vector<uint8_t> from(2 * 20);
  std::iota(from.begin(), from.end(), uint8_t{0});
  std::vector<uint8_t> to(2 * 20, 0);
  texture->copypixelbuffer(PixelBuffer::wrap(4, 2, kPixelFormatBGRA, to.data(), 20),
                           PixelBuffer::wrap(4, 2, kPixelFormatBGRA, from.data(), 20), kPixelFormatBGRA);
  EXPECT_EQ(to, from);  // the padding too
}

TEST(MirnTextureCopyTest, ASmallerDestinationIsNeverOverrun) {
  const auto texture = MirnTexture::init();
  const PixelBufferRef source = PixelBuffer::create(64, 64, kPixelFormat420v);
  fill(source, 9);
  const PixelBufferRef destination = PixelBuffer::create(16, 8, kPixelFormat420v);
  texture->copypixelbuffer(destination, source, kPixelFormat420v);
  const PixelBufferRef single = PixelBuffer::create(16, 8, kPixelFormatBGRA);
  texture->copypixelbuffer(single, source, kPixelFormat420v);  // has one plane only
  texture->copypixelbuffer(single, single, kPixelFormatBGRA);
  texture->copypixelbuffer({}, source, kPixelFormatBGRA);
  texture->copypixelbuffer(single, {}, kPixelFormatBGRA);
  EXPECT_EQ(single->baseAddress(), nullptr);  // locked and given back each time
  EXPECT_EQ(source->baseAddress(), nullptr);
}

TEST(MirnTextureCopyTest, ASinglePlaneUnderAPlanarFormatCodeCopiesNothing) {
  const auto texture = MirnTexture::init();
  const PixelBufferRef source = PixelBuffer::create(8, 8, kPixelFormatBGRA);
  fill(source, 1);
  const PixelBufferRef destination = PixelBuffer::create(8, 8, kPixelFormatBGRA);
  const uint64_t before = pixelBytesCopied();
  texture->copypixelbuffer(destination, source, kPixelFormat420v);  // zero planes are walked: that is meant
  EXPECT_EQ(pixelBytesCopied(), before);
}

TEST(MirnTextureImportTest, PackedPixelsBecomeAnOpaqueBuffer) {
  const auto texture = MirnTexture::init();
  constexpr int64_t kWidth = 19;
  constexpr int64_t kHeight = 3;
  std::vector<uint8_t> pixels(kWidth * kHeight * 4);
  std::iota(pixels.begin(), pixels.end(), uint8_t{5});
  const PixelBufferRef buffer = texture->createPixelBufferFromRGBData(pixels.data(), kWidth, kHeight);
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->format(), kPixelFormatBGRA);
  EXPECT_TRUE(buffer->attributes().cgImageCompatible);
  EXPECT_TRUE(buffer->attributes().cgBitmapContextCompatible);
  buffer->lockBaseAddress(kPixelBufferLockReadOnly);
  for (size_t y = 0; y < kHeight; ++y) {
    for (size_t x = 0; x < kWidth; ++x) {
      const uint8_t* from = pixels.data() + (y * kWidth + x) * 4;
      const uint8_t* to = buffer->baseAddress() + y * buffer->bytesPerRow() + x * 4;
      ASSERT_EQ(to[0], from[0]);
      ASSERT_EQ(to[1], from[1]);
      ASSERT_EQ(to[2], from[2]);
      ASSERT_EQ(to[3], 255);
    }
  }
}

TEST(MirnTextureImportTest, NothingToImportIsNullWithoutALine) {
  test::LogCapture log;
  const auto texture = MirnTexture::init();
  const uint8_t pixel[4] = {};
  EXPECT_FALSE(texture->createPixelBufferFromRGBData(nullptr, 1, 1));
  EXPECT_FALSE(texture->createPixelBufferFromRGBData(pixel, 0, 1));
  EXPECT_FALSE(texture->createPixelBufferFromRGBData(pixel, 1, 0));
  EXPECT_TRUE(test::LogCapture::lines().empty());
}

TEST(MirnTextureImportTest, AnImpossibleSizeIsLoggedWithItsStatus) {
  test::LogCapture log;
  const auto texture = MirnTexture::init();
  const uint8_t pixel[4] = {};
  EXPECT_FALSE(texture->createPixelBufferFromRGBData(pixel, -1, 1));
  EXPECT_FALSE(texture->createPixelBufferFromRGBData(pixel, 1, int64_t{1} << 40));
  ASSERT_EQ(test::LogCapture::lines().size(), 2U);
  EXPECT_EQ(test::LogCapture::lines()[0], "Failed to create CVPixelBuffer: -6680");
}

}  // namespace
}  // namespace mirn
