// The messages between the kernel's virtual host controller and a device server, as bytes: a 48-byte header
// (big-endian), then data, then 16 bytes for each isochronous packet. Documented in the kernel's
// Documentation/usb/usbip_protocol.rst.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <variant>
#include <vector>

namespace mirn {

inline constexpr size_t kUsbIpHeaderBytes = 48;
inline constexpr size_t kUsbIpPacketBytes = 16;
// What no sound host exceeds: more ends the connection.
inline constexpr uint32_t kMaxTransferBytes = 16 * 1024 * 1024;
inline constexpr uint32_t kMaxPackets = 1024;

// Statuses of a transfer: negative errno values, as the kernel has them.
inline constexpr int32_t kUsbOk = 0;
inline constexpr int32_t kUsbStall = -32;          // EPIPE
inline constexpr int32_t kUsbProtocolError = -71;  // EPROTO
inline constexpr int32_t kUsbUnlinked = -104;      // ECONNRESET

struct IsochronousPacket {
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t actual = 0;
  int32_t status = 0;
  bool operator==(const IsochronousPacket&) const = default;
};

// One transfer that the host wants.
struct UsbIpSubmit {
  uint32_t sequence = 0;
  uint32_t device = 0;
  bool in = false;
  uint8_t endpoint = 0;
  uint32_t length = 0;  // of the host's buffer
  uint32_t start_frame = 0;
  std::array<uint8_t, 8> setup{};
  std::vector<uint8_t> data{};               // OUT: `length` bytes
  std::vector<IsochronousPacket> packets{};  // none: not isochronous
};

// The host takes a transfer back.
struct UsbIpUnlink {
  uint32_t sequence = 0;
  uint32_t target = 0;  // the transfer's sequence number
};

using UsbIpRequest = std::variant<UsbIpSubmit, UsbIpUnlink>;

// Cuts the byte stream into requests. Not thread-safe.
class UsbIpParser {
 public:
  void feed(std::span<const uint8_t> bytes) { buffer_.insert(buffer_.end(), bytes.begin(), bytes.end()); }

  // The next whole request; none when more bytes are needed or the stream is broken.
  std::optional<UsbIpRequest> next();

  // A message that is none: nothing more comes out.
  bool broken() const { return broken_; }

 private:
  std::optional<UsbIpRequest> submit(std::span<const uint8_t> header);
  void consume(size_t count);

  std::vector<uint8_t> buffer_;
  size_t begin_ = 0;  // of what is not consumed yet
  bool broken_ = false;
};

// One answer, its parts in the order of the wire: header, data, isochronous table.
struct UsbIpReply {
  std::array<uint8_t, kUsbIpHeaderBytes> header{};
  std::vector<uint8_t> data;
  std::vector<uint8_t> table;

  std::vector<uint8_t> bytes() const;
};

// The end of a transfer. `data`: what an IN transfer brings; `out_bytes`: what an OUT transfer took. At most
// submit.length of either counts.
UsbIpReply usbIpReply(const UsbIpSubmit& submit, int32_t status, std::vector<uint8_t> data, uint32_t out_bytes = 0);

// The end of an isochronous IN transfer: `packets` are those of the request with actual lengths and statuses; `data`
// holds the actual bytes back to back.
UsbIpReply usbIpIsochronousReply(const UsbIpSubmit& submit, const std::vector<IsochronousPacket>& packets,
                                 std::vector<uint8_t> data);

// `status`: kUsbUnlinked when the transfer was taken back (then it gets no other answer), 0 when it had ended before.
UsbIpReply usbIpUnlinkReply(const UsbIpUnlink& unlink, int32_t status);

}  // namespace mirn
