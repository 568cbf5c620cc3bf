#include "apps/common/latency_histogram.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

namespace mirn {
namespace {

constexpr std::array kEdges = {0.1, 0.2, 0.5, 1.0, 2.0, 5.0, 10.0, 20.0, 50.0, 100.0, 200.0, 500.0, 1000.0};

double milliseconds(std::chrono::nanoseconds time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

double LatencyHistogram::quantile(double share) const {
  if (times_.empty()) {
    return 0;
  }
  std::vector<std::chrono::nanoseconds> sorted = times_;
  std::sort(sorted.begin(), sorted.end());
  auto last = static_cast<double>(sorted.size() - 1);
  return milliseconds(sorted[static_cast<size_t>(std::lround(std::clamp(share, 0.0, 1.0) * last))]);
}

double LatencyHistogram::mean() const {
  double sum = 0;
  for (std::chrono::nanoseconds time : times_) {
    sum += milliseconds(time);
  }
  return times_.empty() ? 0 : sum / static_cast<double>(times_.size());
}

std::vector<LatencyHistogram::Bucket> LatencyHistogram::buckets() const {
  std::vector<Bucket> all;
  all.reserve(kEdges.size() + 1);
  for (double edge : kEdges) {
    all.push_back({edge, 0});
  }
  all.push_back({std::numeric_limits<double>::infinity(), 0});
  for (std::chrono::nanoseconds time : times_) {
    size_t place =
        static_cast<size_t>(std::lower_bound(kEdges.begin(), kEdges.end(), milliseconds(time)) - kEdges.begin());
    ++all[place].count;
  }
  auto filled = [](const Bucket& bucket) { return bucket.count != 0; };
  auto first = std::find_if(all.begin(), all.end(), filled);
  auto last = std::find_if(all.rbegin(), all.rend(), filled).base();
  return first < last ? std::vector<Bucket>(first, last) : std::vector<Bucket>();
}

std::string LatencyHistogram::bars() const {
  std::vector<Bucket> shown = buckets();
  size_t most = 1;
  for (const Bucket& bucket : shown) {
    most = std::max(most, bucket.count);
  }
  constexpr size_t kLongest = 40;
  std::string lines;
  for (const Bucket& bucket : shown) {
    std::array<char, 64> head{};
    if (std::isfinite(bucket.upto_ms)) {
      std::snprintf(head.data(), head.size(), "  <= %6.1f ms %6zu  ", bucket.upto_ms, bucket.count);
    } else {
      std::snprintf(head.data(), head.size(), "   > %6.1f ms %6zu  ", kEdges.back(), bucket.count);
    }
    lines += head.data() + std::string((bucket.count * kLongest + most - 1) / most, '#') + "\n";
  }
  return lines;
}

}  // namespace mirn
