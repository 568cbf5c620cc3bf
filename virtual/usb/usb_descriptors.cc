#include "virtual/usb/usb_descriptors.h"

#include <algorithm>
#include <array>

#include "virtual/usb/byte_order.h"
#include "virtual/usb/video_formats.h"

namespace mirn {

namespace {

// Descriptor types.
constexpr uint8_t kDevice = 0x01;
constexpr uint8_t kConfiguration = 0x02;
constexpr uint8_t kString = 0x03;
constexpr uint8_t kInterface = 0x04;
constexpr uint8_t kEndpoint = 0x05;
constexpr uint8_t kInterfaceAssociation = 0x0b;
constexpr uint8_t kBos = 0x0f;
constexpr uint8_t kDeviceCapability = 0x10;
constexpr uint8_t kHid = 0x21;
constexpr uint8_t kHidReport = 0x22;
constexpr uint8_t kClassInterface = 0x24;
constexpr uint8_t kEndpointCompanion = 0x30;

// Endpoint attributes.
constexpr uint8_t kIsochronousAsynchronous = 0x05;
constexpr uint8_t kBulk = 0x02;
constexpr uint8_t kInterrupt = 0x03;

constexpr uint8_t kDirectionIn = 0x80;
constexpr uint8_t kCameraTerminal = 1;
constexpr uint8_t kOutputTerminal = 2;

constexpr std::array<uint8_t, 16> kYuy2Guid = {'Y',  'U',  'Y',  '2',  0x00, 0x00, 0x10, 0x00,
                                               0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
constexpr std::array<uint8_t, 16> kNv12Guid = {'N',  'V',  '1',  '2',  0x00, 0x00, 0x10, 0x00,
                                               0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};

void interfaceDescriptor(LittleEndianWriter& out, uint8_t number, uint8_t alternate, uint8_t endpoints, uint8_t cls,
                         uint8_t subclass, uint8_t protocol) {
  out.u8(9).u8(kInterface).u8(number).u8(alternate).u8(endpoints).u8(cls).u8(subclass).u8(protocol).u8(0);
}

void endpointDescriptor(LittleEndianWriter& out, UsbSpeed speed, uint8_t address, uint8_t attributes, uint16_t packet,
                        uint8_t interval, uint16_t bytes_per_interval) {
  out.u8(7).u8(kEndpoint).u8(address).u8(attributes).u16(packet).u8(interval);
  if (speed == UsbSpeed::kSuper) out.u8(6).u8(kEndpointCompanion).u8(0).u8(0).u16(bytes_per_interval);
}

void uncompressedFormat(LittleEndianWriter& out, uint8_t index, std::span<const uint8_t> guid, uint8_t bits) {
  out.u8(27).u8(kClassInterface).u8(0x04).u8(index).u8(kVideoSizes.size()).raw(guid).u8(bits);
  out.u8(1).u8(0).u8(0).u8(0).u8(0);
}

void mjpegFormat(LittleEndianWriter& out, uint8_t index) {
  out.u8(11).u8(kClassInterface).u8(0x06).u8(index).u8(kVideoSizes.size());
  out.u8(1).u8(1).u8(0).u8(0).u8(0).u8(0);  // fixed-size samples; the first frame is the default
}

void frame(LittleEndianWriter& out, uint8_t subtype, const VideoSetting& setting) {
  const VideoSize size = setting.size();
  const uint64_t frame_bits = uint64_t{maxVideoFrameBytes(setting)} * 8;
  const auto bit_rate = [frame_bits](uint32_t interval) {
    return static_cast<uint32_t>(std::min<uint64_t>(frame_bits * 10000000 / interval, UINT32_MAX));
  };
  out.u8(static_cast<uint32_t>(26 + 4 * kFrameIntervals.size())).u8(kClassInterface).u8(subtype);
  out.u8(setting.frame_index).u8(0).u16(size.width).u16(size.height);
  out.u32(bit_rate(kFrameIntervals.back())).u32(bit_rate(kFrameIntervals.front()));
  out.u32(maxVideoFrameBytes(setting)).u32(kFrameIntervals.front());
  out.u8(kFrameIntervals.size());
  for (const uint32_t interval : kFrameIntervals) out.u32(interval);
}

// BT.709 primaries and transfer, and the BT.601 matrix that the frames are made with.
void colourMatching(LittleEndianWriter& out) {
  out.u8(6).u8(kClassInterface).u8(0x0d).u8(1).u8(1).u8(4);
}

std::vector<uint8_t> formats() {
  LittleEndianWriter out;
  for (size_t i = 0; i < kVideoFormats.size(); ++i) {
    const auto index = static_cast<uint8_t>(i + 1);
    uint8_t frame_subtype = 0x05;
    switch (kVideoFormats.at(i)) {
      case TargetFormat::kYuyv:
        uncompressedFormat(out, index, kYuy2Guid, 16);
        break;
      case TargetFormat::kNv12:
        uncompressedFormat(out, index, kNv12Guid, 12);
        break;
      case TargetFormat::kMjpeg:
        mjpegFormat(out, index);
        frame_subtype = 0x07;
        break;
    }
    for (size_t f = 0; f < kVideoSizes.size(); ++f) {
      frame(out, frame_subtype, {index, static_cast<uint8_t>(f + 1), kFrameIntervals.front()});
    }
    colourMatching(out);
  }
  return out.bytes();
}

void videoControl(LittleEndianWriter& out) {
  interfaceDescriptor(out, kVideoControlInterface, 0, 0, 0x0e, 0x01, 0x00);
  constexpr uint32_t kTotal = 13 + 18 + 9;
  out.u8(13).u8(kClassInterface).u8(0x01).u16(0x0110).u16(kTotal).u32(48000000).u8(1).u8(kVideoStreamingInterface);
  out.u8(18).u8(kClassInterface).u8(0x02).u8(kCameraTerminal).u16(0x0201).u8(0).u8(0);
  out.u16(0).u16(0).u16(0).u8(3).u8(0).u8(0).u8(0);  // no optics, no controls
  out.u8(9).u8(kClassInterface).u8(0x03).u8(kOutputTerminal).u16(0x0101).u8(0).u8(kCameraTerminal).u8(0);
}

void videoStreaming(LittleEndianWriter& out, const UsbShape& shape) {
  const bool bulk = shape.transfer == VideoTransfer::kBulk;
  interfaceDescriptor(out, kVideoStreamingInterface, 0, bulk ? 1 : 0, 0x0e, 0x02, 0x00);
  const std::vector<uint8_t> format_bytes = formats();
  constexpr uint32_t kHeaderBytes = 13 + kVideoFormats.size();
  out.u8(kHeaderBytes).u8(kClassInterface).u8(0x01).u8(kVideoFormats.size());
  out.u16(static_cast<uint32_t>(kHeaderBytes + format_bytes.size())).u8(kDirectionIn | kVideoEndpoint).u8(0);
  out.u8(kOutputTerminal).u8(0).u8(0).u8(0).u8(1);
  for (size_t i = 0; i < kVideoFormats.size(); ++i) out.u8(0);
  out.raw(format_bytes);
  if (bulk) {
    endpointDescriptor(out, shape.speed, kDirectionIn | kVideoEndpoint, kBulk,
                       static_cast<uint16_t>(bulkPacketBytes(shape.speed)), 0, 0);
  } else {
    interfaceDescriptor(out, kVideoStreamingInterface, 1, 1, 0x0e, 0x02, 0x00);
    // Bits 12..11: two more transactions in each microframe.
    endpointDescriptor(out, shape.speed, kDirectionIn | kVideoEndpoint, kIsochronousAsynchronous, 2U << 11 | 1024, 1,
                       0);
  }
}

// An interval of 1 ms at either speed would be 4; the shortest possible is what the real device has.
constexpr uint8_t kHidInterval = 1;

void hid(LittleEndianWriter& out, UsbSpeed speed) {
  interfaceDescriptor(out, kHidInterface, 0, 2, 0x03, 0x00, 0x00);
  out.raw(hidDescriptor());
  endpointDescriptor(out, speed, kDirectionIn | kHidInEndpoint, kInterrupt, kHidReportBytes, kHidInterval,
                     kHidReportBytes);
  endpointDescriptor(out, speed, kHidOutEndpoint, kInterrupt, kHidReportBytes, kHidInterval, kHidReportBytes);
}

}  // namespace

uint32_t bulkPacketBytes(UsbSpeed speed) {
  return speed == UsbSpeed::kSuper ? 1024 : 512;
}

uint32_t videoPayloadBytes(const UsbShape& shape) {
  if (shape.transfer == VideoTransfer::kIsochronous) return kIsochronousPacketBytes;
  // Measured: 2048 gives 14 frames a second of YUYV 720p, 8192 and more give 30.
  return shape.speed == UsbSpeed::kSuper ? 32768 : 16384;
}

std::vector<uint8_t> deviceDescriptor(const UsbIdentity& identity, const UsbShape& shape) {
  const bool super = shape.speed == UsbSpeed::kSuper;
  LittleEndianWriter out;
  // Class EF/02/01: interfaces are grouped by association descriptors. At super speed endpoint 0 tells an exponent.
  out.u8(18).u8(kDevice).u16(super ? 0x0300 : 0x0200).u8(0xef).u8(0x02).u8(0x01).u8(super ? 9 : 64);
  out.u16(identity.vendor).u16(identity.product).u16(0x0100).u8(1).u8(2).u8(3).u8(1);
  return out.bytes();
}

std::vector<uint8_t> configurationDescriptor(const UsbShape& shape) {
  LittleEndianWriter body;
  body.u8(8).u8(kInterfaceAssociation).u8(kVideoControlInterface).u8(2).u8(0x0e).u8(0x03).u8(0x00).u8(0);
  videoControl(body);
  videoStreaming(body, shape);
  hid(body, shape.speed);

  LittleEndianWriter out;
  constexpr uint32_t kInterfaces = 3;
  constexpr uint8_t kBusPowered = 0x80;
  // bMaxPower counts 2 mA at high speed and 8 mA at super speed.
  out.u8(9).u8(kConfiguration).u16(static_cast<uint32_t>(9 + body.size())).u8(kInterfaces).u8(1).u8(0);
  out.u8(kBusPowered).u8(shape.speed == UsbSpeed::kSuper ? 62 : 250);
  out.raw(body.bytes());
  return out.bytes();
}

std::vector<uint8_t> bosDescriptor() {
  LittleEndianWriter out;
  out.u8(5).u8(kBos).u16(5 + 7 + 10).u8(2);
  out.u8(7).u8(kDeviceCapability).u8(0x02).u32(0);                                       // USB 2.0 extension
  out.u8(10).u8(kDeviceCapability).u8(0x03).u8(0).u16(0x000e).u8(1).u8(0x0a).u16(0x20);  // super speed
  return out.bytes();
}

std::vector<uint8_t> hidDescriptor() {
  LittleEndianWriter out;
  out.u8(9).u8(kHid).u16(0x0111).u8(0).u8(1).u8(kHidReport);
  out.u16(static_cast<uint32_t>(hidReportDescriptor().size()));
  return out.bytes();
}

std::vector<uint8_t> hidReportDescriptor() {
  return {0x06, 0x00, 0xff,  // usage page: vendor-defined FF00
          0x09, 0x01,        // usage 1
          0xa1, 0x01,        // collection: application
          0x15, 0x00,        // logical minimum 0
          0x26, 0xff, 0x00,  // logical maximum 255
          0x75, 0x08,        // report size 8 bits
          0x95, 0x40,        // report count 64
          0x09, 0x01,        // usage 1
          0x81, 0x02,        // input: data, variable, absolute
          0x95, 0x40,        // report count 64
          0x09, 0x01,        // usage 1
          0x91, 0x02,        // output: data, variable, absolute
          0xc0};             // end of collection
}

std::vector<uint8_t> stringDescriptor(const UsbIdentity& identity, uint8_t index) {
  constexpr uint16_t kEnglish = 0x0409;
  constexpr size_t kMaxCharacters = 126;
  LittleEndianWriter out;
  if (index == 0) return out.u8(4).u8(kString).u16(kEnglish).bytes();
  if (index > 3) return {};
  const std::string_view texts[] = {identity.manufacturer, identity.product_name, identity.serial};
  const std::string_view text = texts[index - 1].substr(0, kMaxCharacters);
  out.u8(static_cast<uint32_t>(2 + 2 * text.size())).u8(kString);
  for (const char character : text) {
    const auto code = static_cast<uint8_t>(character);
    out.u16(code >= 0x20 && code < 0x7f ? code : '?');
  }
  return out.bytes();
}

}  // namespace mirn
