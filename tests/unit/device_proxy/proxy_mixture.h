// A random mixture of everything that a proxy queues, and what of it must reach the device: a plain model of the rules
// for moves, buttons, keys and chunks, written beside the proxy and sharing nothing with it.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "device/hard_km_proxy.h"
#include "virtual/virtual_mirn.h"

namespace mirn {

// A queued record as the device got it, in 64 bits, so that a million of them compare quickly. 0: no queued record.
uint64_t codeOf(const VirtualRecord& record);
// Not so greetings of the device, questions and LED settings, which callers send past it.
bool comesFromTheQueue(const VirtualRecord& record);

// Firmware that the mixture sends: two chunks of three, so that no image is ever complete.
inline constexpr uint16_t kMixtureChunks = 3;

// For a proxy that was given the monitor {0, 0, 32767, 32767} and a device that has the raw mouse report. Each record
// is one exchange: relative moves stay below a step.
class Mixture {
 public:
  Mixture(HardKMProxy& proxy, uint32_t seed) : proxy_(proxy), random_(seed) {}

  void submitOne();

  // What must have arrived, and the kinds that the listener must have heard of, since the last call.
  std::vector<uint64_t> takeExpected() { return std::move(expected_); }
  std::vector<uint8_t> takeKinds() { return std::move(kinds_); }

 private:
  struct Point {
    int x = 0;
    int y = 0;
  };
  struct PointerEvent {
    uint8_t middle = 0;
    int8_t wheel = 0;
    uint8_t raw_buttons = 0;  // what a raw report says after it
  };

  void submitPointer(unsigned which);
  void submitKeyboard(unsigned which);
  void submitFirmware(bool greeting);

  bool relative() const { return mode_ || last_relative_; }
  Point somewhere();
  void move(Point at, bool relative_move);
  void event(Point at, PointerEvent event);
  // The record of a pointer event at `at`, as the device should get it.
  uint64_t pointerCode(Point at, PointerEvent event);

  void pressAndRelease(uint8_t usage, uint8_t modifiers, uint8_t modifiers_after);
  void keys(uint8_t usage, uint8_t modifiers);
  void flush();
  void add(uint64_t record, uint32_t kind);

  HardKMProxy& proxy_;
  std::mt19937 random_;

  uint8_t left_ = 0;
  uint8_t right_ = 0;
  uint8_t raw_buttons_ = 0;
  bool raw_ = false;
  bool mode_ = false;
  bool seen_mode_ = false;
  bool last_relative_ = false;
  Point origin_;

  uint8_t modifiers_ = 0;
  uint16_t next_chunk_ = 0;

  int held_ = 0;
  uint64_t held_move_ = 0;
  std::vector<uint64_t> expected_;
  std::vector<uint8_t> kinds_;
};

}  // namespace mirn
