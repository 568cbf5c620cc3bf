// The units of work on the proxy's queue: each is one exchange with the device (a relative move: several).
#pragma once

#include <cstdint>

#include "deps/pellum/reference.h"
#include "device/payloads.h"

namespace mirn {

class hard_key_mouse;

// The kinds are the listener's four outcomes.
enum : uint32_t {
  kMouseTask = 0,
  kKeyboardTask = 1,
  kUpgradeTask = 2,
  kNewFirmwareHandshakeTask = 3,
};

// Created with a strong count of 0, raised to 1 by the creator. Filled by the submitting thread, run by the sending
// thread, immutable in between. `device` is borrowed: the proxy that owns it empties its queue before it goes.
class i_vx_task : public CReference {
 public:
  i_vx_task(uint32_t kind, hard_key_mouse* device) : kind_(kind), device_(device) {}

  uint32_t kind() const { return kind_; }
  // Runs the exchange; 0 when the device accepted it, else -1.
  virtual int done() = 0;

 protected:
  hard_key_mouse& device() const { return *device_; }

 private:
  const uint32_t kind_;
  hard_key_mouse* const device_;
};

class mouse_task final : public i_vx_task {
 public:
  mouse_task(hard_key_mouse* device, const mouse_args_type& args, bool relative, bool new_logic)
      : i_vx_task(kMouseTask, device), args_(args), relative_(relative), new_logic_(new_logic) {}
  int done() override;

 private:
  mouse_args_type args_;
  const uint8_t relative_;
  const uint8_t new_logic_;
};

class keyboard_task final : public i_vx_task {
 public:
  keyboard_task(hard_key_mouse* device, const keyboard_args_type& args)
      : i_vx_task(kKeyboardTask, device), args_(args) {}
  int done() override;

 private:
  keyboard_args_type args_;
};

class upgrade_task final : public i_vx_task {
 public:
  // Copies at most 1024 bytes; the rest of the chunk is zero. `data` may be null when `length` is 0.
  upgrade_task(hard_key_mouse* device, uint16_t id, uint16_t total, const uint8_t* data, uint16_t length);
  int done() override;

  uint16_t id() const { return args_.id; }
  uint16_t total() const { return args_.total; }

 private:
  upgrade_args_ex_type args_{};
};

class new_firmware_handshake_task final : public i_vx_task {
 public:
  explicit new_firmware_handshake_task(hard_key_mouse* device) : i_vx_task(kNewFirmwareHandshakeTask, device) {}
  int done() override;

 private:
  _new_firmware greeting_{};
};

}  // namespace mirn
