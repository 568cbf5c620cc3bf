#include <algorithm>
#include <charconv>

#include "virtual/mirn_state.h"

namespace mirn {
namespace {

// The first byte of an answer: how it went.
constexpr uint8_t kDone = 0;
constexpr uint8_t kRefused = 1;

constexpr size_t kVersionBytes = 9;  // the detail starts at offset 10, and a NUL stands between
constexpr size_t kDetailOffset = 10;
constexpr int32_t kFullScale = 32767;
constexpr int32_t kScreenWidth = 1920;
constexpr int32_t kScreenHeight = 1080;
constexpr size_t kChunkDataBytes = 1024;
constexpr std::string_view kVersionMark = "MIRN-VERSION=";

uint16_t read16(std::span<const uint8_t> bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] | (bytes[at + 1] << 8));
}

VirtualMouse understandMouse(std::span<const uint8_t> payload, bool relative) {
  VirtualMouse mouse;
  mouse.relative = relative;
  mouse.x = static_cast<int16_t>(read16(payload, 0));
  mouse.y = static_cast<int16_t>(read16(payload, 2));
  mouse.left = payload[4];
  mouse.right = payload[5];
  mouse.middle = payload[6];
  mouse.wheel = static_cast<int8_t>(payload[7]);
  return mouse;
}

VirtualKeyboard understandKeyboard(std::span<const uint8_t> payload) {
  VirtualKeyboard keyboard;
  keyboard.modifiers = payload[0];
  std::copy(payload.begin() + 1, payload.end(), keyboard.keys.begin());
  return keyboard;
}

VirtualRecord understandFirmware(std::span<const uint8_t> payload) {
  if (payload.size() == 3 && std::ranges::all_of(payload, [](uint8_t byte) { return byte == 0xAA; })) {
    return VirtualFirmwareGreeting{};
  }
  if (payload.size() != 4 + kChunkDataBytes) {
    return VirtualNotUnderstood{};
  }
  return VirtualFirmwareChunk{read16(payload, 0), read16(payload, 2), {payload.begin() + 4, payload.end()}};
}

VirtualRecord understandSetLed(std::span<const uint8_t> payload) {
  if (payload.size() == 1) {
    return VirtualSetLed{payload[0], std::nullopt};
  }
  if (payload.size() == 3) {
    return VirtualSetLed{payload[0], read16(payload, 1)};
  }
  return VirtualNotUnderstood{};
}

VirtualRecord understandSetName(std::span<const uint8_t> payload) {
  VirtualSetName request;
  if (payload.size() != request.bytes.size()) {
    return VirtualNotUnderstood{};
  }
  std::ranges::copy(payload, request.bytes.begin());
  return request;
}

// A count of a relative move, on the pointer's scale.
int32_t scaled(int32_t counts, int32_t pixels) {
  const int32_t half = counts < 0 ? -pixels / 2 : pixels / 2;
  return (counts * kFullScale + half) / pixels;
}

}  // namespace

VirtualRecord understand(uint8_t command, std::span<const uint8_t> payload) {
  switch (command) {
    case 1:
      return payload.empty() ? VirtualRecord(VirtualHandshake{}) : VirtualNotUnderstood{};
    case 2:
    case 4:
      return payload.size() == 8 ? VirtualRecord(understandMouse(payload, command == 4)) : VirtualNotUnderstood{};
    case 3:
      return payload.size() == 7 ? VirtualRecord(understandKeyboard(payload)) : VirtualNotUnderstood{};
    case 5:
      return understandSetLed(payload);
    case 6:
      return payload.size() <= 1 ? VirtualRecord(VirtualGetLed{payload.size() == 1}) : VirtualNotUnderstood{};
    case 7:
      return understandFirmware(payload);
    case 9:
      return payload.empty() ? VirtualRecord(VirtualGetInfo{}) : VirtualNotUnderstood{};
    case 10:
      return understandSetName(payload);
    default:
      return VirtualNotUnderstood{};
  }
}

VirtualRawMouse understandRaw(std::span<const uint8_t> report) {
  VirtualRawMouse mouse;
  mouse.buttons = report[1];
  mouse.wheel = static_cast<int8_t>(report[2]);
  mouse.x = static_cast<int16_t>(read16(report, 3));
  mouse.y = static_cast<int16_t>(read16(report, 5));
  return mouse;
}

std::vector<uint8_t> MirnState::carryOut(const VirtualRecord& record) {
  return std::visit([this](const auto& request) { return carryOut(request); }, record);
}

std::vector<uint8_t> MirnState::carryOut(const VirtualNotUnderstood& /*request*/) {
  return {kRefused};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualHandshake& /*request*/) {
  std::vector<uint8_t> payload(version.begin(), version.end());
  payload.resize(std::min(payload.size(), kVersionBytes));
  payload.resize(kDetailOffset, 0);
  payload.insert(payload.end(), detail.begin(), detail.end());
  payload.push_back(0);
  return payload;
}

