// The protocol end of a Mirn, without hardware: it takes what a host writes, reacts as the device does, and has answers
// ready. Its frame parser and builder are its own (virtual/wire.h): it shares nothing with device/.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/mirn_identity.h"
#include "virtual/fault_plan.h"

namespace mirn {

// ---- What the device has received ----

struct VirtualHandshake {
  bool operator==(const VirtualHandshake&) const = default;
};
// Commands 2 (absolute, 0..32767) and 4 (relative, counts).
struct VirtualMouse {
  bool relative = false;
  int16_t x = 0;
  int16_t y = 0;
  uint8_t left = 0;
  uint8_t right = 0;
  uint8_t middle = 0;
  int8_t wheel = 0;
  bool operator==(const VirtualMouse&) const = default;
};
// The raw mouse report, command 12.
struct VirtualRawMouse {
  uint8_t buttons = 0;  // 1 left, 2 right, 4 middle
  int8_t wheel = 0;
  int16_t x = 0;
  int16_t y = 0;
  bool operator==(const VirtualRawMouse&) const = default;
};
struct VirtualKeyboard {
  uint8_t modifiers = 0;
  std::array<uint8_t, 6> keys{};
  bool operator==(const VirtualKeyboard&) const = default;
};
struct VirtualSetLed {
  uint8_t status = 0;
  std::optional<uint16_t> param;  // absent in the one-byte form
  bool operator==(const VirtualSetLed&) const = default;
};
struct VirtualGetLed {
  bool short_form = false;  // asked with one byte: answered with the status alone
  bool operator==(const VirtualGetLed&) const = default;
};
struct VirtualFirmwareGreeting {
  bool operator==(const VirtualFirmwareGreeting&) const = default;
};
struct VirtualFirmwareChunk {
  uint16_t id = 0;
  uint16_t total = 0;
  std::vector<uint8_t> data;  // 1024 bytes
  bool operator==(const VirtualFirmwareChunk&) const = default;
};
struct VirtualGetInfo {
  bool operator==(const VirtualGetInfo&) const = default;
};
struct VirtualSetName {
  std::array<uint8_t, 20> bytes{};
  bool operator==(const VirtualSetName&) const = default;
};
// A sound frame that the device does not understand: an unknown command or a payload of the wrong length.
struct VirtualNotUnderstood {
  bool operator==(const VirtualNotUnderstood&) const = default;
};

using VirtualRecord =
    std::variant<VirtualNotUnderstood, VirtualHandshake, VirtualMouse, VirtualRawMouse, VirtualKeyboard, VirtualSetLed,
                 VirtualGetLed, VirtualFirmwareGreeting, VirtualFirmwareChunk, VirtualGetInfo, VirtualSetName>;

// One request, in order of arrival.
struct VirtualReceived {
  uint64_t number = 0;            // 1, 2, 3 ... since construction
  std::chrono::nanoseconds at{};  // the `now` it was written with
  uint8_t command = 0;            // 12 for a raw mouse report
  uint16_t packet_index = 0;      // 0 for a raw mouse report
  std::vector<uint8_t> payload;   // unescaped
  std::vector<uint8_t> wire;      // as it was written, without the report number
  VirtualRecord record;
  bool refused = false;  // a fault plan or the device's own rules refused it
};

// ---- What the device is and holds ----

// What the target computer sees of keyboard and pointer.
struct VirtualInputState {
  uint8_t modifiers = 0;
  std::array<uint8_t, 6> keys{};  // HID usages as last reported
  uint8_t buttons = 0;            // 1 left, 2 right, 4 middle
  int32_t x = 16383;              // pointer, 0..32767; relative moves count as pixels of a 1920x1080 screen
  int32_t y = 16383;
  int64_t wheel = 0;  // sum of the steps, positive downwards
  bool operator==(const VirtualInputState&) const = default;
};

struct VirtualLed {
  uint8_t status = 0;
  uint16_t param = 0;
  bool operator==(const VirtualLed&) const = default;
};

struct VirtualFirmwareState {
  bool greeted = false;             // the three-byte greeting came
  bool receiving = false;           // chunk 0 came and the last one did not yet
  uint32_t expected = 0;            // the next chunk's number
  uint32_t total = 0;               // as chunk 0 said
  uint64_t completed = 0;           // images received whole since construction
  uint64_t rejected_chunks = 0;     // out of order, repeated, wrong total, not greeted
  uint64_t restarts = 0;            // chunk 0 came while another reception was underway
  std::vector<uint8_t> image;       // the last whole image: total * 1024 bytes
  std::vector<uint8_t> unfinished;  // what has come of the current one
};

struct VirtualMirnCounters {
  uint64_t writes = 0;       // reports the host has written, failed ones included
  uint64_t frames = 0;       // sound frames
  uint64_t raw_reports = 0;  // command 12
  uint64_t bad_frames = 0;   // wrong checksum, tail, length or escape
  uint64_t stray_bytes = 0;  // bytes outside any frame
  uint64_t answers = 0;      // answers made
  uint64_t faults = 0;       // faults of the plan that hit
};

struct VirtualMirnSettings {
  std::string name = "Nuvra Mirn";       // info text, at most 20 bytes count
  std::string id_text = "VM0000000001";  // at most 12 bytes count
  uint8_t flag = 1;
  std::string version = "1.0.0";        // at most 9 bytes count
  std::string detail = "virtual-mirn";  // at most 40 bytes count
  VirtualLed led{};
  uint16_t vendor_id = g_vid;
  uint16_t product_id = g_pid;
  std::string serial{};                // "" = the id text
  std::string topology = "virtual-1";  // where it is plugged in; set it differently for each device

