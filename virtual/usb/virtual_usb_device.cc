#include "virtual/usb/virtual_usb_device.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace mirn {

namespace {

// A device has room for a few reports that nobody fetches; who opens it later must not find old answers.
constexpr size_t kMaxKeptReports = 64;
constexpr std::chrono::nanoseconds kReportLife = std::chrono::seconds(1);

// Far more than a host has transfers on their way.
constexpr size_t kMaxEarlyUnlinks = 256;

template <typename Queue, typename Sequence>
bool eraseSequence(Queue& queue, uint32_t target, Sequence sequence) {
  const auto found =
      std::find_if(queue.begin(), queue.end(), [&](const auto& item) { return sequence(item) == target; });
  if (found == queue.end()) return false;
  queue.erase(found);
  return true;
}

}  // namespace

UsbIdentity usbIdentityOf(const VirtualMirn& mirn) {
  return {mirn.vendorId(), mirn.productId(), "Nuvra", kMirnProductName, mirn.serial()};
}

VirtualUsbDevice::VirtualUsbDevice(UsbShape shape, VirtualMirn& mirn, FrameSource& frames)
    : shape_(shape),
      mirn_(mirn),
      video_(frames, shape),
      control_(usbIdentityOf(mirn), shape, video_, [this](std::span<const uint8_t> report) {
        if (mirn_.hostWrite(report, control_now_) == VirtualWriteResult::kGone) gone_ = true;
      }) {}

void VirtualUsbDevice::handle(UsbIpRequest request, Time now, Replies* replies) {
  if (auto* unlink_request = std::get_if<UsbIpUnlink>(&request)) {
    unlink(*unlink_request, replies);
  } else {
    submit(std::move(std::get<UsbIpSubmit>(request)), now, replies);
  }
}

void VirtualUsbDevice::submit(UsbIpSubmit request, Time now, Replies* replies) {
  newest_submit_ = request.sequence;
  if (unlinkedBefore(request, replies)) return;
  if (request.endpoint == 0) {
    control(request, now, replies);
  } else if (request.in && request.endpoint == kVideoEndpoint && request.length > kPayloadHeaderBytes) {
    Time due = now;
    if (!request.packets.empty()) {
      // The packets of one transfer follow those of the one before on the bus.
      const Time begin = std::max(now, isochronous_end_);
      isochronous_end_ = begin + kMicroframe * static_cast<int64_t>(request.packets.size());
      due = isochronous_end_;
    }
    video_waiting_.push_back({std::move(request), due});
  } else if (request.in && request.endpoint == kHidInEndpoint) {
    input_waiting_.push_back(std::move(request));
  } else if (!request.in && request.endpoint == kHidOutEndpoint) {
    output_waiting_.push_back(std::move(request));
  } else {
    replies->push_back(usbIpReply(request, kUsbStall, {}));
    return;
  }
  run(now, replies);
}

void VirtualUsbDevice::control(const UsbIpSubmit& request, Time now, Replies* replies) {
  control_now_ = now;
  UsbControlAnswer answer = control_.handle(decodeSetup(request.setup), request.data, now);
  const bool taken = answer.status == kUsbOk && !request.in;
  replies->push_back(usbIpReply(request, answer.status, std::move(answer.data),
                                taken ? static_cast<uint32_t>(request.data.size()) : 0));
}

void VirtualUsbDevice::unlink(const UsbIpUnlink& request, Replies* replies) {
  // Linux 6.1 sends transfers and unlinks from two lists, and an unlink can overtake the transfer that it is for. An
  // answer now would be for a transfer that the host then gets ended twice, and it would throw the device off the bus.
  const bool early = newest_submit_ && static_cast<int32_t>(request.target - *newest_submit_) > 0;
  if (early && early_unlinks_.size() < kMaxEarlyUnlinks) {
    early_unlinks_.push_back(request);
    return;
  }
  const auto of_submit = [](const UsbIpSubmit& submit) { return submit.sequence; };
  const auto of_waiting = [](const Waiting& waiting) { return waiting.submit.sequence; };
  const bool held = eraseSequence(video_waiting_, request.target, of_waiting) ||
                    eraseSequence(input_waiting_, request.target, of_submit) ||
                    eraseSequence(output_waiting_, request.target, of_submit);
  replies->push_back(usbIpUnlinkReply(request, held ? kUsbUnlinked : kUsbOk));
}

