// Hand-over of a value between two threads pinned to one CPU: two sem_queues against the same ping-pong on one bare
// mutex and condition variables. A sample is a single hand-over, from before the push to after the pop; each iteration
// reports the median of kRoundTrips there and as many back.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "deps/pellum/sem_queue.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRoundTrips = 200;
constexpr int kStop = -1;

void pinToOneCpu() {
  static const int cpu = sched_getcpu();
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// A channel that holds at most one value: what a queue can't be faster than.
class BareSlot {
 public:
  void push(int value) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      value_ = value;
      full_ = true;
    }
    filled_.notify_one();
  }
  int pop() {
    std::unique_lock<std::mutex> lock(mutex_);
    filled_.wait(lock, [this] { return full_; });
    full_ = false;
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable filled_;
  int value_ = 0;
  bool full_ = false;
};

class QueueChannel {
 public:
  QueueChannel() { queue_.open(100); }
  void push(int value) { queue_.push(value); }
  int pop() {
    int value = kStop;
    queue_.pop_timedwait(value, mirn::kWaitForever);
    return value;
  }

 private:
  mirn::sem_queue<int> queue_;
};

double median(std::vector<Clock::duration>& samples) {
  const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
  std::nth_element(samples.begin(), middle, samples.end());
  return std::chrono::duration<double>(*middle).count();
}

template <typename Channel>
void pingPong(benchmark::State& state) {
  pinToOneCpu();
  Channel there;
  Channel back;
  // Handed over with the values.
  Clock::time_point arrived;
  Clock::time_point sent_back;
  std::thread echo([&] {
    pinToOneCpu();
    for (int value = there.pop(); value != kStop; value = there.pop()) {
      arrived = Clock::now();
      sent_back = Clock::now();
      back.push(value);
    }
  });
  std::vector<Clock::duration> samples;
  for (auto _ : state) {
    samples.clear();
    for (int i = 0; i < kRoundTrips; ++i) {
      const Clock::time_point sent = Clock::now();
      there.push(i);
      benchmark::DoNotOptimize(back.pop());
      const Clock::time_point returned = Clock::now();
      samples.push_back(arrived - sent);
      samples.push_back(returned - sent_back);
    }
    state.SetIterationTime(median(samples));
  }
  there.push(kStop);
  echo.join();
}

}  // namespace

BENCHMARK(pingPong<QueueChannel>)->Name("sem_queue hand-over, one CPU/ours")->UseManualTime()->Iterations(60);
BENCHMARK(pingPong<BareSlot>)
    ->Name("sem_queue hand-over, one CPU/peer:condition variable")
    ->UseManualTime()
    ->Iterations(60);

BENCHMARK_MAIN();
