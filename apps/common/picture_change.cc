#include "apps/common/picture_change.h"

#include <cstring>

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;

bool samePixels(PixelBuffer& left, PixelBuffer& right) {
  const uint8_t* a = left.baseAddress();
  const uint8_t* b = right.baseAddress();
  if (a == nullptr || b == nullptr) {
    return false;
  }
  size_t row_bytes = left.width() * kBytesPerPixel;
  for (size_t row = 0; row < left.height(); ++row) {
    if (std::memcmp(a + row * left.bytesPerRow(), b + row * right.bytesPerRow(), row_bytes) != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool PictureChange::changed(const PixelBufferRef& picture) {
  PixelBufferRef before = last_;
  last_ = picture;
  if (!before || !picture || before->width() != picture->width() || before->height() != picture->height()) {
    return true;
  }
  if (before.get() == picture.get()) {
    return false;
  }
  before->lockBaseAddress(kPixelBufferLockReadOnly);
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  bool same = samePixels(*before, *picture);
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  before->unlockBaseAddress(kPixelBufferLockReadOnly);
  return !same;
}

}  // namespace mirn
