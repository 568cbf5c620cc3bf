#include "virtual/usb/usbip_wire.h"

#include <algorithm>

#include "virtual/usb/byte_order.h"

namespace mirn {

namespace {

constexpr uint32_t kSubmit = 1;
constexpr uint32_t kUnlink = 2;
constexpr uint32_t kSubmitReply = 3;
constexpr uint32_t kUnlinkReply = 4;
constexpr uint32_t kDirectionIn = 1;
constexpr uint32_t kLargestEndpoint = 15;

// Offsets in the header.
constexpr size_t kCommandAt = 0;
constexpr size_t kSequenceAt = 4;
constexpr size_t kDeviceAt = 8;
constexpr size_t kDirectionAt = 12;
constexpr size_t kEndpointAt = 16;
// of a request
constexpr size_t kTargetAt = 20;
constexpr size_t kLengthAt = 24;
constexpr size_t kStartFrameAt = 28;
constexpr size_t kPacketCountAt = 32;
constexpr size_t kSetupAt = 40;
// of an answer
constexpr size_t kStatusAt = 20;
constexpr size_t kActualAt = 24;
constexpr size_t kErrorCountAt = 36;

// -1 is what the kernel sends for transfers without packets since 5.11; 0 before.
uint32_t packetCount(uint32_t field) {
  return field == UINT32_MAX ? 0 : field;
}

}  // namespace

std::optional<UsbIpRequest> UsbIpParser::next() {
  if (broken_ || buffer_.size() - begin_ < kUsbIpHeaderBytes) return std::nullopt;
  const std::span<const uint8_t> header(buffer_.data() + begin_, kUsbIpHeaderBytes);
  switch (readBig32(header, kCommandAt)) {
    case kSubmit:
      return submit(header);
    case kUnlink: {
      const UsbIpUnlink unlink{readBig32(header, kSequenceAt), readBig32(header, kTargetAt)};
      consume(kUsbIpHeaderBytes);
      return unlink;
    }
    default:
      broken_ = true;
      return std::nullopt;
  }
}

std::optional<UsbIpRequest> UsbIpParser::submit(std::span<const uint8_t> header) {
  const uint32_t endpoint = readBig32(header, kEndpointAt);
  const uint32_t length = readBig32(header, kLengthAt);
  const uint32_t count = packetCount(readBig32(header, kPacketCountAt));
  if (endpoint > kLargestEndpoint || length > kMaxTransferBytes || count > kMaxPackets) {
    broken_ = true;
    return std::nullopt;
  }
  const bool in = readBig32(header, kDirectionAt) == kDirectionIn;
  const size_t data_bytes = in ? 0 : length;
  const size_t total = kUsbIpHeaderBytes + data_bytes + count * kUsbIpPacketBytes;
  if (buffer_.size() - begin_ < total) return std::nullopt;

  UsbIpSubmit result;
  result.sequence = readBig32(header, kSequenceAt);
  result.device = readBig32(header, kDeviceAt);
  result.in = in;
  result.endpoint = static_cast<uint8_t>(endpoint);
  result.length = length;
  result.start_frame = readBig32(header, kStartFrameAt);
  std::copy_n(header.begin() + kSetupAt, result.setup.size(), result.setup.begin());
  const std::span<const uint8_t> rest(buffer_.data() + begin_ + kUsbIpHeaderBytes, total - kUsbIpHeaderBytes);
  result.data.assign(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(data_bytes));
  uint64_t packet_sum = 0;
  for (size_t at = data_bytes; at < rest.size(); at += kUsbIpPacketBytes) {
    result.packets.push_back({readBig32(rest, at), readBig32(rest, at + 4), 0, 0});
    packet_sum += result.packets.back().length;
  }
  if (packet_sum > length) {
    broken_ = true;
    return std::nullopt;
  }
  consume(total);
  return result;
}

void UsbIpParser::consume(size_t count) {
  begin_ += count;
  // Moved to the front only now and then, so that many small requests don't cost a move each.
  constexpr size_t kCompactAt = 64 * 1024;
  if (begin_ == buffer_.size() || begin_ >= kCompactAt) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(begin_));
    begin_ = 0;
  }
}

std::vector<uint8_t> UsbIpReply::bytes() const {
  std::vector<uint8_t> all(header.begin(), header.end());
  all.insert(all.end(), data.begin(), data.end());
  all.insert(all.end(), table.begin(), table.end());
  return all;
}

UsbIpReply usbIpReply(const UsbIpSubmit& submit, int32_t status, std::vector<uint8_t> data, uint32_t out_bytes) {
  UsbIpReply reply;
  if (data.size() > submit.length) data.resize(submit.length);
  const uint32_t actual = submit.in ? static_cast<uint32_t>(data.size()) : std::min(out_bytes, submit.length);
  writeBig32(reply.header, kCommandAt, kSubmitReply);
  writeBig32(reply.header, kSequenceAt, submit.sequence);
  writeBig32(reply.header, kStatusAt, static_cast<uint32_t>(status));
  writeBig32(reply.header, kActualAt, actual);
  if (submit.in) reply.data = std::move(data);
  return reply;
}

UsbIpReply usbIpIsochronousReply(const UsbIpSubmit& submit, const std::vector<IsochronousPacket>& packets,
                                 std::vector<uint8_t> data) {
  UsbIpReply reply = usbIpReply(submit, kUsbOk, std::move(data));
  writeBig32(reply.header, kStartFrameAt, submit.start_frame);
  writeBig32(reply.header, kPacketCountAt, static_cast<uint32_t>(packets.size()));
  uint32_t errors = 0;
  reply.table.resize(packets.size() * kUsbIpPacketBytes);
  for (size_t i = 0; i < packets.size(); ++i) {
    const size_t at = i * kUsbIpPacketBytes;
    writeBig32(reply.table, at, packets[i].offset);
    writeBig32(reply.table, at + 4, packets[i].length);
    writeBig32(reply.table, at + 8, packets[i].actual);
    writeBig32(reply.table, at + 12, static_cast<uint32_t>(packets[i].status));
    if (packets[i].status != kUsbOk) ++errors;
  }
  writeBig32(reply.header, kErrorCountAt, errors);
  return reply;
}

UsbIpReply usbIpUnlinkReply(const UsbIpUnlink& unlink, int32_t status) {
  UsbIpReply reply;
  writeBig32(reply.header, kCommandAt, kUnlinkReply);
  writeBig32(reply.header, kSequenceAt, unlink.sequence);
  writeBig32(reply.header, kStatusAt, static_cast<uint32_t>(status));
  return reply;
}

}  // namespace mirn
