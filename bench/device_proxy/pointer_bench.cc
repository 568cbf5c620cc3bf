// What 1000 Hz of pointer input costs: the processor time of the whole process in ten seconds of it, less what the
// pacing alone takes, against two per cent of one processor.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <functional>
#include <thread>

#include "bench/device_proxy/quick_hid.h"
#include "device/hard_km_proxy.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

constexpr std::chrono::milliseconds kPeriod{1};
constexpr int kEvents = 10000;
constexpr double kTwoPerCent = 0.02 * kEvents / 1000;

class SilentListener : public IKeyMouseListener {
 public:
  void OnUpgradeStep(uint16_t, uint16_t) override {}
  void OnSendMouseResult(int) override {}
  void OnSendKeyboardResult(int) override {}
  void OnSendUpgradeResult(int, uint16_t, uint16_t) override {}
  void OnSendFirmwareHandSharkeResult(int) override {}
};

double processSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double cost(const std::function<void(int)>& event) {
  const double before = processSeconds();
  auto due = std::chrono::steady_clock::now();
  for (int i = 0; i < kEvents; ++i) {
    event(i);
    due += kPeriod;
    std::this_thread::sleep_until(due);
  }
  return processSeconds() - before;
}

enum class Mode { kThinned, kEveryMove };

void ours(benchmark::State& state, Mode mode) {
  QuickHid::install();
  SilentListener listener;
  for (auto _ : state) {
    HardKMProxy proxy(&listener, g_vid, g_pid);
    proxy.SetMirnMouseMove(mode == Mode::kEveryMove);
    const double pacing = cost([](int i) { benchmark::DoNotOptimize(i); });
    const uint64_t written = QuickHid::writes();
    const double input = cost([&proxy](int i) { proxy.MouseMove(i % 32768, i * 7 % 32768, false); });
    state.SetIterationTime(std::max(1e-9, input - pacing));
    state.counters["records"] = static_cast<double>(QuickHid::writes() - written);
  }
}

void allowance(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(kTwoPerCent);
}

// Ten seconds each: two repetitions are enough for a median, whatever the command line says.
template <typename... Arguments>
void add(const char* name, Arguments... arguments) {
  benchmark::RegisterBenchmark(name, arguments...)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1)
      ->Repetitions(2);
}

}  // namespace
}  // namespace mirn

int main(int argc, char** argv) {
  using namespace mirn;
  benchmark::Initialize(&argc, argv);
  add("pointer 1000 Hz 10 s thinned/ours", ours, Mode::kThinned);
  add("pointer 1000 Hz 10 s thinned/peer:2 % of a core", allowance);
  add("pointer 1000 Hz 10 s every move/ours", ours, Mode::kEveryMove);
  add("pointer 1000 Hz 10 s every move/peer:2 % of a core", allowance);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
