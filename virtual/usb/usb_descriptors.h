// The descriptors of the composite device: a video function that the stock video-class driver takes, and a HID function
// that the stock HID driver takes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

enum class UsbSpeed : uint8_t { kHigh, kSuper };
enum class VideoTransfer : uint8_t { kBulk, kIsochronous };

inline constexpr uint8_t kVideoEndpoint = 1;   // IN
inline constexpr uint8_t kHidInEndpoint = 2;   // IN, interrupt
inline constexpr uint8_t kHidOutEndpoint = 3;  // OUT, interrupt
inline constexpr uint8_t kVideoControlInterface = 0;
inline constexpr uint8_t kVideoStreamingInterface = 1;
inline constexpr uint8_t kHidInterface = 2;

inline constexpr uint32_t kHidReportBytes = 64;
// High-speed isochronous: three packets of 1024 bytes in each microframe of 125 us, all that the bus grants one
// endpoint.
inline constexpr uint32_t kIsochronousPacketBytes = 3 * 1024;

struct UsbIdentity {
  uint16_t vendor = 0;
  uint16_t product = 0;
  std::string manufacturer;
  std::string product_name;
  std::string serial;
};

struct UsbShape {
  UsbSpeed speed = UsbSpeed::kHigh;
  VideoTransfer transfer = VideoTransfer::kBulk;  // isochronous at high speed only
};

// Largest packet of the bulk video endpoint: 512 or 1024.
uint32_t bulkPacketBytes(UsbSpeed speed);
// dwMaxPayloadTransferSize. Bulk: long enough that the host's transfers keep up with 1080p; isochronous: one packet.
uint32_t videoPayloadBytes(const UsbShape& shape);

std::vector<uint8_t> deviceDescriptor(const UsbIdentity& identity, const UsbShape& shape);
std::vector<uint8_t> configurationDescriptor(const UsbShape& shape);
// Super speed alone.
std::vector<uint8_t> bosDescriptor();
std::vector<uint8_t> hidDescriptor();
// A vendor-defined page with one 64-byte input and one 64-byte output report, without numbers.
std::vector<uint8_t> hidReportDescriptor();
// Index 0: the languages; 1 manufacturer, 2 product, 3 serial. Empty for an index that is not there. The text is ASCII
// (other bytes become '?') and is cut at 126 characters.
std::vector<uint8_t> stringDescriptor(const UsbIdentity& identity, uint8_t index);

}  // namespace mirn
