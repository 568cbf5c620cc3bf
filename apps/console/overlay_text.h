// The figures of the overlay, composed from statistics.
#pragma once

#include <chrono>
#include <string>

#include "apps/common/latency_histogram.h"
#include "apps/console/picture_feed.h"
#include "apps/console/picture_view.h"

namespace mirn {

// Bound to the main thread. Rates are over the time between two calls.
class OverlayText {
 public:
  // Lines with size, format, rates, drops, latency.
  std::string compose(const HostSessionStatistics& session, PictureFeed& feed, const PictureView& view);

 private:
  std::chrono::steady_clock::time_point last_{};
  uint64_t captured_ = 0;
  uint64_t changed_ = 0;
  uint64_t drawn_ = 0;
  double latency_ms_ = -1;
};

}  // namespace mirn
