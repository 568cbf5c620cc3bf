// Has the picture changed? Asked for every captured frame, so that a still picture is neither uploaded nor drawn again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/pixel_buffer.h"

namespace mirn {

// Rows first .. last, both included.
struct ChangedRows {
  size_t first = 0;
  size_t last = 0;

  bool operator==(const ChangedRows&) const = default;
};

// Compares each picture with the last one that counted as changed, on the thread that delivers pictures. Bound to one
// thread at a time. Holds a reference to that picture.
//
// A whole comparison of 1080p pictures at 60 a second would cost a tenth of a core for nothing, and reading a quarter
// of them still a third of that. So each look reads one 64-byte piece in kPieces of every row, another one in each row
// and at each look: a change that is kPieces rows high or kPieces pieces wide (a caret, a pointer, a character) is seen
// at once, a smaller one at the latest kPieces looks later.
class PictureChange {
 public:
  static constexpr size_t kPieces = 8;

  // All rows for the first picture and for another size; nothing when no difference was found.
  std::optional<ChangedRows> changed(const PixelBufferRef& picture);
  // The next picture counts as changed.
  void forget() { last_ = PixelBufferRef(); }

 private:
  PixelBufferRef last_;
  size_t phase_ = 0;
};

}  // namespace mirn
