// The frame decoder against two others. An even first byte: the rest are raw bytes, pushed in pieces, and the decoder
// must do exactly what the plain byte-at-a-time decoder does. An odd one: the rest steers a stream of sound frames,
// noise, damaged and cut frames inside the range where the host's and the device's rules agree, and the frames that
// come out must be those that the virtual device's own strict parser finds.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "device/protocol.h"
#include "tests/unit/device/plain_protocol.h"
#include "virtual/wire.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;

struct Destroy {
  void operator()(circle_data* ring) const { circle_data_destroy(ring); }
};
using Ring = std::unique_ptr<circle_data, Destroy>;

struct Frame {
  uint8_t command = 0;
  uint16_t index = 0;
  Bytes payload;
  bool operator==(const Frame&) const = default;
};

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

void push(circle_data* ring, const Bytes& bytes) {
  for (const uint8_t byte : bytes) {
    ring->push(ring, byte);
  }
}

// The decoder belongs to the process: brings it to "between frames".
void settle() {
  const Ring ring(circle_data_create(8));
  push(ring.get(), {0x00, 0xAA, 0xCC, 0x00});
  Frame frame;
  const uint8_t* payload = nullptr;
  require(protocol_parse(ring.get(), &frame.command, &frame.index, &payload) == -1);
}

class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), left_(size) {}
  bool empty() const { return left_ == 0; }
  uint8_t byte() {
    if (left_ == 0) {
      return 0;
    }
    --left_;
    return *data_++;
  }
  Bytes bytes(size_t count) {
    Bytes taken(data_, data_ + std::min(count, left_));
    data_ += taken.size();
    left_ -= taken.size();
    return taken;
  }

 private:
  const uint8_t* data_;
  size_t left_;
};

void againstPlain(Input input) {
  const size_t size = 2 + input.byte() * size_t{23};
  const Ring ours(circle_data_create(size));
  const Ring theirs(circle_data_create(size));
  plain::Decoder reference;
  while (!input.empty()) {
    const Bytes piece = input.bytes(1 + input.byte());
    push(ours.get(), piece);
    push(theirs.get(), piece);
    int result = 0;
    do {
      Frame a;
      Frame b;
      const uint8_t* payload_a = nullptr;
      const uint8_t* payload_b = nullptr;
      result = protocol_parse(ours.get(), &a.command, &a.index, &payload_a);
      const int expected = reference.parse([&](uint8_t* byte) { return circle_data_pop(theirs.get(), byte); },
                                           &b.command, &b.index, &payload_b);
      require(result == expected);
      require(result < 0 || (a == b && std::memcmp(payload_a, payload_b, kFrameBodyBytes) == 0));
      require(circle_data_get_size(ours.get()) == circle_data_get_size(theirs.get()));
    } while (result >= 0);
  }
}

bool special(uint8_t byte) {
  return byte == kFrameHead || byte == kFrameEscape;
}

uint8_t tame(uint8_t byte) {
  return special(byte) ? static_cast<uint8_t>(byte - 1) : byte;
}

// A stream in which an escape byte stands only in front of 01 and 02 inside of sound frames.
Bytes nextPiece(Input& input) {
  const uint8_t kind = input.byte();
  Bytes payload = input.bytes(input.byte() * (kind & 0x80 ? 8U : 1U));
  const auto command = input.byte();
  const auto index = static_cast<uint16_t>((input.byte() & 0x7F) | input.byte() << 8);
  if (kind % 4 == 0) {
    std::ranges::transform(payload, payload.begin(), tame);
    return payload;  // noise
  }
  if (kind % 4 == 1) {
    return buildWireFrame(command, index, payload);
  }
  std::ranges::transform(payload, payload.begin(), tame);
  Bytes wire = buildWireFrame(command, index, payload);
  if (std::any_of(wire.begin() + 1, wire.end(), special)) {
    return wire;
  }
  const size_t at = 1 + (input.byte() * size_t{256} + input.byte()) % (wire.size() - 1);
  if (kind % 4 == 2) {
    wire[at] = tame(input.byte());
  } else {
    wire.resize(at);
  }
  return wire;
}

// The host's decoder takes low length and index bytes as signed: beyond these limits the two sides differ, and are
// meant to.
bool common(const Frame& frame) {
  return ((frame.payload.size() + kFrameOverhead) & 0x80) == 0 && (frame.index & 0x80) == 0;
}

void againstDevice(Input input) {
  const Ring ring(circle_data_create(16384));
  WireParser device;
  while (!input.empty()) {
    const Bytes piece = nextPiece(input);
    std::vector<Frame> expected;
    for (const uint8_t byte : piece) {
      if (!device.take(byte)) {
        continue;
      }
      const Frame frame{device.frame().command, device.frame().packet_index, device.frame().payload};
      if (common(frame)) {
        expected.push_back(frame);
      }
    }
    push(ring.get(), piece);
    std::vector<Frame> found;
    Frame frame;
    const uint8_t* payload = nullptr;
    int size = 0;
    while ((size = protocol_parse(ring.get(), &frame.command, &frame.index, &payload)) >= 0) {
      frame.payload.assign(payload, payload + size);
      if (common(frame)) {
        found.push_back(frame);
      }
    }
    require(found == expected);
  }
}

// What one side frames, the other side frames alike.
void encodersAgree(Input input) {
  const auto command = input.byte();
  const auto index = static_cast<uint16_t>(input.byte() | input.byte() << 8);
  const Bytes payload = input.bytes(4096);
  Bytes wire(maxFrameBytes(payload.size()));
  wire.resize(static_cast<size_t>(protocol_pack(command, payload.data(), payload.size(), index, wire.data())));
  require(wire == buildWireFrame(command, index, payload));
}

}  // namespace
}  // namespace mirn

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) {
    return 0;
  }
  mirn::settle();
  const mirn::Input input(data + 1, size - 1);
  if (data[0] % 2 == 0) {
    mirn::againstPlain(input);
  } else {
    mirn::againstDevice(input);
  }
  mirn::encodersAgree(input);
  return 0;
}
