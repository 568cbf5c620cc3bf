// Draws one picture into the current OpenGL framebuffer: uploads what changed, scales with a filter that fits.
#pragma once

#include <string>

#include "apps/common/picture_change.h"
#include "apps/common/pointer_map.h"

namespace mirn {

// Bound to the thread and the OpenGL context (3.2 core or ES 3.0) in which init() was called.
class GlPainter {
 public:
  // False with the reason when the shaders can't be built.
  bool init(bool embedded, std::string* error);
  void destroy();

  // Copies the rows of the picture into the texture; all of them when the size is new.
  void upload(const PixelBufferRef& picture, const ChangedRows& rows);
  void forget() { width_ = height_ = 0; }
  bool hasPicture() const { return width_ > 0; }
  int width() const { return width_; }
  int height() const { return height_; }

  // Clears the view and draws the picture at its place. All in framebuffer pixels, origin at the upper left.
  void draw(const Placement& placement, int view_height) const;

 private:
  unsigned program_ = 0;
  unsigned texture_ = 0;
  unsigned array_ = 0;
  int step_place_ = -1;
  int taps_place_ = -1;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace mirn
