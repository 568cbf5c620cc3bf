// From the bytes of a call to the bytes of its answer, against msgpack merely unpacking the same data.
#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <msgpack.hpp>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/sem_queue.h"
#include "device/hard_key_mouse.h"
#include "device/vx_tasks.h"
#include "embedding/plugin_registrar.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_host.h"
#include "plugin/mirn_manager.h"
#include "plugin/perfect_index.h"
#include "plugin/registration.h"
#include "tests/unit/embedding/allocation_count.h"
#include "virtual/virtual_hid.h"

namespace mirn {
namespace {

struct NoTextures : TextureRegistry {
  int64_t registerTexture(std::shared_ptr<ExternalTexture>) override { return 1; }
  void textureFrameAvailable(int64_t) override {}
  void unregisterTexture(int64_t) override {}
};

// Hands messages to the handler and looks at the answers; costs a call each way.
class BareMessenger final : public BinaryMessenger, public BinaryReplySink {
 public:
  void send(std::string_view, std::span<const uint8_t>, std::function<void(std::span<const uint8_t>)>) override {}
  void setMessageHandler(std::string_view, std::shared_ptr<BinaryMessageHandler> handler) override {
    handler_ = std::move(handler);
  }
  void clearMessageHandler(std::string_view, const BinaryMessageHandler*) override { handler_.reset(); }

  void deliver(std::span<const uint8_t> message) { handler_->onMessage(message, BinaryReply(this)); }
  void answered(std::span<const uint8_t> reply) override { answered_bytes += reply.size(); }
  void dropped() override { ++drops; }

  uint64_t answered_bytes = 0;
  uint64_t drops = 0;

 private:
  std::shared_ptr<BinaryMessageHandler> handler_;
};

// The channel without a proxy; made once, on a virtual HID back end without devices.
BareMessenger& channel() {
  static BareMessenger& messenger = []() -> BareMessenger& {
    auto* made = new BareMessenger;
    hostInstallHidFunctions(&VirtualHid::functions());
    auto* registrar = new PluginRegistrar(*made, std::make_shared<NoTextures>());
    registerFlutterMirnPluginCApi(*registrar);
    return *made;
  }();
  return messenger;
}

void dispatch(benchmark::State& state, const std::vector<uint8_t>& message) {
  BareMessenger& messenger = channel();
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    messenger.deliver(message);
    benchmark::DoNotOptimize(messenger.answered_bytes);
  }
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(test::allocations().count - before.count),
                                                     benchmark::Counter::kAvgIterations);
}

void unpack(benchmark::State& state, const msgpack::sbuffer& packed) {
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    size_t offset = 0;
    msgpack::object_handle method = msgpack::unpack(packed.data(), packed.size(), offset);
    msgpack::object_handle arguments = msgpack::unpack(packed.data(), packed.size(), offset);
    benchmark::DoNotOptimize(method.get());
    benchmark::DoNotOptimize(arguments.get());
  }
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(test::allocations().count - before.count),
                                                     benchmark::Counter::kAvgIterations);
}

void keyDownOurs(benchmark::State& state) {
  dispatch(state, encodeMethodCall("keyDown", ValueMap{{"key", 65}}));
}

void keyDownMsgpack(benchmark::State& state) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  packer.pack("keyDown");
  packer.pack_map(1);
  packer.pack("key");
  packer.pack(65);
  unpack(state, buffer);
}

void mouseMoveOurs(benchmark::State& state) {
  dispatch(state, encodeMethodCall("mouseMove", ValueMap{{"x", 16000}, {"y", 9000}}));
}

void mouseMoveMsgpack(benchmark::State& state) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  packer.pack("mouseMove");
  packer.pack_map(2);
  packer.pack("x");
  packer.pack(16000);
  packer.pack("y");
  packer.pack(9000);
  unpack(state, buffer);
}

// While it is closed, the sending thread stays in its first write: what is queued behind it waits.
std::atomic<bool> g_gate_open{true};

int gatedWrite(hid_device* device, const unsigned char* data, size_t length) {
  g_gate_open.wait(false);
  return VirtualHid::functions().write(device, data, length);
}

const HidFunctions& gatedFunctions() {
  static const HidFunctions gated = [] {
    HidFunctions functions = VirtualHid::functions();
    functions.write = gatedWrite;
    return functions;
  }();
  return gated;
}

void setGate(bool open) {
  g_gate_open = open;
  g_gate_open.notify_all();
}

uint64_t keyOutcomes() {
  const HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardSent + link.keyboardFailed;
}

// Calls that are timed in one go; the queue is emptied in between.
constexpr int kQueuedInOneGo = 1000;

// Alternating, so that each call changes the held keys and queues a report.
const std::array<std::vector<uint8_t>, 2>& keyMessages() {
  static const std::array<std::vector<uint8_t>, 2> messages = {encodeMethodCall("keyDown", ValueMap{{"key", 65}}),
                                                               encodeMethodCall("keyUp", ValueMap{{"key", 65}})};
  return messages;
}

// A device that answers at once.
std::shared_ptr<VirtualMirn> instantDevice() {
  VirtualMirnSettings settings;
  settings.latency = {};
  settings.jitter = {};
  settings.warm_up_latency = {};
  settings.history_limit = 1;
  return std::make_shared<VirtualMirn>(settings);
}

