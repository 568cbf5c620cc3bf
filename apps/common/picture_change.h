// Has the picture changed? Asked for every captured frame, so that a still picture is neither uploaded nor drawn again.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/pixel_buffer.h"

namespace mirn {

// Compares each picture with the one before it, row by row with memcmp, on the thread that delivers pictures.
// Bound to one thread at a time. Holds a reference to the picture it saw last.
class PictureChange {
 public:
  // True for the first picture, for another size, and when any pixel differs.
  bool changed(const PixelBufferRef& picture);
  // The next picture counts as changed.
  void forget() { last_ = PixelBufferRef(); }

 private:
  PixelBufferRef last_;
};

}  // namespace mirn
