// Smooth scrolling adds up to whole wheel notches.
#pragma once

namespace mirn {

// Reentrant. One object per scrolling axis.
class WheelNotches {
 public:
  // Adds a movement in notches (a wheel's click is 1.0); returns the whole notches due, negative = up.
  int add(double notches);
  // A new gesture or a lost focus: a started notch is forgotten.
  void reset() { rest_ = 0; }

 private:
  double rest_ = 0;
};

// Touchpads report window pixels: this many make one notch.
constexpr double kPixelsPerNotch = 15.0;

}  // namespace mirn
