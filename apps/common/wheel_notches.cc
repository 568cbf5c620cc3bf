#include "apps/common/wheel_notches.h"

#include <algorithm>
#include <cmath>

namespace mirn {

int WheelNotches::add(double notches) {
  if (!std::isfinite(notches)) {
    return 0;
  }
  // A turn in the other direction starts afresh: leftovers would swallow its beginning.
  if (notches * rest_ < 0) {
    rest_ = 0;
  }
  // One event of more than this many notches is a broken driver's.
  constexpr double kMost = 50;
  rest_ += std::clamp(notches, -kMost, kMost);
  // Sums of fractions such as ten tenths must reach 1.
  constexpr double kSlack = 1e-9;
  double whole = std::trunc(rest_ + std::copysign(kSlack, rest_));
  rest_ -= whole;
  return static_cast<int>(whole);
}

}  // namespace mirn
