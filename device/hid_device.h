// The owner of one HID handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/hid_functions.h"

namespace mirn {

// Opens the device on construction and closes it on destruction; never reopens it. Uses the function table that was
// installed when it was built, so a later change of the table never mixes two back ends on one handle.
//
// Thread-safe as far as the back end is: the command layer calls it under its device mutex.
class nuvra_hid_device {
 public:
  // Tries (vendor, product), then (g_fallback_vid, product). Without a device there is no handle, and that is no error.
  nuvra_hid_device(uint16_t vendor, uint16_t product);
  virtual ~nuvra_hid_device();

  nuvra_hid_device(const nuvra_hid_device&) = delete;
  nuvra_hid_device& operator=(const nuvra_hid_device&) = delete;

  // Writes one report, report number first. -2 without a handle, -1 when the write fails, else 0. `timeout_ms` is not
  // used: a HID write has none.
  int send_data(const uint8_t* data, size_t length, int timeout_ms);

  // Reads one report. -2 without a handle, the negative result of a failed read, else 0 (also when the time ran out).
  int recv_data(uint8_t* buffer, size_t length, int timeout_ms);

  // Null when there is no device. Borrowed.
  hid_device* handle() const { return handle_; }
  const HidFunctions& functions() const { return *functions_; }

  // Where the opened interface hangs, in the form of HidFunctions::topology; "" without a handle.
  std::string topology() const;

 protected:
  // A bare open, without serial number and without the second identifier.
  hid_device* _open_hid_device(uint16_t vendor, uint16_t product);

 private:
  const HidFunctions* functions_;
  hid_device* handle_;
};

}  // namespace mirn
