// From KeyBoardDown to the record's arrival at the back end's write call: the median and the 99th percentile of a
// batch, with the threads pinned, on one processor and across two. The back end is QuickHid, a stand-in of these
// benchmarks that answers at once: neither a HID library nor a device takes part.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "bench/device_proxy/pinned.h"
#include "bench/device_proxy/quick_hid.h"
#include "device/hard_km_proxy.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

using Samples = std::vector<std::chrono::nanoseconds>;

constexpr int kBatch = 400;
constexpr double kHandOversAllowed = 1.3;

// Waits as bareHandOver does: a semaphore would spin first, and on one processor that delays the sending thread.
class WaitingListener : public IKeyMouseListener {
 public:
  void OnUpgradeStep(uint16_t, uint16_t) override {}
  void OnSendMouseResult(int) override {}
  void OnSendKeyboardResult(int) override {
    const std::lock_guard lock(mutex_);
    heard_ = true;
    changed_.notify_one();
  }
  void OnSendUpgradeResult(int, uint16_t, uint16_t) override {}
  void OnSendFirmwareHandSharkeResult(int) override {}

  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return heard_; });
    heard_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool heard_ = false;
};

Samples throughProxy(Placement placement) {
  QuickHid::install();
  WaitingListener listener;
  pinSender(placement);
  HardKMProxy proxy(&listener, g_vid, g_pid);
  pinSubmitter();
  proxy.initKeyMap();
  Samples samples;
  for (int i = 0; i < kBatch; ++i) {
    letSleep(placement);
    const auto start = QuickHid::Clock::now();
    if (i % 2 == 0) {
      proxy.KeyBoardDown(0, 'A');
    } else {
      proxy.KeyBoardUp(0, 'A');
    }
    listener.wait();
    samples.push_back(QuickHid::lastWrite() - start);
  }
  return samples;
}

// The same bytes, written by the thread that has them.
Samples withoutThread(Placement) {
  QuickHid::install();
  pinSubmitter();
  hard_key_mouse device(g_vid, g_pid);
  keyboard_args_type args;
  Samples samples;
  for (int i = 0; i < kBatch; ++i) {
    args.keys[0] = i % 2 == 0 ? 4 : 0;
    const auto start = QuickHid::Clock::now();
    device.send_keyboard(args);
    samples.push_back(QuickHid::lastWrite() - start);
  }
  return samples;
}

Samples bare(Placement placement) {
  return bareHandOver(placement, kBatch);
}

using Percentile = double Percentiles::*;

void report(benchmark::State& state, Samples (*measure)(Placement), Placement placement, Percentile which) {
  for (auto _ : state) {
    Samples samples = measure(placement);
    state.SetIterationTime(percentiles(samples).*which);
  }
}

// What the key path may take.
void reportAllowed(benchmark::State& state, Placement placement, Percentile which) {
  for (auto _ : state) {
    Samples direct = withoutThread(placement);
    Samples hand_over = bareHandOver(placement, kBatch);
    state.SetIterationTime(percentiles(direct).*which + kHandOversAllowed * (percentiles(hand_over).*which));
  }
}

void registerAll() {
  const auto add = [](const std::string& name, auto... arguments) {
    benchmark::RegisterBenchmark(name.c_str(), arguments...)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond)
        ->Iterations(5);
  };
  for (const Placement placement : {Placement::kOneCpu, Placement::kTwoCpus}) {
    for (const Percentile which : {&Percentiles::p50, &Percentiles::p99}) {
      const std::string what = std::string("key path ") + (placement == Placement::kOneCpu ? "one cpu " : "two cpus ") +
                               (which == &Percentiles::p50 ? "p50" : "p99");
      add(what + "/ours", report, throughProxy, placement, which);
      add(what + "/peer:no thread", report, withoutThread, placement, which);
      add(what + "/peer:bare hand-over", report, bare, placement, which);
      add(what + "/peer:no thread + 1.3 hand-overs", reportAllowed, placement, which);
    }
  }
}

}  // namespace
}  // namespace mirn

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  mirn::registerAll();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
