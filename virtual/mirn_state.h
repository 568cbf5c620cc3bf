// What a virtual Mirn is made of, behind its lock. Private to virtual_mirn.
//
//   mirn_state.cc     from the host's bytes to one request, by the fault plan, and from answers to reports
//   mirn_commands.cc  what each request does to the device
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "virtual/virtual_mirn.h"
#include "virtual/wire.h"

namespace mirn {

// How the fault plan wants one exchange.
struct ExchangeVerdict {
  bool drop = false;
  bool lose = false;
  bool corrupt = false;
  bool duplicate = false;
  bool write_error = false;
  bool read_error = false;
  bool unplug = false;
  bool unplug_after = false;
  std::optional<uint8_t> refuse;
  std::optional<size_t> truncate;
  std::optional<size_t> split;
  std::chrono::nanoseconds delay{};
  std::chrono::nanoseconds stall{};
  std::vector<uint8_t> garbage;
};

// Not thread-safe: VirtualMirn locks around every call.
class MirnState {
 public:
  using Nanoseconds = std::chrono::nanoseconds;

  explicit MirnState(const VirtualMirnSettings& settings);

  VirtualWriteResult hostWrite(std::span<const uint8_t> report, Nanoseconds now);
  void plug();
  void unplug();

  void setVersion(std::string_view new_version, std::string_view new_detail);
  void setName(std::string_view text);
  void setIdText(std::string_view text);
  void setLed(VirtualLed new_led);

  // Changes since the last call.
  std::vector<VirtualMirnEvent> takeEvents();
  VirtualMirnCounters countersNow() const;

  FaultPlan plan;
  uint64_t exchanges = 0;
  std::array<uint64_t, 256> exchanges_of_command{};
  Nanoseconds latency;
  Nanoseconds jitter;

  bool plugged = true;
  uint64_t generation = 1;
  std::array<uint8_t, 20> name{};
  std::array<uint8_t, 12> id_text{};
  uint8_t flag;
  std::string version;
  std::string detail;
  std::string version_after_replug;  // "" = none waits
  VirtualLed led;
  VirtualInputState input;
  VirtualFirmwareState firmware;

  std::deque<VirtualReceived> received;
  uint64_t received_count = 0;
  std::vector<VirtualReport> reports;

 private:
  // The reception of one write.
  ExchangeVerdict judge(uint8_t command);
  void apply(const Fault& fault, ExchangeVerdict* verdict);
  void followLost(std::span<const uint8_t> report);
  void takePieces(std::span<const uint8_t> report, Nanoseconds now);
  void takeFrame(const WireFrame& frame, Nanoseconds now);
  void takeRawReport(std::span<const uint8_t> report, Nanoseconds now);
  void remember(VirtualReceived request);

  // The making of an answer.
  void answer(uint8_t command, uint16_t packet_index, std::span<const uint8_t> payload, Nanoseconds now);
  void emit(std::span<const uint8_t> bytes, Nanoseconds due);
  Nanoseconds dueTime(Nanoseconds now);

  // What requests do. Each returns the answer's payload.
  std::vector<uint8_t> carryOut(const VirtualRecord& record);
  std::vector<uint8_t> carryOut(const VirtualNotUnderstood& request);
  std::vector<uint8_t> carryOut(const VirtualHandshake& request);
  std::vector<uint8_t> carryOut(const VirtualMouse& mouse);
  std::vector<uint8_t> carryOut(const VirtualRawMouse& mouse);
  std::vector<uint8_t> carryOut(const VirtualKeyboard& keyboard);
  std::vector<uint8_t> carryOut(const VirtualSetLed& request);
  std::vector<uint8_t> carryOut(const VirtualGetLed& request);
  std::vector<uint8_t> carryOut(const VirtualFirmwareGreeting& request);
  std::vector<uint8_t> carryOut(const VirtualFirmwareChunk& chunk);
  std::vector<uint8_t> carryOut(const VirtualGetInfo& request);
  std::vector<uint8_t> carryOut(const VirtualSetName& request);
  bool acceptsChunk(const VirtualFirmwareChunk& chunk);
  void completeFirmware();
  std::string nextVersion() const;
  void movePointer(int32_t x, int32_t y, uint8_t buttons, int8_t wheel);

  VirtualMirnEvent& addEvent(VirtualMirnEvent::Kind kind);

  const VirtualMirnSettings& settings_;
  WireParser parser_;
  WireParser lost_;          // follows a frame that never arrives, to tell its later pieces from a new exchange
  ExchangeVerdict verdict_;  // of the exchange underway
  std::mt19937 random_;
  Nanoseconds last_due_{};
  Nanoseconds stalled_until_{};
  uint64_t answers_since_plug_ = 0;
  VirtualMirnCounters counters_;
  std::vector<VirtualMirnEvent> events_;
};

// What a sound frame asks for.
VirtualRecord understand(uint8_t command, std::span<const uint8_t> payload);

// What a 7-byte raw mouse report says. `report` must have 7 bytes.
VirtualRawMouse understandRaw(std::span<const uint8_t> report);

}  // namespace mirn
