#include "apps/common/pointer_rest.h"

namespace mirn {

void PointerRest::move(int x, int y, Time now) {
  if (moved_ && x == x_ && y == y_) {
    return;
  }
  x_ = x;
  y_ = y;
  moved_ = now;
  placed_ = true;
  sink_.mouseMove(x, y);
}

void PointerRest::settledAt(int x, int y) {
  x_ = x;
  y_ = y;
  moved_.reset();
  placed_ = true;
}

std::optional<PointerRest::Time> PointerRest::due() const {
  if (!moved_) {
    return std::nullopt;
  }
  return *moved_ + kRestAfter;
}

bool PointerRest::settle(Time now, bool force) {
  if (!moved_ || (!force && now < *moved_ + kRestAfter)) {
    return false;
  }
  moved_.reset();
  for (int i = 0; i < kMovesToBeSure; ++i) {
    sink_.mouseMove(x_, y_);
  }
  return true;
}

void PointerRest::again(Time now) {
  if (placed_) {
    moved_ = now;
  }
}

}  // namespace mirn
