// What mirnctl's exit status says. Documented in mirnctl(1): a script may rely on the numbers.
#pragma once

namespace mirn {

enum ExitStatus : int {
  kExitOk = 0,
  kExitDevice = 1,        // the device refused or didn't answer
  kExitUsage = 2,         // wrong arguments
  kExitNotPluggedIn = 3,  // no Mirn on the bus
  kExitNoPermission = 4,  // a node may not be opened
  kExitBusy = 5,          // another program holds the camera
  kExitNoPicture = 6,     // no signal, or the camera can't be opened for another reason
  kExitData = 7,          // a file or text can't be read, written or used
  kExitIncomplete = 8,    // doctor: plugged in and open to us, but not complete
  kExitNotUpdated = 9,    // upgrade: the device does not run a new version afterwards

  // Above this: ended by the signal of that number, after what was held on the target has been let go.
  kExitSignal = 128,
};

}  // namespace mirn
