// HID as the system needs it: hidapi's calls behind one table, so that a virtual device can stand in.
//
// The real hidapi is the default. Only an explicit call of the host installs another table, and only while no device is
// open. Every member is always set.
#pragma once

#include <cstddef>
#include <string>

namespace mirn {

// Opaque; belongs to the back end that opened it.
struct hid_device;

// Why a device's node may not be opened.
struct HidRefusal {
  int code = 0;  // errno; 0 = it may, or there is none
  std::string node;
};

// Of a back end whose devices are open to everybody.
inline HidRefusal noHidRefusal(unsigned short /*vendor*/, unsigned short /*product*/) {
  return {};
}

// Signatures and results are hidapi's. Thread: any, but a handle by one thread at a time; `close` is the last call.
struct HidFunctions {
  // 0, or -1.
  int (*init)();

  // The first device with these identifiers and, unless null, this serial number; null when there is none.
  hid_device* (*open)(unsigned short vendor, unsigned short product, const wchar_t* serial);

  // `data` starts with the report number. Returns the bytes written, or -1.
  int (*write)(hid_device* device, const unsigned char* data, size_t length);

  // The report's bytes, 0 when `milliseconds` passed without one, or -1 (also when the device is gone). -1 milliseconds
  // wait for ever.
  int (*read_timeout)(hid_device* device, unsigned char* data, size_t length, int milliseconds);

  void (*close)(hid_device* device);

  // Where the USB device behind the handle is plugged in, as the kernel names it, such as "1-4.2" (bus 1, port 4 of the
  // root hub, port 2 of the hub there). All interfaces of one composite device have the same path. A virtual device has
  // the path that it was given. "" when it can't be told.
  std::string (*topology)(hid_device* device);

  // Would this user be refused the device that open() takes? Opens nothing. Any thread.
  HidRefusal (*refusal)(unsigned short vendor, unsigned short product) = &noHidRefusal;
};

// The table in use.
const HidFunctions& hidFunctions();

// `functions` must live until it is replaced and every handle opened through it is closed; null brings hidapi back.
// Thread-safe, but call it only while no device is open: a handle stays with the table that opened it.
void setHidFunctions(const HidFunctions* functions);

// hidapi; defined by the platform's own folder.
const HidFunctions& defaultHidFunctions();

}  // namespace mirn
