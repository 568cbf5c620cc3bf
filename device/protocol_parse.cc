// The decoder: a state machine that takes one byte at a time, and two shortcuts through it for runs of bytes that would
// all be treated alike (payload bytes, and bytes between frames).
#include <algorithm>
#include <bit>
#include <cstring>

#include "device/byte_block.h"
#include "device/protocol.h"

namespace mirn {
namespace {

enum State : uint32_t {
  kHead = 0,
  kLength = 1,
  kPacketIndex = 2,
  kChecksum = 3,
  kCommand = 4,
  kPayload = 5,
  kTail = 6,
};

class protocol_state_machine {
 public:
  // True when the byte completed a sound frame.
  bool take(uint8_t byte);

  // Takes a run of bytes, at least one, and returns how many it took. Stops behind a completed frame.
  size_t takeRun(const uint8_t* bytes, size_t size, bool* complete);

  const uart_protocol& frame() const { return frame_; }
  const uint8_t* body() const { return uart_body; }

 private:
  bool act(uint8_t byte);
  void takeHead(uint8_t byte);
  void takeWidened(uint8_t byte, uint16_t* field, State next);
  void takeChecksum(uint8_t byte);
  void takeCommand(uint8_t byte);
  void takePayload(uint8_t byte);
  bool takeTail(uint8_t byte);
  size_t copyPayload(const uint8_t* bytes, size_t size);

  size_t payloadLength() const { return frame_.length - kFrameOverhead; }

