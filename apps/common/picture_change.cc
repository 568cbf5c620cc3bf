#include "apps/common/picture_change.h"

#include <algorithm>
#include <cstring>

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;
constexpr size_t kPieceBytes = 64;  // one cache line

// Two pictures of one size, locked for reading while this lives.
class Pair {
 public:
  Pair(PixelBuffer& left, PixelBuffer& right) : left_(left), right_(right) {
    left_.lockBaseAddress(kPixelBufferLockReadOnly);
    right_.lockBaseAddress(kPixelBufferLockReadOnly);
    left_pixels_ = left_.baseAddress();
    right_pixels_ = right_.baseAddress();
  }
  ~Pair() {
    right_.unlockBaseAddress(kPixelBufferLockReadOnly);
    left_.unlockBaseAddress(kPixelBufferLockReadOnly);
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  bool readable() const { return left_pixels_ != nullptr && right_pixels_ != nullptr; }
  size_t rows() const { return left_.height(); }

  bool sameRow(size_t row) const { return sameBytes(row, 0, left_.width() * kBytesPerPixel); }

  // Looks at every kPieces-th piece of a row.
  bool sameSample(size_t row, size_t phase) const {
    size_t row_bytes = left_.width() * kBytesPerPixel;
    for (size_t at = (row + phase) % PictureChange::kPieces * kPieceBytes; at < row_bytes;
         at += PictureChange::kPieces * kPieceBytes) {
      if (!sameBytes(row, at, std::min(kPieceBytes, row_bytes - at))) {
        return false;
      }
    }
    return true;
  }

 private:
  bool sameBytes(size_t row, size_t at, size_t length) const {
    return std::memcmp(left_pixels_ + row * left_.bytesPerRow() + at, right_pixels_ + row * right_.bytesPerRow() + at,
                       length) == 0;
  }

  PixelBuffer& left_;
  PixelBuffer& right_;
  const uint8_t* left_pixels_ = nullptr;
  const uint8_t* right_pixels_ = nullptr;
};

std::optional<ChangedRows> difference(const Pair& pair, size_t phase) {
  size_t found = 0;
  while (found < pair.rows() && pair.sameSample(found, phase)) {
    ++found;
  }
  if (found == pair.rows()) {
    return std::nullopt;
  }
  ChangedRows rows{found, found};
  for (size_t row = 0; row < found; ++row) {
    if (!pair.sameRow(row)) {
      rows.first = row;
      break;
    }
  }
  for (size_t row = pair.rows() - 1; row > found; --row) {
    if (!pair.sameRow(row)) {
      rows.last = row;
      break;
    }
  }
  return rows;
}

}  // namespace

std::optional<ChangedRows> PictureChange::changed(const PixelBufferRef& picture) {
  if (!picture || picture->height() == 0) {
    return std::nullopt;
  }
  if (last_ && last_.get() == picture.get()) {
    return std::nullopt;
  }
  std::optional<ChangedRows> rows = ChangedRows{0, picture->height() - 1};
  if (last_ && last_->width() == picture->width() && last_->height() == picture->height()) {
    Pair pair(*last_, *picture);
    if (pair.readable()) {
      rows = difference(pair, phase_++);
    }
  }
  if (rows) {
    last_ = picture;
  }
  return rows;
}

}  // namespace mirn
