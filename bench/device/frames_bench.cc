// Framing and decoding of the payloads that travel: 8 bytes (a mouse record), 33 bytes (an information answer) and 1028
// bytes (a firmware chunk), on ordinary data, on data without any regularity and on data that needs an escape at every
// byte. Peers: a plain byte-at-a-time encoder and decoder of the same rules, and memcpy of the same bytes.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "device/protocol.h"
#include "tests/unit/device/plain_protocol.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;

enum class Data : uint8_t { kOrdinary, kRandom, kHeads };

Bytes makePayload(Data data, size_t size) {
  std::mt19937 random(1);
  Bytes payload(size);
  for (uint8_t& byte : payload) {
    switch (data) {
      case Data::kOrdinary:  // no byte needs an escape
        byte = static_cast<uint8_t>(random() & 0x7F);
        break;
      case Data::kRandom:  // one in 128 does
        byte = static_cast<uint8_t>(random());
        break;
      case Data::kHeads:  // every byte does
        byte = 0xAA;
        break;
    }
  }
  return payload;
}

using Pack = int (*)(uint8_t, const uint8_t*, size_t, uint16_t, uint8_t*);

int copyPayload(uint8_t /*command*/, const uint8_t* payload, size_t size, uint16_t /*index*/, uint8_t* out) {
  std::memcpy(out, payload, size);
  return static_cast<int>(size);
}

void encode(benchmark::State& state, Pack pack, Data data, size_t size) {
  const Bytes payload = makePayload(data, size);
  Bytes out(maxFrameBytes(size));
  for (auto _ : state) {
    benchmark::DoNotOptimize(pack(7, payload.data(), size, 256, out.data()));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

struct Destroy {
  void operator()(circle_data* ring) const { circle_data_destroy(ring); }
};

// One report (or, for a chunk, one frame) in the ring, as the command layer leaves it there.
class FilledRing {
 public:
  FilledRing(Data data, size_t size) : wire_(maxFrameBytes(size)) {
    const Bytes payload = makePayload(data, size);
    wire_.resize(static_cast<size_t>(protocol_pack(7, payload.data(), size, 256, wire_.data())));
    if (wire_.size() < 64) {
      wire_.resize(64);
    }
    std::memcpy(ring_->base, wire_.data(), wire_.size());
  }

  circle_data* fill() {
    ring_->read_pos = ring_->base;
    ring_->write_pos = ring_->base + wire_.size();
    return ring_.get();
  }

 private:
  std::unique_ptr<circle_data, Destroy> ring_{circle_data_create(4096)};
  Bytes wire_;
};

// Each round takes everything in the ring: the frame, then what stands behind it.
void decodeOurs(benchmark::State& state, Data data, size_t size) {
  FilledRing filled(data, size);
  for (auto _ : state) {
    circle_data* const ring = filled.fill();
    uint8_t command = 0;
    uint16_t index = 0;
    const uint8_t* payload = nullptr;
    while (protocol_parse(ring, &command, &index, &payload) >= 0) {
    }
    benchmark::DoNotOptimize(payload);
    benchmark::ClobberMemory();
  }
}

void decodePlain(benchmark::State& state, Data data, size_t size) {
  FilledRing filled(data, size);
  plain::Decoder decoder;
  for (auto _ : state) {
    circle_data* const ring = filled.fill();
    uint8_t command = 0;
    uint16_t index = 0;
    const uint8_t* payload = nullptr;
    while (decoder.parse([ring](uint8_t* byte) { return ring->pop(ring, byte); }, &command, &index, &payload) >= 0) {
    }
    benchmark::DoNotOptimize(payload);
    benchmark::ClobberMemory();
  }
}

struct Case {
  const char* name;
  Data data;
  size_t size;
};

constexpr Case kCases[] = {
    {"8 bytes", Data::kOrdinary, 8}, {"1028 bytes", Data::kOrdinary, 1028}, {"1028 random bytes", Data::kRandom, 1028},
    {"8 bytes AA", Data::kHeads, 8}, {"1028 bytes AA", Data::kHeads, 1028},
};
constexpr Case kAnswers[] = {
    {"8 bytes", Data::kOrdinary, 8},       {"33 bytes", Data::kOrdinary, 33},
    {"1028 bytes", Data::kOrdinary, 1028}, {"1028 random bytes", Data::kRandom, 1028},
    {"1028 bytes AA", Data::kHeads, 1028},
};

void registerAll() {
  for (const Case& one : kCases) {
    const std::string what = std::string("frame ") + one.name;
    benchmark::RegisterBenchmark((what + "/ours").c_str(), encode, protocol_pack, one.data, one.size);
    benchmark::RegisterBenchmark((what + "/peer:plain loop").c_str(), encode, plain::pack, one.data, one.size);
    benchmark::RegisterBenchmark((what + "/peer:memcpy").c_str(), encode, copyPayload, one.data, one.size);
  }
  for (const Case& one : kAnswers) {
    const std::string what = std::string("decode ") + one.name;
    benchmark::RegisterBenchmark((what + "/ours").c_str(), decodeOurs, one.data, one.size);
    benchmark::RegisterBenchmark((what + "/peer:plain decoder").c_str(), decodePlain, one.data, one.size);
    benchmark::RegisterBenchmark((what + "/peer:memcpy").c_str(), encode, copyPayload, one.data, one.size);
  }
}

const bool g_registered = (registerAll(), true);

}  // namespace
}  // namespace mirn

BENCHMARK_MAIN();
