// A histogram of waiting times, for people and for scripts.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace mirn {

class LatencyHistogram {
 public:
  void add(std::chrono::nanoseconds time) { times_.push_back(time); }

  size_t count() const { return times_.size(); }
  // In milliseconds; 0 when empty. `share` 0..1: 0.5 is the median.
  double quantile(double share) const;
  double mean() const;

  struct Bucket {
    double upto_ms;  // upper edge; the last one is infinite
    size_t count;
  };
  // Edges 0.1, 0.2, 0.5, 1, 2, 5, ... 1000 ms; leading and trailing empty ones are left out.
  std::vector<Bucket> buckets() const;
  // Lines of "   <= 5 ms  12  ########", the longest bar 40 characters.
  std::string bars() const;

 private:
  std::vector<std::chrono::nanoseconds> times_;
};

}  // namespace mirn