// Queueing apart from sending: what a key costs the caller.
void keyDownQueued(benchmark::State& state) {
  const auto device = instantDevice();
  BareMessenger& messenger = channel();
  VirtualHid::instance().add(device);
  if (!hostInstallHidFunctions(&gatedFunctions()) || !mirn_->initKmProxy()) {
    state.SkipWithError("no connection to the virtual device");
  }
  while (state.KeepRunningBatch(kQueuedInOneGo)) {
    state.PauseTiming();
    const uint64_t outcomes = keyOutcomes();
    setGate(false);
    state.ResumeTiming();
    for (int i = 0; i < kQueuedInOneGo; ++i) messenger.deliver(keyMessages()[i % 2]);
    state.PauseTiming();
    setGate(true);
    while (keyOutcomes() < outcomes + kQueuedInOneGo) std::this_thread::yield();
    state.ResumeTiming();
  }
  hostReleaseProxy();
  hostInstallHidFunctions(&VirtualHid::functions());
  VirtualHid::instance().remove(device);
}

// The same dispatch without a proxy, and a bare push of the same kind of task.
void keyDispatchedAndPushed(benchmark::State& state) {
  BareMessenger& messenger = channel();
  hard_key_mouse nowhere(g_vid, g_pid);
  sem_queue<CRefObj<i_vx_task>> queue;
  while (state.KeepRunningBatch(kQueuedInOneGo)) {
    state.PauseTiming();
    queue.open(0);
    state.ResumeTiming();
    for (int i = 0; i < kQueuedInOneGo; ++i) {
      messenger.deliver(keyMessages()[i % 2]);
      queue.push(makeRef<keyboard_task>(&nowhere, keyboard_args_type{}));
    }
    state.PauseTiming();
    queue.close();
    state.ResumeTiming();
  }
}

// The connection to an instant device, for as long as it lives.
class InstantLink {
 public:
  explicit InstantLink(benchmark::State& state) {
    VirtualHid::instance().add(device_);
    if (!mirn_->initKmProxy() || mirn_->getMirnDevInfo().size() != 4)
      state.SkipWithError("no connection to the virtual device");
  }
  ~InstantLink() {
    hostReleaseProxy();
    VirtualHid::instance().remove(device_);
  }
  InstantLink(const InstantLink&) = delete;
  InstantLink& operator=(const InstantLink&) = delete;

 private:
  const std::shared_ptr<VirtualMirn> device_ = instantDevice();
};

void devInfoOurs(benchmark::State& state) {
  channel();
  const InstantLink link(state);
  dispatch(state, encodeMethodCall("getMirnDevInfo", Value()));
}

// The same exchange with the device; msgpack unpacks the call and packs an answer of the same four texts.
void devInfoMsgpack(benchmark::State& state) {
  channel();
  const InstantLink link(state);
  msgpack::sbuffer call;
  msgpack::packer<msgpack::sbuffer> packer(call);
  packer.pack("getMirnDevInfo");
  packer.pack_nil();
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    size_t offset = 0;
    msgpack::object_handle method = msgpack::unpack(call.data(), call.size(), offset);
    msgpack::object_handle arguments = msgpack::unpack(call.data(), call.size(), offset);
    benchmark::DoNotOptimize(method.get());
    benchmark::DoNotOptimize(arguments.get());
    msgpack::sbuffer answer;
    msgpack::pack(answer, mirn_->getMirnDevInfo());
    benchmark::DoNotOptimize(answer.data());
  }
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(test::allocations().count - before.count),
                                                     benchmark::Counter::kAvgIterations);
}

template <size_t kCount>
std::array<std::string_view, kCount> someNames() {
  static const std::vector<std::string>& texts = []() -> std::vector<std::string>& {
    auto* made = new std::vector<std::string>;
    for (const MainCommand& command : mainCommands()) made->emplace_back(command.name);
    while (made->size() < kCount) made->push_back("command" + std::to_string(made->size() * 7919));
    return *made;
  }();
  std::array<std::string_view, kCount> names;
  for (size_t i = 0; i < kCount; ++i) names[i] = texts[i];
  return names;
}

// The same 22 names, in a table of 22 or of 200.
template <size_t kCount>
void findName(benchmark::State& state) {
  const std::array<std::string_view, kCount> names = someNames<kCount>();
  const PerfectIndex<kCount> index(names);
  if (!index.valid()) state.SkipWithError("the index could not be built");
  size_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(index.find(names[next]));
    next = next + 1 == 22 ? 0 : next + 1;
  }
}

BENCHMARK(keyDownOurs)->Name("channel_key_down/ours");
BENCHMARK(keyDownMsgpack)->Name("channel_key_down/peer:msgpack_unpack");
BENCHMARK(mouseMoveOurs)->Name("channel_mouse_move/ours");
BENCHMARK(mouseMoveMsgpack)->Name("channel_mouse_move/peer:msgpack_unpack");
BENCHMARK(devInfoOurs)->Name("channel_dev_info/ours");
BENCHMARK(devInfoMsgpack)->Name("channel_dev_info/peer:exchange_and_msgpack");
BENCHMARK(keyDownQueued)->Name("channel_key_down_queued/ours");
BENCHMARK(keyDispatchedAndPushed)->Name("channel_key_down_queued/peer:dispatch_and_bare_push");
BENCHMARK(findName<200>)->Name("channel_find_command/ours");
BENCHMARK(findName<22>)->Name("channel_find_command/peer:table_of_22");

}  // namespace
}  // namespace mirn

BENCHMARK_MAIN();
