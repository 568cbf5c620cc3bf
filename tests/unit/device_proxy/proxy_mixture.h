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

// One task of the queue and what of it reaches a device that accepts everything: one record, of a relative move one for
// each step.
struct MixtureTask {
  uint8_t kind = 0;  // as in vx_tasks.h
  std::vector<uint64_t> records;
};

// For a proxy that was given the monitor {0, 0, 32767, 32767} and a device that has the raw mouse report. Some relative
// moves are several steps long.
class Mixture {
 public:
  Mixture(HardKMProxy& proxy, uint32_t seed) : proxy_(proxy), random_(seed) {}

  void submitOne();

  // What the sending thread must have taken since the last call.
  std::vector<MixtureTask> take() { return std::move(tasks_); }

 private:
  struct Point {
    int x = 0;
    int y = 0;
  };
  struct PointerEvent {
    uint8_t middle = 0;
    int8_t wheel = 0;
    uint8_t raw_buttons = 0;  // what a raw report says after it
    bool x1 = false;          // shows as the left button in this record alone
  };

  void submitPointer(unsigned which);
  void submitX(unsigned which);
  void submitKeyboard(unsigned which);
  void submitFirmware(bool greeting);

  bool relative() const { return mode_ || last_relative_; }
  Point somewhere(bool near);
  void move(Point at, bool relative_move);
  void event(Point at, PointerEvent event);
  // The records of a pointer event at `at`, as the device should get them.
  std::vector<uint64_t> pointerCodes(Point at, PointerEvent event);

  void pressAndRelease(uint8_t usage, uint8_t modifiers, uint8_t modifiers_after);
  void keys(uint8_t usage, uint8_t modifiers);
  void flush();
  void add(std::vector<uint64_t> records, uint32_t kind);

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
  std::vector<uint64_t> held_move_;
  std::vector<MixtureTask> tasks_;
};

}  // namespace mirn
