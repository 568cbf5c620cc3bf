// The Mirn's wire format as the device sees it: a strict frame parser and a frame builder. Written from the format
// alone; what it shares with the host's encoder and decoder in device/ is nothing but the format.
//
//   AA | length u16 | packet index u16 | checksum u16 | command u8 | payload | BB        (little-endian)
//
// Between head and tail AA travels as CC 02 and CC as CC 01.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace mirn {

struct WireFrame {
  uint8_t command = 0;
  uint16_t packet_index = 0;
  std::vector<uint8_t> payload;  // unescaped
  std::vector<uint8_t> wire;     // as it travelled, head to tail

  bool operator==(const WireFrame&) const = default;
};

// Strict: any escape other than CC 01 and CC 02, a length below 6 or above the limit, a wrong checksum or a missing
// tail ends the frame as bad. A raw AA always starts a new one. Not thread-safe.
class WireParser {
 public:
  struct Counters {
    uint64_t bad_frames = 0;   // begun and not ended soundly, a restart by AA included
    uint64_t stray_bytes = 0;  // outside of any frame
  };

  // Payload bytes that it takes at most.
  static constexpr size_t kMaxPayload = 4096;

  // True when this byte completed a frame; frame() then holds it until the next call.
  bool take(uint8_t byte);
  const WireFrame& frame() const { return frame_; }

  // Between head and tail.
  bool inFrame() const { return inside_; }

  // Forgets a frame underway (counted as bad).
  void reset();

  const Counters& counters() const { return counters_; }

 private:
  bool judgeLength();
  bool finish(uint8_t tail);
  void fail();

  bool inside_ = false;
  bool escape_ = false;
  std::vector<uint8_t> content_;  // unescaped bytes behind the head
  WireFrame frame_;
  Counters counters_;
};

// One frame, ready for the wire. At most 65,529 bytes of payload. `checksum_error` is XORed into the checksum, for
// frames that shall be refused.
std::vector<uint8_t> buildWireFrame(uint8_t command, uint16_t packet_index, std::span<const uint8_t> payload,
                                    uint16_t checksum_error = 0);

}  // namespace mirn
