#include "apps/common/input_echo.h"

#include <utility>

#include "virtual/frame_strip.h"

namespace mirn {

void InputEcho::sent() {
  MutexGuard guard(mutex_);
  if (!sent_) {
    sent_ = Clock::now();
    outcome_.reset();
  }
}

void InputEcho::reset() {
  MutexGuard guard(mutex_);
  sent_.reset();
  outcome_.reset();
}

void InputEcho::changedPicture(const PixelBufferRef& picture) {
  Clock::time_point now = Clock::now();
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  auto strip = readStripBgra(picture->baseAddress(), static_cast<int>(picture->width()),
                             static_cast<int>(picture->height()), picture->bytesPerRow());
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  MutexGuard guard(mutex_);
  // The first strip of all has nothing before it that it could differ from.
  bool shows_input = !strip || (strip_ && strip->input_digest != digest_);
  strip_ = strip.has_value();
  digest_ = strip ? strip->input_digest : 0;
  if (shows_input && sent_) {
    outcome_ = now - *sent_;
    sent_.reset();
  }
}

std::optional<std::chrono::nanoseconds> InputEcho::takeOutcome() {
  MutexGuard guard(mutex_);
  return std::exchange(outcome_, std::nullopt);
}

bool InputEcho::judgedByStrip() const {
  MutexGuard guard(mutex_);
  return strip_;
}

}  // namespace mirn
