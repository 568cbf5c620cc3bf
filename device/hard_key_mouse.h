// The command layer: one blocking operation for each command of the Mirn.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "deps/pellum/mutex_lock.h"
#include "deps/pellum/reference.h"
#include "deps/pellum/thread_annotations.h"
#include "device/circle_data.h"
#include "device/hid_device.h"
#include "device/payloads.h"
#include "device/protocol.h"

namespace mirn {

// Reference-counted: created with count 0, raised to 1 by the creator.
//
// Thread-safe: the device mutex serialises the exchanges and is never held across two of them, so the steps of a
// relative move can interleave with other callers' exchanges. send_new_mouse_logic_abs_mouse keeps a button state and
// is bound to one thread at a time (the sending thread).
//
// At most one may live in a process at a time: all share the one frame decoder.
//
// Unless said otherwise an operation returns 0, or -1 when the exchange failed or the device's answer did not start
// with 0. There are no retries here. Without a device every operation fails at once. The first complete frame that
// arrives is taken as the answer, whatever its command and index say.
class hard_key_mouse : public CReference {
 public:
  // Opens the device and greets it. Neither failing fails the construction; the handshake's outcome is logged.
  hard_key_mouse(uint16_t vendor, uint16_t product);
  ~hard_key_mouse() override;

  hard_key_mouse(const hard_key_mouse&) = delete;
  hard_key_mouse& operator=(const hard_key_mouse&) = delete;

  // Asks for the two version texts and keeps them. Any answer is a success.
  int shake_hand();

  int send_abs_mouse(const mouse_args_type& mouse);
  int send_keyboard(const keyboard_args_type& keyboard);

  // Sends the delta in steps of at most 127 counts per axis, 3 ms apart, then the remainder, also when it is zero.
  // The first failing step ends it.
  int send_rla_mouse(const mouse_args_type& mouse);

  // While set, a relative move ends with -1 before its next step: its hundreds of exchanges must not keep somebody who
  // wants to stop the sending thread. A move of a single report is not touched.
  void cut_moves(bool cut) { moves_cut_ = cut; }

  // The raw mouse report of newer devices: not framed and not answered. 0 when it was written.
  int send_new_mouse_logic_abs_mouse(const mouse_args_type& mouse);

  int set_vx_led_status(const vx_led_status_def& led);
  int get_vx_led_status(vx_led_status_def* led);

  // The answer's first byte (0..255), or -1 when the exchange failed.
  int set_led_status(uint8_t status);
  int get_led_status();

  int new_firmware_handshake(const _new_firmware& greeting);

  // A failure of the last chunk (id + 1 >= total) counts as success: the device may restart before it has answered.
  int upgrade_firmware(const upgrade_args_ex_type& chunk);

  // `version` receives the first handshake text, "" when there was no handshake.
  int get_dev_info(_get_dev_info_reply* reply, std::string* version);

  // `text`: at most 20 bytes. A longer one is refused: an error line and -1, nothing is sent.
  int send_set_dev_info(const std::string& text);

  // The handshake's texts.
  std::string version_text() const;
  std::string detail_text() const;

  // Where the HID interface is plugged in (HidFunctions::topology), asked once at opening; "" without a device.
  const std::string& topology() const { return topology_; }

  bool device_opened() const { return hid_.handle() != nullptr; }

 protected:
  // A decoded answer, copied out of the decoder while the device mutex was held. Reads as if followed by zeros.
  struct Answer {
    std::array<uint8_t, kFrameBodyBytes> bytes;
    size_t size = 0;

    uint8_t at(size_t index) const { return index < size ? bytes[index] : uint8_t{0}; }
    std::span<const uint8_t> payload() const { return {bytes.data(), size}; }
  };

  // One exchange: 0 and the answer, or -1. Command 12 is written raw and brings no answer.
  int _send_msg_to_hid(DeviceCommand command, std::span<const uint8_t> payload, int timeout_ms, Answer* answer);

  // 256 follows 65535. No command calls it: every frame carries index 256. That is meant.
  void _inc_pack_index();

  uint16_t pack_index = 256;

 private:
  int send_checked(DeviceCommand command, std::span<const uint8_t> payload, int timeout_ms);
  int write_raw_locked(std::span<const uint8_t> payload) MIRN_REQUIRES(device_mutex_);
  int write_frame_locked(DeviceCommand command, std::span<const uint8_t> payload) MIRN_REQUIRES(device_mutex_);
  int read_answer_locked(int timeout_ms, Answer* answer) MIRN_REQUIRES(device_mutex_);
  uint8_t raw_button_mask(uint8_t type);

  nuvra_hid_device hid_;
  const std::string topology_;
  CMutexLock device_mutex_;
  struct RingEnd {
    void operator()(circle_data* ring) const { circle_data_destroy(ring); }
  };
  const std::unique_ptr<circle_data, RingEnd> ring_;  // null when memory was short, then every exchange fails

  mutable Mutex text_mutex_;  // never held across an exchange
  std::string fw_detail MIRN_GUARDED_BY(text_mutex_);
  std::string fw_version MIRN_GUARDED_BY(text_mutex_);

  uint8_t last_buttons = 0;  // of send_new_mouse_logic_abs_mouse alone, which is bound to one thread
  std::atomic<bool> moves_cut_{false};
};

}  // namespace mirn
