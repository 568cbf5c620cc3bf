// For programs that host the library: what no command of the channel carries. Input, pictures and every command go
// through the channel. All functions are called on the platform thread unless said otherwise; none throws.
// destroyTexture, which takes a texture away, comes with this header.
#pragma once

#include <cstdint>
#include <string>

#include "embedding/export.h"
#include "video/destroy_texture.h"

namespace mirn {

class CaptureSystem;
class Clock;
class UsbRegistry;
struct HidFunctions;

// Whether a Mirn is on the bus now: one look of a few milliseconds, also where "isVidPidExist" says no because one of
// several Mirns was unplugged.
MIRN_EXPORT bool hostDeviceAttached();

// How the capture session of the main plug-in is doing. All zero and empty while none is open. Counts belong to one
// session.
struct HostSessionStatistics {
  bool open = false;       // a session object exists
  bool running = false;    // it streams
  std::string node;        // e.g. "/dev/video0"; the virtual back end names its own
  std::string deviceName;  // as getDeviceList names it
  std::string uniqueId;    // stable across reboots
  int32_t width = 0;       // pixels, of what the device sends
  int32_t height = 0;
  uint32_t pixelFormat = 0;       // what the device sends, as a four-character code: 'YUYV', 'NV12', 'MJPG'
  double framesPerSecond = 0;     // as the device says it has it; 0 = unknown
  uint64_t framesCaptured = 0;    // arrived and were converted, delivered or not
  uint64_t framesDelivered = 0;   // handed to the textures
  uint64_t droppedLate = 0;       // a newer one came before it was taken, or no buffer was free
  uint64_t droppedDamaged = 0;    // could not be decoded
  int64_t newestFrameAgeNs = -1;  // since the newest frame arrived; -1 = none yet
  int stopCode = 0;               // errno when the device stopped by itself, e.g. was pulled out
};
MIRN_EXPORT HostSessionStatistics hostSessionStatistics();

// Why a capture device could last not be opened or started. code 0: nothing has failed since the last success.
struct HostOpenError {
  int code = 0;        // errno
  std::string node;    // the node it happened on; "" when none was found
  std::string reason;  // what happened, for a person
  std::string advice;  // what to do about it; may be ""
};
MIRN_EXPORT HostOpenError hostLastOpenError();

// Would this user be refused the Mirn's key and pointer interface? code 0: no, or no Mirn is there. Opens nothing.
MIRN_EXPORT HostOpenError hostHidRefusal();

// Where a thing is plugged in, as the kernel names it on its bus (e.g. "1-4.2"); "" when there is none or it has no
// place. The two halves of one Mirn give the same text. A virtual one gives "virtual:<name>".
MIRN_EXPORT std::string hostHidTopologyPath();      // of the HID interface that the proxy has open
MIRN_EXPORT std::string hostCaptureTopologyPath();  // of the capture node in use

// What the key and pointer link has done since the process began.
struct HostLinkStatistics {
  bool proxy = false;        // a proxy exists
  uint64_t mouseSent = 0;    // outcomes reported, by kind: those that the device took ...
  uint64_t mouseFailed = 0;  // ... and those that it didn't
  uint64_t keyboardSent = 0;
  uint64_t keyboardFailed = 0;
  uint64_t firmwareSent = 0;
  uint64_t firmwareFailed = 0;
};
MIRN_EXPORT HostLinkStatistics hostLinkStatistics();

// Virtual back ends instead of the real ones; nullptr = the real ones again. They are borrowed and must live as long as
// they are installed and as anything made from them. Never installed by default. Install before the first command that
// reaches for the device: the answer is false, and nothing changes, while a proxy, a capture session (of either
// plug-in) or the USB monitor holds on to the one that would be replaced.
MIRN_EXPORT bool hostInstallHidFunctions(const HidFunctions* functions);  // platform/hid_functions.h
MIRN_EXPORT bool hostInstallUsbRegistry(UsbRegistry* registry);           // platform/usb_registry.h
MIRN_EXPORT bool hostInstallClock(Clock* clock);                          // platform/clock.h
// For hosts that are built in this tree: a capture system stands on parts of the library that it doesn't show, so
// platform/capture.h is not installed. Elsewhere it takes nullptr alone.
MIRN_EXPORT bool hostInstallCaptureSystem(CaptureSystem* system);

// The LED's status as the device answers it now: one exchange, 500 ms at most. -1 without a proxy or an answer.
MIRN_EXPORT int32_t hostLedStatus();

// Destroys the manager's key and pointer proxy and closes the device, as a new "initKmProxy" would do first.
MIRN_EXPORT void hostReleaseProxy();

// Would an upgrade with this file send exactly the image that the file describes? Reads it record by record: marks,
// digits, lengths, checksums, addresses, the end. The upgrade itself converts without looking, so a host asks first.
// Any thread.
struct HostHexCheck {
  bool hexFile =
      false;           // the path is one that an upgrade converts; false: it goes out as it is, and nothing was checked
  bool exact = false;  // always true when this is no HEX file
  uint64_t line = 0;   // 1-based, of the first finding; 0 = none, or the file as a whole
  std::string reason;  // the first finding, for a person; "" when exact
  uint64_t findings = 0;    // how many there are
  uint64_t imageBytes = 0;  // of the described image
};
MIRN_EXPORT HostHexCheck hostCheckHexFile(const std::string& path);

}  // namespace mirn
