// Endpoint 0: answers to the control requests that stock drivers send, and the state that these requests set.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "virtual/usb/usb_descriptors.h"
#include "virtual/usb/usbip_wire.h"
#include "virtual/usb/video_stream.h"

namespace mirn {

// The 8 bytes of a setup packet.
struct UsbSetup {
  uint8_t request_type = 0;
  uint8_t request = 0;
  uint16_t value = 0;
  uint16_t index = 0;
  uint16_t length = 0;
};
UsbSetup decodeSetup(std::span<const uint8_t, 8> bytes);

struct UsbControlAnswer {
  int32_t status = kUsbOk;    // kUsbStall: not understood
  std::vector<uint8_t> data;  // IN; already cut to the asked length
};

// Bound to one thread at a time.
class ControlPipe {
 public:
  // `output_report` takes what a host sends by SET_REPORT, without a report number.
  ControlPipe(UsbIdentity identity, UsbShape shape, VideoStream& video,
              std::function<void(std::span<const uint8_t>)> output_report);

  // `out`: the data stage of an OUT request, as long as the host says.
  UsbControlAnswer handle(const UsbSetup& setup, std::span<const uint8_t> out, std::chrono::nanoseconds now);

  uint8_t configuration() const { return configuration_; }

 private:
  UsbControlAnswer standard(const UsbSetup& setup, std::chrono::nanoseconds now);
  UsbControlAnswer descriptor(const UsbSetup& setup) const;
  UsbControlAnswer status(const UsbSetup& setup) const;
  UsbControlAnswer clearFeature(const UsbSetup& setup);
  UsbControlAnswer setInterface(const UsbSetup& setup, std::chrono::nanoseconds now);
  UsbControlAnswer video(const UsbSetup& setup, std::span<const uint8_t> out, std::chrono::nanoseconds now);
  UsbControlAnswer videoControl(const UsbSetup& setup) const;
  UsbControlAnswer hid(const UsbSetup& setup, std::span<const uint8_t> out);
  static UsbControlAnswer stall() { return {kUsbStall, {}}; }
  UsbControlAnswer stallVideo(uint8_t error);
  bool endpointExists(uint16_t address) const;

  const UsbIdentity identity_;
  const UsbShape shape_;
  VideoStream& video_;
  const std::function<void(std::span<const uint8_t>)> output_report_;
  uint8_t configuration_ = 0;
  uint8_t video_alternate_ = 0;
  uint8_t idle_rate_ = 0;
  uint8_t protocol_ = 1;
  VideoSetting probe_;
  uint8_t video_error_ = 0;  // what the last stalled video request is answered for
};

}  // namespace mirn
