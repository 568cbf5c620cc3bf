// The host's half of the messages, for tests.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "virtual/usb/byte_order.h"
#include "virtual/usb/usbip_wire.h"

namespace mirn {

// `length` counts for IN only; OUT transfers are as long as their data.
inline std::vector<uint8_t> submitBytes(const UsbIpSubmit& submit) {
  std::vector<uint8_t> bytes(kUsbIpHeaderBytes, 0);
  writeBig32(bytes, 0, 1);
  writeBig32(bytes, 4, submit.sequence);
  writeBig32(bytes, 8, submit.device);
  writeBig32(bytes, 12, submit.in ? 1 : 0);
  writeBig32(bytes, 16, submit.endpoint);
  writeBig32(bytes, 24, submit.in ? submit.length : static_cast<uint32_t>(submit.data.size()));
  writeBig32(bytes, 28, submit.start_frame);
  writeBig32(bytes, 32, static_cast<uint32_t>(submit.packets.size()));
  std::copy(submit.setup.begin(), submit.setup.end(), bytes.begin() + 40);
  bytes.insert(bytes.end(), submit.data.begin(), submit.data.end());
  for (const IsochronousPacket& packet : submit.packets) {
    std::array<uint8_t, kUsbIpPacketBytes> row{};
    writeBig32(row, 0, packet.offset);
    writeBig32(row, 4, packet.length);
    bytes.insert(bytes.end(), row.begin(), row.end());
  }
  return bytes;
}

inline std::vector<uint8_t> unlinkBytes(uint32_t sequence, uint32_t target) {
  std::vector<uint8_t> bytes(kUsbIpHeaderBytes, 0);
  writeBig32(bytes, 0, 2);
  writeBig32(bytes, 4, sequence);
  writeBig32(bytes, 20, target);
  return bytes;
}

struct HostReply {
  uint32_t command = 0;
  uint32_t sequence = 0;
  int32_t status = 0;
  uint32_t actual = 0;
  uint32_t packet_count = 0;
  uint32_t errors = 0;
  std::vector<uint8_t> rest;  // data and table
};

// One whole reply.
inline HostReply readReply(const std::vector<uint8_t>& bytes) {
  return {
      readBig32(bytes, 0),  readBig32(bytes, 4),  static_cast<int32_t>(readBig32(bytes, 20)),      readBig32(bytes, 24),
      readBig32(bytes, 32), readBig32(bytes, 36), {bytes.begin() + kUsbIpHeaderBytes, bytes.end()}};
}

}  // namespace mirn
