// The composite device behind the bus: takes the host's transfers and ends them, from a VirtualMirn (HID) and a frame
// source (video). Pure: no descriptor, no thread, no clock of its own.
#pragma once

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "virtual/usb/control_pipe.h"
#include "virtual/usb/frame_source.h"
#include "virtual/usb/usb_descriptors.h"
#include "virtual/usb/usbip_wire.h"
#include "virtual/usb/video_stream.h"
#include "virtual/virtual_mirn.h"

namespace mirn {

// Names and identifiers of a virtual Mirn on the bus.
UsbIdentity usbIdentityOf(const VirtualMirn& mirn);

// Bound to one thread at a time. Time is what the caller says it is, and the same clock's as everywhere with this
// VirtualMirn.
class VirtualUsbDevice {
 public:
  using Time = std::chrono::nanoseconds;
  using Replies = std::vector<UsbIpReply>;

  // Borrows both for its life.
  VirtualUsbDevice(UsbShape shape, VirtualMirn& mirn, FrameSource& frames);
  VirtualUsbDevice(const VirtualUsbDevice&) = delete;
  VirtualUsbDevice& operator=(const VirtualUsbDevice&) = delete;

  // What can be answered at once is appended to `replies`; the rest comes from run().
  void handle(UsbIpRequest request, Time now, Replies* replies);

  // Ends the transfers that are due.
  void run(Time now, Replies* replies);

  // When run() has something to do again without a new request; none: not before one.
  std::optional<Time> nextDue() const;

  // The device has left the bus (its fault plan, or somebody, unplugged it).
  bool gone() const { return gone_ || !mirn_.plugged(); }

  // While held, the device takes no output report: writes wait, and fail after the host's own patience.
  void setHoldOutput(bool hold) { hold_output_ = hold; }

  const VideoStream& video() const { return video_; }
  size_t pendingTransfers() const;

 private:
  // A transfer that waits, and when it may end at the earliest (isochronous ones).
  struct Waiting {
    UsbIpSubmit submit;
    Time due{};
  };

  void submit(UsbIpSubmit request, Time now, Replies* replies);
  void control(const UsbIpSubmit& request, Time now, Replies* replies);
  bool takeOutput(const UsbIpSubmit& request, Time now, Replies* replies);
  void unlink(const UsbIpUnlink& request, Replies* replies);
  bool unlinkedBefore(const UsbIpSubmit& request, Replies* replies);
  void runOutput(Time now, Replies* replies);
  void runInput(Time now, Replies* replies);
  void runBulk(Time now, Replies* replies);
  void runIsochronous(Time now, Replies* replies);
  void collectReports(Time now);

  const UsbShape shape_;
  VirtualMirn& mirn_;
  VideoStream video_;
  ControlPipe control_;
  Time control_now_{};  // the time of the control request under way
  std::deque<Waiting> video_waiting_;
  std::deque<UsbIpSubmit> input_waiting_;
  std::deque<UsbIpSubmit> output_waiting_;
  std::deque<VirtualReport> reports_;
  std::optional<uint32_t> newest_submit_;   // sequence number
  std::vector<UsbIpUnlink> early_unlinks_;  // of transfers that have not come yet
  Time isochronous_end_{};                  // when the last isochronous transfer's time on the bus is over
  bool hold_output_ = false;
  bool gone_ = false;
};

}  // namespace mirn