  uart_protocol frame_{};
  uint32_t cur_state = kHead;
  uint16_t body_index = 0;
  uint8_t transchar_flag = 0;
  uint8_t is_low_byte = 0;
  uint8_t uart_body[kFrameBodyBytes] = {};
};

// How many bytes stand in front of the first head or escape byte.
size_t plainRun(const uint8_t* bytes, size_t size) {
  size_t run = 0;
  for (; size - run >= kBlockBytes; run += kBlockBytes) {
    const uint32_t found = findEither(loadBlock(bytes + run), kFrameHead, kFrameEscape);
    if (found != 0) {
      return run + static_cast<size_t>(std::countr_zero(found));
    }
  }
  while (run < size && bytes[run] != kFrameHead && bytes[run] != kFrameEscape) {
    ++run;
  }
  return run;
}

bool protocol_state_machine::take(uint8_t byte) {
  if (byte == kFrameEscape) {
    transchar_flag = 1;
    return false;
  }
  if (byte == kFrameHead) {
    cur_state = kHead;
  }
  if (transchar_flag != 0) {
    transchar_flag = 0;
    if (byte == kEscapedEscape) {
      byte = kFrameEscape;
    } else if (byte == kEscapedHead) {
      byte = kFrameHead;
    } else {
      // A head is dropped here too: an escape byte swallows the frame behind it. That is meant.
      cur_state = kHead;
      return false;
    }
  }
  return act(byte);
}

bool protocol_state_machine::act(uint8_t byte) {
  switch (cur_state) {
    case kHead:
      takeHead(byte);
      return false;
    case kLength:
      takeWidened(byte, &frame_.length, kPacketIndex);
      return false;
    case kPacketIndex:
      takeWidened(byte, &frame_.packet_index, kChecksum);
      return false;
    case kChecksum:
      takeChecksum(byte);
      return false;
    case kCommand:
      takeCommand(byte);
      return false;
    case kPayload:
      takePayload(byte);
      return false;
    default:
      return takeTail(byte);
  }
}

// An escaped AA between two frames begins one as well as a raw one does.
void protocol_state_machine::takeHead(uint8_t byte) {
  if (byte != kFrameHead) {
    return;
  }
  // Behind body_index nothing was written since the last clearing.
  std::memset(uart_body, 0, std::min<size_t>(body_index, kFrameBodyBytes));
  frame_ = uart_protocol{};
  frame_.head = byte;
  frame_.body = uart_body;
  body_index = 0;
  is_low_byte = 0;
  cur_state = kLength;
}

// The low byte is widened as a signed number, so one of 0x80 or more sets the high byte to 0xFF whatever follows. That
// is meant; the checksum, below, is not read this way. Answers of the device are short, so it never bites in use.
void protocol_state_machine::takeWidened(uint8_t byte, uint16_t* field, State next) {
  if (is_low_byte == 0) {
    *field = static_cast<uint16_t>(static_cast<int16_t>(static_cast<int8_t>(byte)));
    is_low_byte = 1;
    return;
  }
  *field = static_cast<uint16_t>(*field | (byte << 8));
  is_low_byte = 0;
  cur_state = next;
}

void protocol_state_machine::takeChecksum(uint8_t byte) {
  if (is_low_byte == 0) {
    frame_.checksum = byte;
    is_low_byte = 1;
    return;
  }
  frame_.checksum = static_cast<uint16_t>(frame_.checksum | (byte << 8));
  is_low_byte = 0;
  body_index = 0;
  cur_state = kCommand;
}

void protocol_state_machine::takeCommand(uint8_t byte) {
  frame_.command = byte;
  if (frame_.length < kFrameOverhead) {
    cur_state = kHead;
  } else {
    cur_state = frame_.length == kFrameOverhead ? kTail : kPayload;
  }
}

void protocol_state_machine::takePayload(uint8_t byte) {
  if (body_index >= kFrameBodyBytes) {
    cur_state = kHead;
    return;
  }
  uart_body[body_index++] = byte;
  if (body_index == payloadLength()) {
    cur_state = kTail;
  }
}

bool protocol_state_machine::takeTail(uint8_t byte) {
  cur_state = kHead;
  frame_.tail = byte;
  if (byte != kFrameTail) {
    return false;
  }
  const uint32_t sum = frame_.command + kFrameTail + sumBytes(uart_body, payloadLength());
  return static_cast<uint16_t>(sum) == frame_.checksum;
}

// Plain bytes and whole escape pairs, as many as fit; what is left over is for take().
size_t protocol_state_machine::copyPayload(const uint8_t* bytes, size_t size) {
  uint8_t* const begin = uart_body + body_index;
  uint8_t* const end = uart_body + std::min(payloadLength(), kFrameBodyBytes);
  uint8_t* to = begin;
  size_t taken = 0;
  while (to != end && taken < size) {
    const size_t run = plainRun(bytes + taken, std::min(size - taken, static_cast<size_t>(end - to)));
    std::memcpy(to, bytes + taken, run);
    to += run;
    taken += run;
    const size_t pairs_at = taken;
    while (to != end && size - taken >= 2 && bytes[taken] == kFrameEscape &&
           (bytes[taken + 1] == kEscapedHead || bytes[taken + 1] == kEscapedEscape)) {
      *to++ = bytes[taken + 1] == kEscapedHead ? kFrameHead : kFrameEscape;
      taken += 2;
    }
    if (run == 0 && taken == pairs_at) {
      break;
    }
  }
  body_index = static_cast<uint16_t>(to - uart_body);
  if (to != begin && body_index == payloadLength()) {
    cur_state = kTail;
  }
  return taken;
}

size_t protocol_state_machine::takeRun(const uint8_t* bytes, size_t size, bool* complete) {
  size_t taken = 0;
  while (taken < size) {
    if (transchar_flag == 0 && (cur_state == kHead || cur_state == kPayload)) {
      const uint8_t* const rest = bytes + taken;
      taken += cur_state == kHead ? plainRun(rest, size - taken) : copyPayload(rest, size - taken);
      if (taken == size) {
        break;
      }
    }
    if (take(bytes[taken++])) {
      *complete = true;
      break;
    }
  }
  return taken;
}

// One for the process, constructed before and destroyed after everything that runs: it has no destructor to speak of.
constinit protocol_state_machine g_machine;

// The ring's own pop, many at once. Returns false when the ring ran empty first.
bool parseRuns(circle_data* ring) {
  bool complete = false;
  while (!complete && ring->read_pos != ring->write_pos) {
    uint8_t* const end = ring->base + ring->size;
    const uint8_t* const stop = ring->write_pos > ring->read_pos ? ring->write_pos : end;
    ring->read_pos += g_machine.takeRun(ring->read_pos, static_cast<size_t>(stop - ring->read_pos), &complete);
    if (ring->read_pos == end) {
      ring->read_pos = ring->base;
    }
  }
  return complete;
}

bool parseBytes(circle_data* ring) {
  uint8_t byte = 0;
  while (ring->pop(ring, &byte) == 0) {
    if (g_machine.take(byte)) {
      return true;
    }
  }
  return false;
}

}  // namespace

int protocol_parse(circle_data* ring, uint8_t* command, uint16_t* packet_index, const uint8_t** payload) {
  // A ring with a pop of its own is read through it.
  const bool complete = ring->pop == circle_data_pop ? parseRuns(ring) : parseBytes(ring);
  if (!complete) {
    return -1;
  }
  const uart_protocol& frame = g_machine.frame();
  *command = frame.command;
  *packet_index = frame.packet_index;
  *payload = frame.body;
  return static_cast<int>(frame.length - kFrameOverhead);
}

const protocol_operations protocol_parser{protocol_parse, protocol_pack};

}  // namespace mirn
