// The payload records of the device commands, and their way onto the wire: explicit little-endian writers, never the
// memory of a record. Pure functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace mirn {

// Command codes. 5, 6 and 7 carry two operations each, which the device tells apart by the payload's length.
// 8 and 11 are not used.
enum class DeviceCommand : uint8_t {
  kShakeHand = 1,
  kAbsMouse = 2,
  kKeyboard = 3,
  kRelativeMouse = 4,
  kSetLed = 5,
  kGetLed = 6,
  kFirmware = 7,
  kGetDevInfo = 9,
  kSetDevInfo = 10,
  kRawMouse = 12,  // not framed and not answered
};

// Values of mouse_args_type::type. 4 and 7 stand for nothing.
enum MouseEventType : uint8_t {
  kMouseMove = 1,
  kMouseLeftDown = 2,
  kMouseLeftUp = 3,
  kMouseRightDown = 5,
  kMouseRightUp = 6,
  kMouseMiddleDown = 8,
  kMouseMiddleUp = 9,
  kMouseWheel = 11,
  kMouseX1Down = 14,
};

struct mouse_args_type {
  uint8_t type = 0;  // MouseEventType; travels in the raw mouse report alone, as a button mask
  int16_t x = 0;     // 0..32767 absolute, or the delta in counts
  int16_t y = 0;
  uint8_t left = 0;  // 1 while the button is down
  uint8_t right = 0;
  uint8_t middle = 0;
  int8_t wheel = 0;  // -1 wheel up, +1 wheel down, else 0
};

struct keyboard_args_type {
  uint8_t keys[6] = {};   // HID usages, empty slots 0
  uint8_t modifiers = 0;  // HID boot-keyboard modifier bits
};

struct vx_led_status_def {
  uint32_t status = 0;  // only the low byte travels
  uint16_t param = 0;
};

inline constexpr size_t kInfoTextBytes = 20;
inline constexpr size_t kIdTextBytes = 12;

// The answer of command 9, byte for byte as it travels.
struct _get_dev_info_reply {
  char info_text[kInfoTextBytes];  // ended by a NUL only when shorter
  char id_text[kIdTextBytes];      // not necessarily ended by a NUL
  uint8_t flag;
};
static_assert(sizeof(_get_dev_info_reply) == 33);
static_assert(alignof(_get_dev_info_reply) == 1);
static_assert(offsetof(_get_dev_info_reply, id_text) == 20);
static_assert(offsetof(_get_dev_info_reply, flag) == 32);

inline constexpr size_t kFirmwareChunkBytes = 1024;

struct upgrade_args_ex_type {
  uint16_t id = 0;                         // chunk number from 0
  uint16_t total = 0;                      // number of chunks
  uint8_t data[kFirmwareChunkBytes] = {};  // zero behind the used part; travels whole
  uint16_t data_len = 0;                   // bytes of `data` in use; does not travel
};

struct _new_firmware {
  uint8_t magic[3] = {0xAA, 0xAA, 0xAA};
};

// Everything that the device tells about itself, as GetVXInfo gathers it.
struct vx_info_type {
  std::string version;  // first handshake text
  std::string detail;   // second handshake text
  vx_led_status_def led;
};

inline constexpr size_t kMousePayloadBytes = 8;
inline constexpr size_t kKeyboardPayloadBytes = 7;
inline constexpr size_t kLedPayloadBytes = 3;
inline constexpr size_t kRawMousePayloadBytes = 7;
inline constexpr size_t kFirmwarePayloadBytes = 4 + kFirmwareChunkBytes;

// The largest request payload there is.
inline constexpr size_t kMaxRequestPayloadBytes = kFirmwarePayloadBytes;

std::array<uint8_t, kMousePayloadBytes> mousePayload(const mouse_args_type& mouse);
std::array<uint8_t, kKeyboardPayloadBytes> keyboardPayload(const keyboard_args_type& keyboard);
std::array<uint8_t, kLedPayloadBytes> ledPayload(const vx_led_status_def& led);
std::array<uint8_t, kRawMousePayloadBytes> rawMousePayload(const mouse_args_type& mouse, uint8_t button_mask);
void firmwarePayload(const upgrade_args_ex_type& chunk, std::span<uint8_t, kFirmwarePayloadBytes> out);

// `text` zero-filled to 20 bytes. A longer text is cut: the command layer refuses it before it comes here.
std::array<uint8_t, kInfoTextBytes> devInfoPayload(std::string_view text);

// The text that starts at `offset` of an answer and ends at its first NUL, or with the answer. "" behind its end.
std::string answerText(std::span<const uint8_t> answer, size_t offset);

// The first 33 bytes of an answer; a shorter answer reads as if followed by zeros.
_get_dev_info_reply devInfoReply(std::span<const uint8_t> answer);

}  // namespace mirn
