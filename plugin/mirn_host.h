// For programs that host the library: what no command of the channel carries. Input, pictures and every command go
// through the channel. All functions are called on the platform thread unless said otherwise; none throws.
#pragma once

#include <cstdint>
#include <string>

#include "embedding/export.h"

namespace mirn {

class CaptureSystem;
class Clock;
class UsbRegistry;
struct HidFunctions;

// How the capture session of the main plug-in is doing. All zero and empty while none is open.
struct HostSessionStatistics {
  bool open = false;     // a session object exists
  bool running = false;  // it streams
  std::string node;      // e.g. "/dev/video0"; the virtual back end names its own
  int32_t width = 0;     // pixels, of the active format
  int32_t height = 0;
  uint32_t subtype = 0;          // the active format's media subtype as a four-character code, e.g. '420v'
  double framesPerSecond = 0;    // of the active format
  uint64_t framesDelivered = 0;  // handed to the frame callback
  uint64_t framesDropped = 0;    // discarded because a newer one came before they were taken
  uint64_t framesBroken = 0;     // could not be decoded
};
MIRN_EXPORT HostSessionStatistics hostSessionStatistics();

// Why the last "open" of the main plug-in failed. Empty reason: it did not fail, or none was tried.
struct HostOpenError {
  std::string node;    // the capture node it happened on; empty when no node was found
  std::string reason;  // one line, for a person
};
MIRN_EXPORT HostOpenError hostLastOpenError();

// Where on the bus a thing is plugged in, as the kernel names it (e.g. "1-4.2"); empty when there is none or it has no
// place. Two parts of one Mirn have the same path.
MIRN_EXPORT std::string hostHidTopologyPath();      // of the HID interface that the proxy has open
MIRN_EXPORT std::string hostCaptureTopologyPath();  // of the capture node in use

// What the key and pointer link has done since the process began.
struct HostLinkStatistics {
  bool proxy = false;           // a proxy exists
  std::string firmwareVersion;  // the first text of the handshake of the current proxy
  uint64_t mouseSent = 0;       // outcomes reported, by kind: those that the device took ...
  uint64_t mouseFailed = 0;     // ... and those that it didn't
  uint64_t keyboardSent = 0;
  uint64_t keyboardFailed = 0;
  uint64_t firmwareSent = 0;
  uint64_t firmwareFailed = 0;
};
MIRN_EXPORT HostLinkStatistics hostLinkStatistics();

// Virtual back ends instead of the real ones; nullptr = the real ones again. They are borrowed and must live as long as
// they are installed and as anything made from them. Never installed by default. Install before the first command that
// reaches for the device: the answer is false, and nothing changes, while a proxy, a capture session or the USB monitor
// holds on to the one that would be replaced.
MIRN_EXPORT bool hostInstallHidFunctions(const HidFunctions* functions);
MIRN_EXPORT bool hostInstallCaptureSystem(CaptureSystem* system);
MIRN_EXPORT bool hostInstallUsbRegistry(UsbRegistry* registry);
MIRN_EXPORT bool hostInstallClock(Clock* clock);

// Destroys the manager's key and pointer proxy and closes the device, as a new "initKmProxy" would do first.
MIRN_EXPORT void hostReleaseProxy();

// The strict check of an Intel HEX file: record lengths, checksums, addresses that follow each other, an end record.
// The upgrade itself converts without checking, so a host asks first. Any thread.
struct HostHexCheck {
  bool ok = false;
  uint64_t line = 0;        // 1-based line of the first fault; 0 when ok or when it belongs to no line
  std::string reason;       // one line for a person; empty when ok
  uint64_t imageBytes = 0;  // size of the flat image; 0 unless ok
};
MIRN_EXPORT HostHexCheck hostCheckHexFile(const std::string& path);

}  // namespace mirn
