#include "virtual/usb/control_pipe.h"

#include <algorithm>
#include <utility>

#include "virtual/usb/video_formats.h"

namespace mirn {

namespace {

// bmRequestType.
constexpr uint8_t kDirectionIn = 0x80;
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kTypeStandard = 0x00;
constexpr uint8_t kTypeClass = 0x20;
constexpr uint8_t kRecipientMask = 0x1f;
constexpr uint8_t kRecipientDevice = 0;
constexpr uint8_t kRecipientInterface = 1;
constexpr uint8_t kRecipientEndpoint = 2;

// Standard requests.
constexpr uint8_t kGetStatus = 0;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kSetFeature = 3;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kGetConfiguration = 8;
constexpr uint8_t kSetConfiguration = 9;
constexpr uint8_t kGetInterface = 10;
constexpr uint8_t kSetInterface = 11;
constexpr uint8_t kSetSel = 0x30;               // super speed: exit latencies
constexpr uint8_t kSetIsochronousDelay = 0x31;  // super speed
constexpr uint16_t kEndpointHalt = 0;

// Video class: requests, selectors, error codes.
constexpr uint8_t kSetCur = 0x01;
constexpr uint8_t kGetCur = 0x81;
constexpr uint8_t kGetMin = 0x82;
constexpr uint8_t kGetMax = 0x83;
constexpr uint8_t kGetLen = 0x85;
constexpr uint8_t kGetInfo = 0x86;
constexpr uint8_t kGetDef = 0x87;
constexpr uint8_t kProbeControl = 1;
constexpr uint8_t kCommitControl = 2;
constexpr uint8_t kRequestErrorControl = 2;
constexpr uint8_t kErrorOutOfRange = 4;
constexpr uint8_t kErrorInvalidControl = 6;
constexpr uint8_t kErrorInvalidRequest = 7;

// HID class.
constexpr uint8_t kGetReport = 0x01;
constexpr uint8_t kGetIdle = 0x02;
constexpr uint8_t kGetProtocol = 0x03;
constexpr uint8_t kSetReport = 0x09;
constexpr uint8_t kSetIdle = 0x0a;
constexpr uint8_t kSetProtocol = 0x0b;
constexpr uint8_t kOutputReport = 2;

UsbControlAnswer data(const UsbSetup& setup, std::vector<uint8_t> bytes) {
  if (bytes.size() > setup.length) bytes.resize(setup.length);
  return {kUsbOk, std::move(bytes)};
}

uint8_t highByte(uint16_t value) {
  return static_cast<uint8_t>(value >> 8);
}
uint8_t lowByte(uint16_t value) {
  return static_cast<uint8_t>(value & 0xff);
}

}  // namespace

UsbSetup decodeSetup(std::span<const uint8_t, 8> bytes) {
  const auto word = [&](size_t at) { return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8); };
  return {bytes[0], bytes[1], word(2), word(4), word(6)};
}

ControlPipe::ControlPipe(UsbIdentity identity, UsbShape shape, VideoStream& video,
                         std::function<void(std::span<const uint8_t>)> output_report)
    : identity_(std::move(identity)), shape_(shape), video_(video), output_report_(std::move(output_report)) {}

UsbControlAnswer ControlPipe::handle(const UsbSetup& setup, std::span<const uint8_t> out,
                                     std::chrono::nanoseconds now) {
  const uint8_t type = setup.request_type & kTypeMask;
  if (type == kTypeStandard) return standard(setup, now);
  if (type != kTypeClass || (setup.request_type & kRecipientMask) != kRecipientInterface) return stall();
  switch (lowByte(setup.index)) {
    case kVideoControlInterface:
      return videoControl(setup);
    case kVideoStreamingInterface:
      return video(setup, out, now);
    case kHidInterface:
      return hid(setup, out);
    default:
      return stall();
  }
}

UsbControlAnswer ControlPipe::standard(const UsbSetup& setup, std::chrono::nanoseconds now) {
  switch (setup.request) {
    case kGetDescriptor:
      return descriptor(setup);
    case kGetStatus:
      return status(setup);
    case kClearFeature:
      return clearFeature(setup);
    case kSetFeature:  // remote wake-up, link states, function suspend: taken, without effect
    case kSetSel:
    case kSetIsochronousDelay:
      return {};
    case kGetConfiguration:
      return data(setup, {configuration_});
    case kSetConfiguration:
      if (setup.value > 1) return stall();
      configuration_ = lowByte(setup.value);
      video_alternate_ = 0;
      video_.stop();
      return {};
    case kGetInterface:
      if (setup.index > kHidInterface) return stall();
      return data(setup, {setup.index == kVideoStreamingInterface ? video_alternate_ : uint8_t{0}});
    case kSetInterface:
      return setInterface(setup, now);
    default:
      return stall();
  }
}

