// From the bytes of a "keyDown" to the bytes handed to the device, on one CPU. Ours goes through the sending thread;
// the peer is the same work on the calling thread plus 1.3 bare hand-overs between two threads, measured here too.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "device/hard_key_mouse.h"
#include "device/hard_km_proxy.h"
#include "embedding/plugin_registrar.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_host.h"
#include "plugin/mirn_manager.h"
#include "plugin/registration.h"
#include "virtual/virtual_hid.h"

namespace mirn {
namespace {

using SteadyClock = std::chrono::steady_clock;

// When the last report was handed to the device.
std::atomic<int64_t> g_written_at{0};

int64_t nowNs() {
  return SteadyClock::now().time_since_epoch().count();
}

int stampedWrite(hid_device* device, const unsigned char* data, size_t length) {
  g_written_at.store(nowNs(), std::memory_order_release);
  return VirtualHid::functions().write(device, data, length);
}

// A device that answers at once, behind a table that notes the time of each report.
class Device {
 public:
  Device() {
    VirtualMirnSettings settings;
    settings.latency = {};
    settings.jitter = {};
    settings.warm_up_latency = {};
    settings.history_limit = 1;
    device_ = std::make_shared<VirtualMirn>(settings);
    VirtualHid::instance().add(device_);
    static HidFunctions functions;
    functions = VirtualHid::functions();
    functions.write = stampedWrite;
    hostInstallHidFunctions(&functions);
  }
  ~Device() {
    hostReleaseProxy();
    hostInstallHidFunctions(&VirtualHid::functions());
    VirtualHid::instance().remove(device_);
  }

 private:
  std::shared_ptr<VirtualMirn> device_;
};

// The whole process on one CPU while it lives.
class Pinned {
 public:
  Pinned() {
    sched_getaffinity(0, sizeof(before_), &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (!CPU_ISSET(cpu, &before_)) continue;
      CPU_SET(cpu, &one);
      break;
    }
    sched_setaffinity(0, sizeof(one), &one);
  }
  ~Pinned() { sched_setaffinity(0, sizeof(before_), &before_); }

 private:
  cpu_set_t before_;
};

struct NoTextures : TextureRegistry {
  int64_t registerTexture(std::shared_ptr<ExternalTexture>) override { return 1; }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t) override {}
};

class OneHandler final : public BinaryMessenger, public BinaryReplySink {
 public:
  void send(std::string_view, std::span<const uint8_t>, std::function<void(std::span<const uint8_t>)>) override {}
  void setMessageHandler(std::string_view, std::shared_ptr<BinaryMessageHandler> handler) override {
    handler_ = std::move(handler);
  }
  void clearMessageHandler(std::string_view, const BinaryMessageHandler*) override { handler_.reset(); }
  void deliver(std::span<const uint8_t> message) { handler_->onMessage(message, BinaryReply(this)); }
  void answered(std::span<const uint8_t>) override {}
  void dropped() override {}

 private:
  std::shared_ptr<BinaryMessageHandler> handler_;
};

std::vector<uint8_t> keyMessage(int round) {
  // Alternating, so that each call changes the held keys and sends a record.
  return encodeMethodCall(round % 2 == 0 ? "keyDown" : "keyUp", ValueMap{{"key", 65}});
}

void waitForOutcomes(uint64_t count) {
  while (hostLinkStatistics().keyboardSent + hostLinkStatistics().keyboardFailed < count) std::this_thread::yield();
}

// One iteration is the median of so many calls: the scheduler's hiccups are not the subject.
constexpr int kCallsInAMedian = 101;

template <typename OneCall>
double medianSeconds(const OneCall& one_call) {
  std::array<double, kCallsInAMedian> nanoseconds;
  for (double& each : nanoseconds) each = one_call();
  const auto middle = nanoseconds.begin() + kCallsInAMedian / 2;
  std::nth_element(nanoseconds.begin(), middle, nanoseconds.end());
  return *middle * 1e-9;
}

void endToEndOurs(benchmark::State& state) {
  const Pinned pinned;
  const Device device;
  OneHandler messenger;
  PluginRegistrar registrar(messenger, std::make_shared<NoTextures>());
  registerFlutterMirnPluginCApi(registrar);
  if (!mirn_->initKmProxy()) state.SkipWithError("no connection to the virtual device");
  const std::vector<uint8_t> messages[2] = {keyMessage(0), keyMessage(1)};
  uint64_t outcomes = hostLinkStatistics().keyboardSent + hostLinkStatistics().keyboardFailed;
  int round = 0;
  // The sending thread waits on its queue again before the next call, as it does between a person's keys.
  const auto one_call = [&] {
    const int64_t begin = nowNs();
    messenger.deliver(messages[round++ % 2]);
    waitForOutcomes(++outcomes);
    return static_cast<double>(g_written_at.load() - begin);
  };
  for (auto _ : state) state.SetIterationTime(medianSeconds(one_call));
}

// One value from thread to thread with mutex and condition variable, the receiver asleep.
class HandOver {
 public:
  HandOver() : thread_([this] { run(); }) {}
  ~HandOver() {
    give(-1);
    thread_.join();
  }
  // Nanoseconds until the other thread had it.
  int64_t once() {
    const int64_t begin = nowNs();
    give(begin);
    while (taken_at_.load(std::memory_order_acquire) < begin) std::this_thread::yield();
    return taken_at_.load() - begin;
  }

 private:
  void give(int64_t value) {
    {
      const std::lock_guard guard(mutex_);
      value_ = value;
    }
    condition_.notify_one();
  }
  void run() {
    for (;;) {
      std::unique_lock lock(mutex_);
      condition_.wait(lock, [this] { return value_ != 0; });
      if (value_ < 0) return;
      value_ = 0;
      taken_at_.store(nowNs(), std::memory_order_release);
    }
  }

  std::mutex mutex_;
  std::condition_variable condition_;
  int64_t value_ = 0;
  std::atomic<int64_t> taken_at_{0};
  std::thread thread_;
};

void endToEndBare(benchmark::State& state) {
  const Pinned pinned;
  const Device device;
  hard_key_mouse link(g_vid, g_pid);
  HandOver hand_over;
  const std::vector<uint8_t> messages[2] = {keyMessage(0), keyMessage(1)};
  int round = 0;
  const auto one_call = [&] {
    const int64_t begin = nowNs();
    MethodCallView call;
    viewMethodCall(messages[round % 2], &call);
    keyboard_args_type keys;
    keys.keys[0] = round++ % 2 == 0 && call.arguments.find("key").integer() == 65 ? 0x04 : 0;
    link.send_keyboard(keys);
    return static_cast<double>(g_written_at.load() - begin);
  };
  const auto one_hand_over = [&hand_over] { return static_cast<double>(hand_over.once()); };
  for (auto _ : state) state.SetIterationTime(medianSeconds(one_call) + 1.3 * medianSeconds(one_hand_over));
}

// The rest of each call, while the sending thread comes to rest, isn't in the time that Google Benchmark sees.
constexpr int kMedians = 60;

BENCHMARK(endToEndOurs)
    ->Name("channel_end_to_end/ours")
    ->UseManualTime()
    ->Iterations(kMedians)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(endToEndBare)
    ->Name("channel_end_to_end/peer:same_work_and_1.3_hand_overs")
    ->UseManualTime()
    ->Iterations(kMedians)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace mirn
