#include "device/vx_tasks.h"

#include <algorithm>
#include <cstring>

#include "device/firmware_version.h"
#include "device/hard_key_mouse.h"

namespace mirn {

int mouse_task::done() {
  if (relative_ != 0) return device().send_rla_mouse(args_);
  if (new_logic_ != 0 && !isFirstFirmware(device().version_text())) {
    return device().send_new_mouse_logic_abs_mouse(args_);
  }
  return device().send_abs_mouse(args_);
}

int keyboard_task::done() {
  return device().send_keyboard(args_);
}

upgrade_task::upgrade_task(hard_key_mouse* device, uint16_t id, uint16_t total, const uint8_t* data, uint16_t length)
    : i_vx_task(kUpgradeTask, device) {
  args_.id = id;
  args_.total = total;
  args_.data_len = data == nullptr ? 0 : std::min<uint16_t>(length, kFirmwareChunkBytes);
  if (args_.data_len > 0) std::memcpy(args_.data, data, args_.data_len);
}

int upgrade_task::done() {
  return device().upgrade_firmware(args_);
}

int new_firmware_handshake_task::done() {
  return device().new_firmware_handshake(greeting_);
}

}  // namespace mirn
