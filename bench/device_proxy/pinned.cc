#include "bench/device_proxy/pinned.h"

#include <sched.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace mirn {
namespace {

using Clock = std::chrono::steady_clock;

// As the process was started.
const cpu_set_t& allowed() {
  static const cpu_set_t set = [] {
    cpu_set_t cpus;
    sched_getaffinity(0, sizeof cpus, &cpus);
    return cpus;
  }();
  return set;
}

void pin(int rank) {
  int last = 0;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed())) continue;
    last = cpu;
    if (rank-- == 0) break;
  }
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  sched_setaffinity(0, sizeof one, &one);
}

}  // namespace

void pinSender(Placement placement) {
  pin(placement == Placement::kOneCpu ? 0 : 1);
}
void pinSubmitter() {
  pin(0);
}

void letSleep(Placement placement) {
  if (placement == Placement::kOneCpu) {
    for (int i = 0; i < 3; ++i) sched_yield();
    return;
  }
  constexpr std::chrono::microseconds kFallingAsleep{60};
  for (const auto until = Clock::now() + kFallingAsleep; Clock::now() < until;) {
  }
}

Percentiles percentiles(std::vector<std::chrono::nanoseconds>& samples) {
  std::sort(samples.begin(), samples.end());
  const auto at = [&samples](double part) {
    const auto index = static_cast<size_t>(part * static_cast<double>(samples.size() - 1));
    return std::chrono::duration<double>(samples[index]).count();
  };
  return {at(0.5), at(0.99)};
}

std::vector<std::chrono::nanoseconds> bareHandOver(Placement placement, int samples) {
  std::mutex mutex;
  std::condition_variable to_worker;
  std::condition_variable to_caller;
  bool given = false;
  bool stop = false;
  bool taken = false;
  Clock::time_point arrived;

  pinSender(placement);
  std::thread worker([&] {
    std::unique_lock lock(mutex);
    for (;;) {
      to_worker.wait(lock, [&] { return given || stop; });
      if (stop) return;
      arrived = Clock::now();
      given = false;
      taken = true;
      to_caller.notify_one();
    }
  });
  pinSubmitter();

  std::vector<std::chrono::nanoseconds> result;
  for (int i = 0; i < samples; ++i) {
    letSleep(placement);
    const auto start = Clock::now();
    {
      const std::lock_guard lock(mutex);
      given = true;
    }
    to_worker.notify_one();
    std::unique_lock lock(mutex);
    to_caller.wait(lock, [&] { return taken; });
    taken = false;
    result.push_back(arrived - start);
  }
  {
    const std::lock_guard lock(mutex);
    stop = true;
  }
  to_worker.notify_one();
  worker.join();
  return result;
}

}  // namespace mirn