std::vector<uint8_t> MirnState::carryOut(const VirtualMouse& mouse) {
  const auto buttons =
      static_cast<uint8_t>((mouse.left != 0 ? 1 : 0) | (mouse.right != 0 ? 2 : 0) | (mouse.middle != 0 ? 4 : 0));
  if (!mouse.relative) {
    movePointer(mouse.x, mouse.y, buttons, mouse.wheel);
    return {kDone};
  }
  movePointer(input.x + scaled(mouse.x, kScreenWidth), input.y + scaled(mouse.y, kScreenHeight), buttons, mouse.wheel);
  VirtualMirnEvent& event = events_.back();
  event.relative = true;
  event.dx = mouse.x;
  event.dy = mouse.y;
  return {kDone};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualRawMouse& mouse) {
  movePointer(mouse.x, mouse.y, mouse.buttons & 7, mouse.wheel);
  return {};
}

void MirnState::movePointer(int32_t x, int32_t y, uint8_t buttons, int8_t wheel) {
  input.x = std::clamp(x, 0, kFullScale);
  input.y = std::clamp(y, 0, kFullScale);
  input.buttons = buttons;
  input.wheel += wheel;
  addEvent(VirtualMirnEvent::Kind::kPointer).wheel = wheel;
}

std::vector<uint8_t> MirnState::carryOut(const VirtualKeyboard& keyboard) {
  input.modifiers = keyboard.modifiers;
  input.keys = keyboard.keys;
  addEvent(VirtualMirnEvent::Kind::kKeyboard);
  return {kDone};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualSetLed& request) {
  setLed({request.status, request.param.value_or(led.param)});
  return {kDone};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualGetLed& request) {
  if (request.short_form) {
    return {led.status};
  }
  return {led.status, static_cast<uint8_t>(led.param & 0xFF), static_cast<uint8_t>(led.param >> 8)};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualFirmwareGreeting& /*request*/) {
  firmware.greeted = true;
  firmware.receiving = false;
  firmware.expected = 0;
  firmware.unfinished.clear();
  return {kDone};
}

std::vector<uint8_t> MirnState::carryOut(const VirtualFirmwareChunk& chunk) {
  if (!acceptsChunk(chunk)) {
    ++firmware.rejected_chunks;
    return {kRefused};
  }
  if (chunk.id == 0) {
    firmware.restarts += firmware.receiving ? 1 : 0;
    firmware.receiving = true;
    firmware.total = chunk.total;
    firmware.unfinished.clear();
  }
  firmware.unfinished.insert(firmware.unfinished.end(), chunk.data.begin(), chunk.data.end());
  firmware.expected = chunk.id + 1U;
  if (firmware.expected == firmware.total) {
    completeFirmware();
  }
  return {kDone};
}

bool MirnState::acceptsChunk(const VirtualFirmwareChunk& chunk) {
  if (chunk.id == 0) {
    return chunk.total != 0 && (firmware.greeted || !settings_.greeting_required);
  }
  return firmware.receiving && chunk.id == firmware.expected && chunk.total == firmware.total;
}

void MirnState::completeFirmware() {
  firmware.image.swap(firmware.unfinished);
  firmware.unfinished.clear();
  firmware.receiving = false;
  firmware.greeted = false;
  firmware.expected = 0;
  ++firmware.completed;
  if (settings_.version_after_replug) {
    version_after_replug = nextVersion();
  } else {
    version = nextVersion();
  }
  addEvent(VirtualMirnEvent::Kind::kFirmware);
}

std::string MirnState::nextVersion() const {
  const auto mark = std::search(firmware.image.begin(), firmware.image.end(), kVersionMark.begin(), kVersionMark.end());
  std::string marked;
  if (mark != firmware.image.end()) {
    for (auto at = mark + kVersionMark.size(); at != firmware.image.end() && marked.size() < kVersionBytes; ++at) {
      if (*at <= ' ' || *at > '~') {
        break;
      }
      marked.push_back(static_cast<char>(*at));
    }
  }
  if (!marked.empty()) {
    return marked;
  }
  const size_t digits = version.find_last_not_of("0123456789") + 1;  // npos + 1 = 0: all digits
  uint64_t last = 0;
  std::from_chars(version.data() + digits, version.data() + version.size(), last);
  return (version.substr(0, digits) + std::to_string(last + 1)).substr(0, kVersionBytes);
}

std::vector<uint8_t> MirnState::carryOut(const VirtualGetInfo& /*request*/) {
  std::vector<uint8_t> payload(name.begin(), name.end());
  payload.insert(payload.end(), id_text.begin(), id_text.end());
  payload.push_back(flag);
  return payload;
}

std::vector<uint8_t> MirnState::carryOut(const VirtualSetName& request) {
  name = request.bytes;
  addEvent(VirtualMirnEvent::Kind::kName);
  return {kDone};
}

}  // namespace mirn