UsbControlAnswer ControlPipe::descriptor(const UsbSetup& setup) const {
  if ((setup.request_type & kDirectionIn) == 0) return stall();
  const uint8_t type = highByte(setup.value);
  const uint8_t index = lowByte(setup.value);
  if ((setup.request_type & kRecipientMask) == kRecipientInterface) {
    if (setup.index != kHidInterface) return stall();
    if (type == 0x21) return data(setup, hidDescriptor());
    if (type == 0x22) return data(setup, hidReportDescriptor());
    return stall();
  }
  switch (type) {
    case 0x01:
      return data(setup, deviceDescriptor(identity_, shape_));
    case 0x02:
      return index == 0 ? data(setup, configurationDescriptor(shape_)) : stall();
    case 0x03: {
      std::vector<uint8_t> text = stringDescriptor(identity_, index);
      return text.empty() ? stall() : data(setup, std::move(text));
    }
    case 0x0f:
      return shape_.speed == UsbSpeed::kSuper ? data(setup, bosDescriptor()) : stall();
    default:  // a device qualifier among them: there is no other speed
      return stall();
  }
}

bool ControlPipe::endpointExists(uint16_t address) const {
  return address == 0 || address == (kDirectionIn | kVideoEndpoint) || address == (kDirectionIn | kHidInEndpoint) ||
         address == kHidOutEndpoint;
}

UsbControlAnswer ControlPipe::status(const UsbSetup& setup) const {
  const uint8_t recipient = setup.request_type & kRecipientMask;
  const bool known = recipient == kRecipientDevice ||
                     (recipient == kRecipientInterface && setup.index <= kHidInterface) ||
                     (recipient == kRecipientEndpoint && endpointExists(setup.index));
  return known ? data(setup, {0, 0}) : stall();  // bus-powered, no wake-up, nothing halted
}

UsbControlAnswer ControlPipe::clearFeature(const UsbSetup& setup) {
  if ((setup.request_type & kRecipientMask) != kRecipientEndpoint) return {};
  if (!endpointExists(setup.index)) return stall();
  // The one thing that tells a bulk device that the host has stopped its stream.
  const bool video = setup.value == kEndpointHalt && setup.index == (kDirectionIn | kVideoEndpoint);
  if (video && shape_.transfer == VideoTransfer::kBulk) video_.stop();
  return {};
}

UsbControlAnswer ControlPipe::setInterface(const UsbSetup& setup, std::chrono::nanoseconds now) {
  const bool isochronous = shape_.transfer == VideoTransfer::kIsochronous;
  if (setup.index == kVideoStreamingInterface) {
    if (setup.value > (isochronous ? 1 : 0)) return stall();
    video_alternate_ = lowByte(setup.value);
    if (video_alternate_ == 1) {
      video_.start(now);
    } else {
      video_.stop();
    }
    return {};
  }
  return setup.index <= kHidInterface && setup.value == 0 ? UsbControlAnswer{} : stall();
}

UsbControlAnswer ControlPipe::stallVideo(uint8_t error) {
  video_error_ = error;
  return stall();
}

UsbControlAnswer ControlPipe::video(const UsbSetup& setup, std::span<const uint8_t> out, std::chrono::nanoseconds now) {
  const uint8_t selector = highByte(setup.value);
  if (selector != kProbeControl && selector != kCommitControl) return stallVideo(kErrorInvalidControl);
  switch (setup.request) {
    case kSetCur: {
      const std::optional<VideoSetting> wanted = negotiateVideo(out);
      if (!wanted) return stallVideo(kErrorOutOfRange);
      probe_ = *wanted;
      if (selector == kCommitControl) video_.commit(probe_, now);
      return {};
    }
    case kGetCur:
    case kGetMin:
    case kGetMax:
    case kGetDef: {
      const auto block = encodeProbe(probe_, videoPayloadBytes(shape_));
      return data(setup, {block.begin(), block.end()});
    }
    case kGetLen:
      return data(setup, {static_cast<uint8_t>(kProbeBytes), 0});
    case kGetInfo:
      return data(setup, {0x03});  // both directions
    default:
      return stallVideo(kErrorInvalidRequest);
  }
}

UsbControlAnswer ControlPipe::videoControl(const UsbSetup& setup) const {
  // The interface itself has one control, the reason of the last stall; the terminals have none.
  const bool of_interface = highByte(setup.index) == 0;
  if (!of_interface || highByte(setup.value) != kRequestErrorControl) return stall();
  if (setup.request == kGetCur) return data(setup, {video_error_});
  if (setup.request == kGetInfo) return data(setup, {0x01});
  return stall();
}

UsbControlAnswer ControlPipe::hid(const UsbSetup& setup, std::span<const uint8_t> out) {
  switch (setup.request) {
    case kGetReport:
      return data(setup, std::vector<uint8_t>(kHidReportBytes, 0));
    case kGetIdle:
      return data(setup, {idle_rate_});
    case kGetProtocol:
      return data(setup, {protocol_});
    case kSetReport:
      if (highByte(setup.value) != kOutputReport) return stall();
      output_report_(out);
      return {};
    case kSetIdle:
      idle_rate_ = highByte(setup.value);
      return {};
    case kSetProtocol:
      protocol_ = lowByte(setup.value);
      return {};
    default:
      return stall();
  }
}

}  // namespace mirn
