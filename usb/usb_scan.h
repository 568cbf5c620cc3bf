// One synchronous look at what is plugged in now.
#pragma once

#include "platform/usb_registry.h"

namespace mirn {

// Whether a USB device with the identifiers g_vid and g_pid is attached. False too when the match request fails.
// Reentrant; takes a few milliseconds.
bool UsbDeviceAttached(UsbRegistry& registry = usbRegistry());

}  // namespace mirn
