// The virtual Mirn's HID functions, of which a test lets opening and writing throw.
#pragma once

#include <stdexcept>

#include "platform/hid_functions.h"
#include "virtual/virtual_setup.h"

namespace mirn::test {

enum class Throw { kNothing, kException, kNumber };

inline void throwAs(Throw what) {
  if (what == Throw::kException) throw std::runtime_error("made to fail");
  if (what == Throw::kNumber) throw 5;
}

// Of the whole program; a fixture sets them back.
inline Throw g_open_throws = Throw::kNothing;
inline Throw g_write_throws = Throw::kNothing;

inline HidFunctions throwingHidFunctions() {
  HidFunctions functions = VirtualHid::functions();
  functions.open = [](unsigned short vendor, unsigned short product, const wchar_t* serial) {
    throwAs(g_open_throws);
    return VirtualHid::functions().open(vendor, product, serial);
  };
  functions.write = [](hid_device* device, const unsigned char* data, size_t length) {
    throwAs(g_write_throws);
    return VirtualHid::functions().write(device, data, length);
  };
  return functions;
}

}  // namespace mirn::test
