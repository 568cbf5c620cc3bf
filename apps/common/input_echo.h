// Notices when the picture shows the input that was sent: how long it took from the hand to the screen.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "apps/common/picture_change.h"
#include "deps/pellum/thread_annotations.h"

namespace mirn {

// A target that carries the machine-readable strip is judged by what the strip says of its input, any other by the
// first picture that differs. Thread-safe.
class InputEcho {
 public:
  using Clock = std::chrono::steady_clock;

  // Input was sent just now. A wait that is under way goes on from its own start.
  void sent() MIRN_EXCLUDES(mutex_);
  // Forgets the wait that is under way and its outcome.
  void reset() MIRN_EXCLUDES(mutex_);
  // A picture that differs from the one before, on the raster thread.
  void changedPicture(const PixelBufferRef& picture) MIRN_EXCLUDES(mutex_);
  // The time from the input to the picture, once for each wait that has ended.
  std::optional<std::chrono::nanoseconds> takeOutcome() MIRN_EXCLUDES(mutex_);
  bool judgedByStrip() const MIRN_EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::optional<Clock::time_point> sent_ MIRN_GUARDED_BY(mutex_);
  std::optional<std::chrono::nanoseconds> outcome_ MIRN_GUARDED_BY(mutex_);
  uint32_t digest_ MIRN_GUARDED_BY(mutex_) = 0;
  bool strip_ MIRN_GUARDED_BY(mutex_) = false;
};

}  // namespace mirn
