// The frame protocol of the Mirn: one frame per command and per answer.
//
//   AA | length u16 | packet index u16 | checksum u16 | command u8 | payload | BB        (little-endian)
//
// length = payload bytes + 6; checksum = (command + sum of the payload + 0xBB) mod 65536. Everything between head and
// tail is escaped byte by byte: AA travels as CC 02, CC as CC 01. A raw AA on the wire is always the start of a frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/circle_data.h"

namespace mirn {

inline constexpr uint8_t kFrameHead = 0xAA;
inline constexpr uint8_t kFrameTail = 0xBB;
inline constexpr uint8_t kFrameEscape = 0xCC;
inline constexpr uint8_t kEscapedEscape = 0x01;
inline constexpr uint8_t kEscapedHead = 0x02;

// Counted by the length field besides the payload: index, checksum, command, tail.
inline constexpr size_t kFrameOverhead = 6;

// Payload bytes that one frame can bring in; a longer one is dropped.
inline constexpr size_t kFrameBodyBytes = 2048;

// Bytes that a frame with `payload_len` bytes of payload needs at most: every byte between head and tail escaped.
constexpr size_t maxFrameBytes(size_t payload_len) {
  return 2 * payload_len + 16;
}

// A decoded frame. `body` points into the decoder's buffer.
struct uart_protocol {
  uint8_t head;
  uint16_t length;
  uint16_t packet_index;
  uint16_t checksum;
  uint8_t command;
  uint8_t* body;
  uint8_t tail;
};

// Writes one frame into `out` and returns its length in bytes; -1 when `payload` is null while `payload_len` is not 0.
// `out` must hold maxFrameBytes(payload_len) bytes: it is not checked. Reentrant, never allocates.
int protocol_pack(uint8_t command, const uint8_t* payload, size_t payload_len, uint16_t packet_index, uint8_t* out);

// Takes bytes from the ring until one frame is complete; returns its payload length and fills the outputs. `*payload`
// points into the decoder's one buffer and is valid until the next call; the bytes behind a payload shorter than
// kFrameBodyBytes are zero. Returns -1 when the ring runs empty first: the partial frame waits for the next call.
//
// One decoder exists in the process. Its state is never reset, neither by a new ring nor by a new device: an escape
// byte at the end of an old report swallows the next head. That is meant. Bound to the command layer's device mutex.
int protocol_parse(circle_data* ring, uint8_t* command, uint16_t* packet_index, const uint8_t** payload);

struct protocol_operations {
  int (*parse)(circle_data* ring, uint8_t* command, uint16_t* packet_index, const uint8_t** payload);
  int (*pack)(uint8_t command, const uint8_t* payload, size_t payload_len, uint16_t packet_index, uint8_t* out);
};

// The command layer reaches encoder and decoder through this record.
extern const protocol_operations protocol_parser;

}  // namespace mirn
