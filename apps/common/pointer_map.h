// From a point in the window to a point of the target's screen: letterbox, scale, and the device's 0..32767.
#pragma once

namespace mirn {

constexpr int kFullScale = 32767;

enum class Scaling {
  kSharp,  // 1:1 or a whole multiple when the picture fits; shrunk with its aspect kept when it does not
  kFill,   // as large as the view allows, aspect kept
};

// Where the picture lies in the view, in device pixels (window coordinates times the display's scale factor).
struct Placement {
  int left = 0;
  int top = 0;
  int width = 0;
  int height = 0;
};

struct PicturePoint {
  int x = 0;
  int y = 0;
};

// Placement of a picture in a view, all in device pixels. Sizes below 1 give an empty placement.
Placement placePicture(int view_width, int view_height, int picture_width, int picture_height, Scaling scaling);

// The picture pixel under a point of the view (device pixels, fractions allowed), clamped to the picture's edges.
PicturePoint pictureUnder(const Placement& placement, int picture_width, int picture_height, double x, double y);

// Device position of the picture pixel `pixel` of `size`: the first pixel is 0, the last 32767, every other one a
// position well inside it, so that a target that divides by either the size or the size less one lands on the same
// pixel.
int positionOfPixel(int pixel, int size);

}  // namespace mirn
