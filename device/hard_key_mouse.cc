#include "device/hard_key_mouse.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "deps/pellum/logger/flogger.h"
#include "platform/clock.h"

namespace mirn {
namespace {

constexpr size_t kRingBytes = 4096;
constexpr size_t kReportBytes = 64;
constexpr size_t kReportNumberBytes = 1;
constexpr uint8_t kReportNumber = 0;
constexpr size_t kReceiveBytes = kReportNumberBytes + kReportBytes;
constexpr size_t kSendBytes = kReportNumberBytes + maxFrameBytes(kMaxRequestPayloadBytes);

constexpr int kFirstPackIndex = 256;

// How long the device may take, in milliseconds.
constexpr int kShakeHandMs = 2000;
constexpr int kMouseMs = 50;
constexpr int kKeyboardMs = 200;
constexpr int kSetVxLedMs = 200;
constexpr int kGetVxLedMs = 2000;
constexpr int kLedMs = 500;
constexpr int kGreetingMs = 1000;
constexpr int kChunkMs = 10000;
constexpr int kGetInfoMs = 50;
constexpr int kSetInfoMs = 500;

// Where the handshake's second text starts.
constexpr size_t kDetailOffset = 10;

// One step of a relative move: what a signed byte of a boot mouse can carry.
constexpr int kRelativeStep = 127;
constexpr std::chrono::milliseconds kRelativePause{3};

int sign(int value) {
  return value < 0 ? -1 : 1;
}

}  // namespace

hard_key_mouse::hard_key_mouse(uint16_t vendor, uint16_t product)
    : hid_(vendor, product), topology_(hid_.topology()), ring_(circle_data_create(kRingBytes)) {
  if (shake_hand() == 0) {
    flogger::GetInitance().write_log(kLogInfo, "hid hand shake success!");
  } else {
    flogger::GetInitance().write_log(kLogError, "hid hand shake failed !");
  }
}

hard_key_mouse::~hard_key_mouse() = default;

int hard_key_mouse::shake_hand() {
  Answer answer;
  if (_send_msg_to_hid(DeviceCommand::kShakeHand, {}, kShakeHandMs, &answer) != 0) {
    return -1;
  }
  const MutexGuard guard(text_mutex_);
  fw_version = answerText(answer.payload(), 0);
  fw_detail = answerText(answer.payload(), kDetailOffset);
  return 0;
}

int hard_key_mouse::send_abs_mouse(const mouse_args_type& mouse) {
  return send_checked(DeviceCommand::kAbsMouse, mousePayload(mouse), kMouseMs);
}

int hard_key_mouse::send_keyboard(const keyboard_args_type& keyboard) {
  return send_checked(DeviceCommand::kKeyboard, keyboardPayload(keyboard), kKeyboardMs);
}

int hard_key_mouse::send_rla_mouse(const mouse_args_type& mouse) {
  const int full_x = std::abs(mouse.x / kRelativeStep);
  const int full_y = std::abs(mouse.y / kRelativeStep);
  mouse_args_type step = mouse;
  for (int i = 0; i < std::max(full_x, full_y); ++i) {
    step.x = static_cast<int16_t>(i < full_x ? sign(mouse.x) * kRelativeStep : 0);
    step.y = static_cast<int16_t>(i < full_y ? sign(mouse.y) * kRelativeStep : 0);
    if (send_checked(DeviceCommand::kRelativeMouse, mousePayload(step), kMouseMs) != 0) {
      return -1;
    }
    clock().sleepFor(kRelativePause);
    if (moves_cut_) {
      return -1;
    }
  }
  step.x = static_cast<int16_t>(mouse.x % kRelativeStep);
  step.y = static_cast<int16_t>(mouse.y % kRelativeStep);
  return send_checked(DeviceCommand::kRelativeMouse, mousePayload(step), kMouseMs);
}

int hard_key_mouse::send_new_mouse_logic_abs_mouse(const mouse_args_type& mouse) {
  return _send_msg_to_hid(DeviceCommand::kRawMouse, rawMousePayload(mouse, raw_button_mask(mouse.type)), 0, nullptr);
}

// A raw report carries the whole mask, so a move repeats what is held. Anything that is neither a move nor a press
// releases every button: that is meant.
uint8_t hard_key_mouse::raw_button_mask(uint8_t type) {
  switch (type) {
    case kMouseMove:
      return last_buttons;
    case kMouseLeftDown:
      last_buttons = 1;
      return 1;
    case kMouseRightDown:
      last_buttons = 2;
      return 2;
    case kMouseMiddleDown:
      last_buttons = 4;
      return 4;
    default:
      last_buttons = 0;
      return 0;
  }
}

int hard_key_mouse::set_vx_led_status(const vx_led_status_def& led) {
  return send_checked(DeviceCommand::kSetLed, ledPayload(led), kSetVxLedMs);
}

int hard_key_mouse::get_vx_led_status(vx_led_status_def* led) {
  Answer answer;
  if (_send_msg_to_hid(DeviceCommand::kGetLed, {}, kGetVxLedMs, &answer) != 0) {
    return -1;
  }
  led->status = answer.at(0);
  led->param = static_cast<uint16_t>(answer.at(1) | (answer.at(2) << 8));
  return 0;
}

int hard_key_mouse::set_led_status(uint8_t status) {
  Answer answer;
  const std::array<uint8_t, 1> payload{status};
  return _send_msg_to_hid(DeviceCommand::kSetLed, payload, kLedMs, &answer) == 0 ? answer.at(0) : -1;
}

int hard_key_mouse::get_led_status() {
  Answer answer;
  const std::array<uint8_t, 1> payload{0};
  return _send_msg_to_hid(DeviceCommand::kGetLed, payload, kLedMs, &answer) == 0 ? answer.at(0) : -1;
}

int hard_key_mouse::new_firmware_handshake(const _new_firmware& greeting) {
  Answer answer;
  const int result = _send_msg_to_hid(DeviceCommand::kFirmware, greeting.magic, kGreetingMs, &answer);
  if (result == 0 && answer.at(0) == 0) {
    return 0;
  }
  flogger::GetInitance().write_log(kLogError, "[%s] nRet=%d, recv_size=%d", "new_firmware_handshake", result,
                                   static_cast<int>(answer.size));
  return -1;
}

int hard_key_mouse::upgrade_firmware(const upgrade_args_ex_type& chunk) {
  std::array<uint8_t, kFirmwarePayloadBytes> payload;
  firmwarePayload(chunk, payload);
  Answer answer;
  const int result = _send_msg_to_hid(DeviceCommand::kFirmware, payload, kChunkMs, &answer);
  if (result == 0 && answer.at(0) == 0) {
    return 0;
  }
  if (int{chunk.id} + 1 >= int{chunk.total}) {
    return 0;  // the device may have restarted with the new firmware before it answered: meant
  }
  flogger::GetInitance().write_log(kLogError, "[%s] id=%d, total=%d, nRet=%d, recv_size=%d", "upgrade_firmware",
                                   int{chunk.id}, int{chunk.total}, result, static_cast<int>(answer.size));
  return -1;
}

int hard_key_mouse::get_dev_info(_get_dev_info_reply* reply, std::string* version) {
  Answer answer;
  if (_send_msg_to_hid(DeviceCommand::kGetDevInfo, {}, kGetInfoMs, &answer) != 0) {
    return -1;
  }
  *reply = devInfoReply(answer.payload());
  *version = version_text();
  return 0;
}

int hard_key_mouse::send_set_dev_info(const std::string& text) {
  if (text.size() > kInfoTextBytes) {
    flogger::GetInitance().write_log(kLogError, "[%s] text of %d bytes refused, at most %d", "send_set_dev_info",
                                     static_cast<int>(text.size()), static_cast<int>(kInfoTextBytes));
    return -1;
  }
  return send_checked(DeviceCommand::kSetDevInfo, devInfoPayload(text), kSetInfoMs);
}

std::string hard_key_mouse::version_text() const {
  const MutexGuard guard(text_mutex_);
  return fw_version;
}

std::string hard_key_mouse::detail_text() const {
  const MutexGuard guard(text_mutex_);
  return fw_detail;
}

int hard_key_mouse::send_checked(DeviceCommand command, std::span<const uint8_t> payload, int timeout_ms) {
  Answer answer;
  return _send_msg_to_hid(command, payload, timeout_ms, &answer) == 0 && answer.at(0) == 0 ? 0 : -1;
}

int hard_key_mouse::_send_msg_to_hid(DeviceCommand command, std::span<const uint8_t> payload, int timeout_ms,
                                     Answer* answer) {
  const CMutexLockGuard guard(device_mutex_);
  if (hid_.handle() == nullptr || ring_ == nullptr || payload.size() > kMaxRequestPayloadBytes) {
    return -1;
  }
  if (command == DeviceCommand::kRawMouse) {
    return write_raw_locked(payload);
  }
  if (write_frame_locked(command, payload) != 0) {
    return -1;
  }
  return read_answer_locked(timeout_ms, answer);
}

int hard_key_mouse::write_raw_locked(std::span<const uint8_t> payload) {
  std::array<uint8_t, kSendBytes> report;
  report[0] = kReportNumber;
  std::copy(payload.begin(), payload.end(), report.begin() + kReportNumberBytes);
  return hid_.functions().write(hid_.handle(), report.data(), kReportNumberBytes + payload.size()) == -1 ? -1 : 0;
}

int hard_key_mouse::write_frame_locked(DeviceCommand command, std::span<const uint8_t> payload) {
  std::array<uint8_t, kSendBytes> report;
  report[0] = kReportNumber;
  const int frame = protocol_parser.pack(static_cast<uint8_t>(command), payload.data(), payload.size(), pack_index,
                                         report.data() + kReportNumberBytes);
  if (frame < 0) {
    return -1;
  }
  const size_t length = kReportNumberBytes + static_cast<size_t>(frame);
  return hid_.functions().write(hid_.handle(), report.data(), length) == -1 ? -1 : 0;
}

int hard_key_mouse::read_answer_locked(int timeout_ms, Answer* answer) {
  std::array<uint8_t, kReceiveBytes> report{};
  if (hid_.functions().read_timeout(hid_.handle(), report.data(), report.size(), timeout_ms) < 0) {
    return -1;
  }
  // Always 64 bytes, however many came: a time-out pushes zeros, which the decoder skips or, in the middle of a frame,
  // takes. That is meant.
  for (size_t i = 0; i < kReportBytes; ++i) {
    ring_->push(ring_.get(), report[i]);
  }
  uint8_t command = 0;
  uint16_t packet_index = 0;
  const uint8_t* payload = nullptr;
  const int size = protocol_parser.parse(ring_.get(), &command, &packet_index, &payload);
  if (size < 0) {
    return -1;
  }
  answer->size = static_cast<size_t>(size);
  std::memcpy(answer->bytes.data(), payload, answer->size);
  return 0;
}

void hard_key_mouse::_inc_pack_index() {
  pack_index = static_cast<uint16_t>(pack_index + 1);
  if (pack_index == 0) {
    pack_index = kFirstPackIndex;
  }
}

}  // namespace mirn