bool VirtualUsbDevice::unlinkedBefore(const UsbIpSubmit& request, Replies* replies) {
  const auto found = std::find_if(early_unlinks_.begin(), early_unlinks_.end(),
                                  [&](const UsbIpUnlink& unlink) { return unlink.target == request.sequence; });
  if (found == early_unlinks_.end()) return false;
  replies->push_back(usbIpUnlinkReply(*found, kUsbUnlinked));
  early_unlinks_.erase(found);
  return true;
}

void VirtualUsbDevice::run(Time now, Replies* replies) {
  if (gone()) return;
  runOutput(now, replies);
  if (gone()) return;
  runInput(now, replies);
  if (shape_.transfer == VideoTransfer::kBulk) {
    runBulk(now, replies);
  } else {
    runIsochronous(now, replies);
  }
}

void VirtualUsbDevice::runOutput(Time now, Replies* replies) {
  while (!hold_output_ && !output_waiting_.empty()) {
    const UsbIpSubmit request = std::move(output_waiting_.front());
    output_waiting_.pop_front();
    switch (mirn_.hostWrite(request.data, now)) {
      case VirtualWriteResult::kAccepted:
        replies->push_back(usbIpReply(request, kUsbOk, {}, static_cast<uint32_t>(request.data.size())));
        break;
      case VirtualWriteResult::kError:
        replies->push_back(usbIpReply(request, kUsbProtocolError, {}));
        break;
      case VirtualWriteResult::kGone:
        gone_ = true;  // the transfer ends with the connection
        return;
    }
  }
}

void VirtualUsbDevice::collectReports(Time now) {
  for (VirtualReport& report : mirn_.takeReports()) reports_.push_back(report);
  while (!reports_.empty() &&
         (reports_.size() > kMaxKeptReports || (input_waiting_.empty() && reports_.front().due + kReportLife < now))) {
    reports_.pop_front();
  }
}

void VirtualUsbDevice::runInput(Time now, Replies* replies) {
  collectReports(now);
  while (!input_waiting_.empty() && !reports_.empty() && reports_.front().due <= now) {
    const VirtualReport report = reports_.front();
    reports_.pop_front();
    const UsbIpSubmit request = std::move(input_waiting_.front());
    input_waiting_.pop_front();
    std::vector<uint8_t> data;
    if (!report.read_error) data.assign(report.bytes.begin(), report.bytes.end());
    replies->push_back(usbIpReply(request, report.read_error ? kUsbProtocolError : kUsbOk, std::move(data)));
  }
}

void VirtualUsbDevice::runBulk(Time now, Replies* replies) {
  while (!video_waiting_.empty()) {
    std::vector<uint8_t> payload = video_.bulkPayload(video_waiting_.front().submit.length, now);
    if (payload.empty()) return;
    replies->push_back(usbIpReply(video_waiting_.front().submit, kUsbOk, std::move(payload)));
    video_waiting_.pop_front();
  }
}

void VirtualUsbDevice::runIsochronous(Time now, Replies* replies) {
  while (!video_waiting_.empty() && video_waiting_.front().due <= now) {
    const Waiting waiting = std::move(video_waiting_.front());
    video_waiting_.pop_front();
    std::vector<IsochronousPacket> packets = waiting.submit.packets;
    const Time begin = waiting.due - kMicroframe * static_cast<int64_t>(packets.size());
    std::vector<uint8_t> data = video_.isochronousPayload(&packets, begin);
    replies->push_back(usbIpIsochronousReply(waiting.submit, packets, std::move(data)));
  }
}

std::optional<VirtualUsbDevice::Time> VirtualUsbDevice::nextDue() const {
  std::optional<Time> due;
  const auto consider = [&due](Time time) { due = due ? std::min(*due, time) : time; };
  if (!input_waiting_.empty() && !reports_.empty()) consider(reports_.front().due);
  if (!video_waiting_.empty()) {
    if (shape_.transfer == VideoTransfer::kIsochronous) {
      consider(video_waiting_.front().due);
    } else if (const std::optional<Time> payload = video_.nextPayloadAt()) {
      consider(*payload);
    }
  }
  return due;
}

size_t VirtualUsbDevice::pendingTransfers() const {
  return video_waiting_.size() + input_waiting_.size() + output_waiting_.size();
}

}  // namespace mirn
