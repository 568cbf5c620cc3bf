#include "device/payloads.h"

#include <algorithm>
#include <cstring>

namespace mirn {
namespace {

uint8_t lowByte(uint16_t value) {
  return static_cast<uint8_t>(value & 0xFF);
}
uint8_t highByte(uint16_t value) {
  return static_cast<uint8_t>(value >> 8);
}

}  // namespace

std::array<uint8_t, kMousePayloadBytes> mousePayload(const mouse_args_type& mouse) {
  const auto x = static_cast<uint16_t>(mouse.x);
  const auto y = static_cast<uint16_t>(mouse.y);
  return {lowByte(x), highByte(x), lowByte(y),   highByte(y),
          mouse.left, mouse.right, mouse.middle, static_cast<uint8_t>(mouse.wheel)};
}

std::array<uint8_t, kKeyboardPayloadBytes> keyboardPayload(const keyboard_args_type& keyboard) {
  std::array<uint8_t, kKeyboardPayloadBytes> payload{keyboard.modifiers};
  std::copy(std::begin(keyboard.keys), std::end(keyboard.keys), payload.begin() + 1);
  return payload;
}

std::array<uint8_t, kLedPayloadBytes> ledPayload(const vx_led_status_def& led) {
  return {static_cast<uint8_t>(led.status & 0xFF), lowByte(led.param), highByte(led.param)};
}

std::array<uint8_t, kRawMousePayloadBytes> rawMousePayload(const mouse_args_type& mouse, uint8_t button_mask) {
  const auto x = static_cast<uint16_t>(mouse.x);
  const auto y = static_cast<uint16_t>(mouse.y);
  return {0x01, button_mask, static_cast<uint8_t>(mouse.wheel), lowByte(x), highByte(x), lowByte(y), highByte(y)};
}

void firmwarePayload(const upgrade_args_ex_type& chunk, std::span<uint8_t, kFirmwarePayloadBytes> out) {
  out[0] = lowByte(chunk.id);
  out[1] = highByte(chunk.id);
  out[2] = lowByte(chunk.total);
  out[3] = highByte(chunk.total);
  std::memcpy(&out[4], chunk.data, kFirmwareChunkBytes);
}

std::array<uint8_t, kInfoTextBytes> devInfoPayload(std::string_view text) {
  std::array<uint8_t, kInfoTextBytes> payload{};
  std::copy_n(text.begin(), std::min(text.size(), payload.size()), payload.begin());
  return payload;
}

std::string answerText(std::span<const uint8_t> answer, size_t offset) {
  if (offset >= answer.size()) {
    return {};
  }
  const auto begin = answer.begin() + static_cast<std::ptrdiff_t>(offset);
  return {begin, std::find(begin, answer.end(), uint8_t{0})};
}

_get_dev_info_reply devInfoReply(std::span<const uint8_t> answer) {
  _get_dev_info_reply reply{};
  if (!answer.empty()) {
    std::memcpy(&reply, answer.data(), std::min(answer.size(), sizeof(reply)));
  }
  return reply;
}

}  // namespace mirn