  // Time from a request to its answer: latency + a part of jitter that differs from answer to answer. The first
  // `warm_up_answers` after each plugging take `warm_up_latency` more. A device that answers at once hides faults.
  std::chrono::nanoseconds latency{std::chrono::microseconds(400)};
  std::chrono::nanoseconds jitter{std::chrono::microseconds(300)};
  std::chrono::nanoseconds warm_up_latency{std::chrono::milliseconds(4)};
  uint32_t warm_up_answers = 3;
  uint32_t seed = 1;  // of jitter and garbage: the same seed gives the same run

  // The version that an image brings is the text after "MIRN-VERSION=" in it (up to 9 printable characters); without
  // that mark the last number of the present version counts up by one. It shows at once or when the device is plugged
  // in again.
  bool version_after_replug = false;

  // Refuse chunk 0 unless the three-byte greeting came before it.
  bool greeting_required = false;

  size_t history_limit = 100000;  // received() keeps the newest that many
};

// ---- Telling others ----

// One change, told after it has taken effect.
struct VirtualMirnEvent {
  enum class Kind : uint8_t { kKeyboard, kPointer, kLed, kName, kFirmware, kPlugged, kUnplugged };
  Kind kind = Kind::kKeyboard;
  VirtualInputState input;  // as it is now
  VirtualLed led;
  // kPointer alone:
  bool relative = false;
  int32_t dx = 0;  // the counts of a relative move
  int32_t dy = 0;
  int32_t wheel = 0;  // this record's steps, positive downwards
  // kFirmware: the version that shows now.
  std::string version;
};
using VirtualMirnListener = std::function<void(const VirtualMirnEvent&)>;

// One input report of 64 bytes that the host may read from `due` on.
struct VirtualReport {
  std::array<uint8_t, 64> bytes{};
  std::chrono::nanoseconds due{};
  bool read_error = false;  // not a report: the read that would fetch it fails
};

enum class VirtualWriteResult : uint8_t {
  kAccepted,
  kError,  // the write fails, the device stays
  kGone,   // not plugged in (any more)
};

class MirnState;

// Plugged in from its construction on. Thread-safe; starts no thread and never waits. Time is what the caller says it
// is: pass the same clock's reading to every call. It can so stand behind the in-process HID back end, which uses
// mirn::clock(), or behind a USB server with an event loop of its own.
//
// Listeners are called on the thread whose call caused the change, in the order of the changes, before that call
// returns. A listener may read the device's state, but not write to the device, plug it or unplug it, nor add or remove
// listeners.
class VirtualMirn {
 public:
  explicit VirtualMirn(VirtualMirnSettings settings = {});
  ~VirtualMirn();
  VirtualMirn(const VirtualMirn&) = delete;
  VirtualMirn& operator=(const VirtualMirn&) = delete;

  // -- the host's side --

  // One output report (without its report number), of any length: it is cut into 64-byte pieces as the bus does. Any
  // bytes are survived. Each call is one exchange in the sense of the fault plan.
  VirtualWriteResult hostWrite(std::span<const uint8_t> report, std::chrono::nanoseconds now);

  // All reports made since the last call, in order, due times never falling. Some may be due in the future.
  std::vector<VirtualReport> takeReports();

  // -- plugging --

  // A new device is plugged in. unplug() forgets what was underway, half-received frames and firmware too, and releases
  // keys and buttons.
  void plug();
  void unplug();
  bool plugged() const;
  // Rises with every plug(): a handle of an earlier plugging is dead.
  uint64_t generation() const;

  // -- steering --

  // Exchanges count from 1 again.
  void setFaultPlan(FaultPlan plan);
  void setLatency(std::chrono::nanoseconds latency, std::chrono::nanoseconds jitter);
  // A change by hand, as if someone had another device: shows in the next answer.
  void setVersion(std::string_view version, std::string_view detail);
  void setName(std::string_view name);
  void setIdText(std::string_view id_text);
  void setFlag(uint8_t flag);
  void setLed(VirtualLed led);

  // -- looking --

  const VirtualMirnSettings& settings() const { return settings_; }  // as constructed
  uint16_t vendorId() const { return settings_.vendor_id; }
  uint16_t productId() const { return settings_.product_id; }
  std::string serial() const;
  std::string topology() const { return settings_.topology; }

  std::string name() const;  // up to the first NUL or 20 bytes
  std::string idText() const;
  std::string version() const;
  std::string detail() const;
  uint8_t flag() const;
  VirtualLed led() const;
  VirtualInputState input() const;
  VirtualFirmwareState firmware() const;
  VirtualMirnCounters counters() const;

  std::vector<VirtualReceived> received() const;
  // Those after the first `number` ones.
  std::vector<VirtualReceived> receivedAfter(uint64_t number) const;
  uint64_t receivedCount() const;
  void clearReceived();

  // -- listening --

  // Removing waits for a call under way: afterwards the listener is not called again.
  uint64_t addListener(VirtualMirnListener listener);
  void removeListener(uint64_t id);

 private:
  // Runs `action` on the state, then tells the listeners what it changed.
  void change(const std::function<void(MirnState&)>& action) MIRN_EXCLUDES(tell_mutex_, mutex_);
  void tell(const std::vector<VirtualMirnEvent>& events) MIRN_REQUIRES(tell_mutex_);

  const VirtualMirnSettings settings_;

  Mutex tell_mutex_;  // taken before mutex_; held while listeners run, so that they hear changes in order
  std::vector<std::pair<uint64_t, VirtualMirnListener>> listeners_ MIRN_GUARDED_BY(tell_mutex_);
  uint64_t next_listener_ MIRN_GUARDED_BY(tell_mutex_) = 1;

  mutable Mutex mutex_;
  std::unique_ptr<MirnState> state_ MIRN_GUARDED_BY(mutex_);
};

}  // namespace mirn
