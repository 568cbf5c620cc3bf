// Encoder and decoder of the frame protocol, one byte at a time and without any shortcut: what the fast ones are
// measured against, in tests and benchmarks. The decoder follows the same rules to the letter, oddities included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "device/circle_data.h"

namespace mirn::plain {

inline uint8_t* put(uint8_t byte, uint8_t* out) {
  if (byte == 0xAA) {
    *out++ = 0xCC;
    *out++ = 0x02;
  } else if (byte == 0xCC) {
    *out++ = 0xCC;
    *out++ = 0x01;
  } else {
    *out++ = byte;
  }
  return out;
}

inline int pack(uint8_t command, const uint8_t* payload, size_t size, uint16_t index, uint8_t* out) {
  uint32_t sum = command;
  for (size_t i = 0; i < size; ++i) {
    sum += payload[i];
  }
  sum += 0xBB;
  const auto length = static_cast<uint16_t>(size + 6);
  uint8_t* at = out;
  *at++ = 0xAA;
  at = put(static_cast<uint8_t>(length), at);
  at = put(static_cast<uint8_t>(length >> 8), at);
  at = put(static_cast<uint8_t>(index), at);
  at = put(static_cast<uint8_t>(index >> 8), at);
  at = put(static_cast<uint8_t>(sum), at);
  at = put(static_cast<uint8_t>(sum >> 8), at);
  at = put(command, at);
  if (length >= 7) {
    for (size_t i = 0; i < size; ++i) {
      at = put(payload[i], at);
    }
  }
  *at++ = 0xBB;
  return static_cast<int>(at - out);
}

// The bytes come from wherever `pop` gets them; it returns 0 and a byte, or anything else at the end.
class Decoder {
 public:
  template <typename Pop>
  int parse(Pop pop, uint8_t* command, uint16_t* index, const uint8_t** payload) {
    uint8_t byte = 0;
    while (pop(&byte) == 0) {
      if (byte == 0xCC) {
        escape_ = true;
        continue;
      }
      if (byte == 0xAA) {
        state_ = 0;
      }
      if (escape_) {
        escape_ = false;
        if (byte == 0x01) {
          byte = 0xCC;
        } else if (byte == 0x02) {
          byte = 0xAA;
        } else {
          state_ = 0;
          continue;
        }
      }
      if (act(byte)) {
        *command = command_;
        *index = index_;
        *payload = body_;
        return length_ - 6;
      }
    }
    return -1;
  }

 private:
  bool act(uint8_t byte) {
    switch (state_) {
      case 0:
        if (byte == 0xAA) {
          std::memset(body_, 0, sizeof(body_));
          length_ = index_ = checksum_ = 0;
          count_ = 0;
          low_taken_ = false;
          state_ = 1;
        }
        return false;
      case 1:
        widened(byte, &length_, 2);
        return false;
      case 2:
        widened(byte, &index_, 3);
        return false;
      case 3:
        if (!low_taken_) {
          checksum_ = byte;
          low_taken_ = true;
        } else {
          checksum_ = static_cast<uint16_t>(checksum_ | (byte << 8));
          low_taken_ = false;
          count_ = 0;
          state_ = 4;
        }
        return false;
      case 4:
        command_ = byte;
        state_ = length_ <= 5 ? 0 : length_ == 6 ? 6 : 5;
        return false;
      case 5:
        if (count_ < 2048) {
          body_[count_] = byte;
        }
        ++count_;
        if (count_ == 2049) {
          state_ = 0;
        } else if (count_ == length_ - 6) {
          state_ = 6;
        }
        return false;
      default:
        state_ = 0;
        return byte == 0xBB && sum() == checksum_;
    }
  }

  void widened(uint8_t byte, uint16_t* field, int next) {
    if (!low_taken_) {
      *field = static_cast<uint16_t>(byte >= 0x80 ? 0xFF00 + byte : byte);
      low_taken_ = true;
    } else {
      *field = static_cast<uint16_t>(*field | (byte << 8));
      low_taken_ = false;
      state_ = next;
    }
  }

  uint16_t sum() const {
    uint32_t sum = command_ + 0xBBU;
    for (int i = 0; i < length_ - 6; ++i) {
      sum += body_[i];
    }
    return static_cast<uint16_t>(sum);
  }

  int state_ = 0;
  bool escape_ = false;
  bool low_taken_ = false;
  int count_ = 0;
  uint16_t length_ = 0;
  uint16_t index_ = 0;
  uint16_t checksum_ = 0;
  uint8_t command_ = 0;
  uint8_t body_[2048] = {};
};

}  // namespace mirn::plain
