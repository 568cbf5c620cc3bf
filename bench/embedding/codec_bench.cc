// Whole values in and out, against msgpack doing the same with the same data.
#include <benchmark/benchmark.h>

#include <map>
#include <msgpack.hpp>
#include <string>
#include <vector>

#include "embedding/standard_codec.h"
#include "tests/unit/embedding/allocation_count.h"

namespace mirn {
namespace {

void countAllocations(benchmark::State& state, const test::Allocations& before) {
  state.counters["allocations"] = benchmark::Counter(static_cast<double>(test::allocations().count - before.count),
                                                     benchmark::Counter::kAvgIterations);
}

// Reads a message in place and looks every key up.
void viewOurs(benchmark::State& state) {
  const std::vector<uint8_t> bytes =
      encodeMethodCall("mouseEventButtons", ValueMap{{"x", 16000}, {"y", 9000}, {"type", "lbdown"}});
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    MethodCallView call;
    benchmark::DoNotOptimize(viewMethodCall(bytes, &call));
    benchmark::DoNotOptimize(call.arguments.find("x").integer());
    benchmark::DoNotOptimize(call.arguments.find("y").integer());
    benchmark::DoNotOptimize(call.arguments.find("type").text());
  }
  countAllocations(state, before);
}

std::string packedButtons() {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  packer.pack("mouseEventButtons");
  packer.pack_map(3);
  packer.pack("x");
  packer.pack(16000);
  packer.pack("y");
  packer.pack(9000);
  packer.pack("type");
  packer.pack("lbdown");
  return {buffer.data(), buffer.size()};
}

void viewMsgpack(benchmark::State& state) {
  const std::string bytes = packedButtons();
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    size_t offset = 0;
    msgpack::object_handle method = msgpack::unpack(bytes.data(), bytes.size(), offset);
    msgpack::object_handle arguments = msgpack::unpack(bytes.data(), bytes.size(), offset);
    benchmark::DoNotOptimize(method.get());
    benchmark::DoNotOptimize(arguments.get());
  }
  countAllocations(state, before);
}

// Into values that own their memory; the peer's still borrow from its zone.
void ownOurs(benchmark::State& state) {
  const std::vector<uint8_t> bytes =
      encodeMethodCall("mouseEventButtons", ValueMap{{"x", 16000}, {"y", 9000}, {"type", "lbdown"}});
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    MethodCall call;
    benchmark::DoNotOptimize(decodeMethodCall(bytes, &call));
    benchmark::DoNotOptimize(call);
  }
  countAllocations(state, before);
}

void ownMsgpack(benchmark::State& state) {
  const std::string bytes = packedButtons();
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    size_t offset = 0;
    const auto method = msgpack::unpack(bytes.data(), bytes.size(), offset)->as<std::string>();
    const msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size(), offset);
    const auto arguments = handle->as<std::map<std::string, msgpack::object>>();
    benchmark::DoNotOptimize(method);
    benchmark::DoNotOptimize(arguments);
  }
  countAllocations(state, before);
}

// The reply of getMirnDevInfo.
void writeOurs(benchmark::State& state) {
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    MessageWriter writer;
    writer.byte(0);
    writer.listHead(4);
    writer.text("Nuvra Mirn");
    writer.text("VM0000000001");
    writer.text("1");
    writer.text("1.0.0");
    benchmark::DoNotOptimize(writer.bytes().data());
  }
  countAllocations(state, before);
}

void writeMsgpack(benchmark::State& state) {
  const test::Allocations before = test::allocations();
  for (auto _ : state) {
    msgpack::sbuffer buffer(512);
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    packer.pack_array(4);
    packer.pack("Nuvra Mirn");
    packer.pack("VM0000000001");
    packer.pack("1");
    packer.pack("1.0.0");
    benchmark::DoNotOptimize(buffer.data());
  }
  countAllocations(state, before);
}

// A frame as captureFrame answers it: what the copy costs is the machine's limit.
void writeFrameOurs(benchmark::State& state) {
  const std::vector<uint8_t> frame(921600, 7);
  for (auto _ : state) {
    MessageWriter writer;
    writer.reserve(frame.size() + 64);
    writer.byte(0);
    writer.mapHead(1);
    writer.text("data");
    writer.byteList(frame);
    benchmark::DoNotOptimize(writer.bytes().data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}

void writeFrameCopy(benchmark::State& state) {
  const std::vector<uint8_t> frame(921600, 7);
  for (auto _ : state) {
    std::vector<uint8_t> copy(frame);
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * frame.size()));
}

BENCHMARK(viewOurs)->Name("codec_view/ours");
BENCHMARK(viewMsgpack)->Name("codec_view/peer:msgpack_unpack");
BENCHMARK(ownOurs)->Name("codec_own/ours");
BENCHMARK(ownMsgpack)->Name("codec_own/peer:msgpack_convert");
BENCHMARK(writeOurs)->Name("codec_write_dev_info/ours");
BENCHMARK(writeMsgpack)->Name("codec_write_dev_info/peer:msgpack_pack");
BENCHMARK(writeFrameOurs)->Name("codec_write_frame/ours");
BENCHMARK(writeFrameCopy)->Name("codec_write_frame/peer:vector_copy");

}  // namespace
}  // namespace mirn

BENCHMARK_MAIN();
