// Latencies of pinned threads, as percentiles: across processors a wake-up takes ten times what it takes on one, so an
// unpinned figure says nothing.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

namespace mirn {

// Processors that this process may use, by rank; one twice where there is only one.
enum class Placement { kOneCpu, kTwoCpus };

// Pins the calling thread while it lives; threads it starts inherit the processor.
void pinSender(Placement placement);
void pinSubmitter();

// Lets the other thread fall asleep before the next sample: what is measured is a hand-over to a sleeping thread.
void letSleep(Placement placement);

struct Percentiles {
  double p50 = 0;  // seconds
  double p99 = 0;
};
Percentiles percentiles(std::vector<std::chrono::nanoseconds>& samples);

// A thread that waits on a mutex and a condition variable for one value, and does nothing else: what the machine takes
// for a hand-over. The samples of one batch.
std::vector<std::chrono::nanoseconds> bareHandOver(Placement placement, int samples);

}  // namespace mirn
