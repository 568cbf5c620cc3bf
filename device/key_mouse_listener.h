// Who hears how the device answered the proxy's queued work.
#pragma once

#include <cstdint>

namespace mirn {

// Every operation but the destructor runs on the proxy's sending thread, once for each task that the thread took, in
// the order of submission. `result` is 0 when the device accepted the command and -1 when it did not or could not be
// reached. A listener must not destroy the proxy that calls it: the destructor waits for the very call.
class IKeyMouseListener {
 public:
  virtual ~IKeyMouseListener() = default;

  // Part of the interface for hosts of other devices; the proxy never calls it.
  virtual void OnUpgradeStep(uint16_t id, uint16_t total) = 0;
  virtual void OnSendMouseResult(int result) = 0;
  virtual void OnSendKeyboardResult(int result) = 0;
  // `id` counts the image's 1024-byte chunks from 0, `total` is their number modulo 65536.
  virtual void OnSendUpgradeResult(int result, uint16_t id, uint16_t total) = 0;
  // The name is spelt like this on purpose: hosts implement it under this name.
  virtual void OnSendFirmwareHandSharkeResult(int result) = 0;
};

}  // namespace mirn
