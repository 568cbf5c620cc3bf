// The operation set of a keyboard/mouse proxy, whatever device stands behind it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device/key_mouse_listener.h"
#include "device/payloads.h"

namespace mirn {

// A monitor of the target in pixels; right and bottom lie one past the last pixel.
struct tagRECT {
  int32_t left = 0;
  int32_t top = 0;
  int32_t right = 0;
  int32_t bottom = 0;
};

// Bound to one submitting thread (the host's main thread), but for the four direct operations at the end, which any
// thread may call. Positions are 0..32767 per axis of the selected monitor. Input operations return at once: what the
// device made of them reaches the listener.
class KeyMouseProxy {
 public:
  // `listener` may be null; it is borrowed and must outlive the proxy.
  explicit KeyMouseProxy(IKeyMouseListener* listener) : listener_(listener) {}
  virtual ~KeyMouseProxy() = default;
  KeyMouseProxy(const KeyMouseProxy&) = delete;
  KeyMouseProxy& operator=(const KeyMouseProxy&) = delete;

  virtual int64_t AddRef() = 0;
  virtual int64_t Release() = 0;

  // Throws std::out_of_range when the monitor index points beyond `monitors`.
  virtual int Init(const std::vector<tagRECT>& monitors) = 0;
  virtual void SetMonitorIndex(int index) { monitor_index_ = index; }
  virtual int SetMouseMoveRelative(bool relative) = 0;
  // `speed` in percent, 0 keeps the one in use; x and y are the position that counts as (0, 0) from now on.
  virtual int SetRelativeOrigin(unsigned int speed, int x, int y) = 0;

  virtual int MouseMove(int x, int y, bool relative) = 0;
  virtual int MouseLButtonDown(int x, int y) = 0;
  virtual int MouseLButtonUp(int x, int y) = 0;
  virtual int MouseRButtonDown(int x, int y) = 0;
  virtual int MouseRButtonUp(int x, int y) = 0;
  virtual int MouseMButtonDown(int x, int y) = 0;
  virtual int MouseMButtonUp(int x, int y) = 0;
  // One notch each: `delta` is ignored.
  virtual int MouseWheelUp(int x, int y, int delta) = 0;
  virtual int MouseWheelDown(int x, int y, int delta) = 0;
  virtual int MouseX1ButtonDown(int x, int y) = 0;
  virtual int MouseX1ButtonUp(int x, int y) = 0;
  virtual int MouseX2ButtonDown(int x, int y) = 0;
  virtual int MouseX2ButtonUp(int x, int y) = 0;

  // `key` is a Windows virtual-key code. The first argument is ignored.
  virtual int KeyBoardUp(int unused, int key) = 0;
  virtual int KeyBoardDown(int unused, int key) = 0;
  virtual int TypeString(const wchar_t* text, int unused) = 0;

  // Operations of other devices: they do nothing and return 0.
  virtual int MouseLButtonUp(void* event) = 0;
  virtual int GetMousePoint(int x, int y, void* point) = 0;

  virtual void SetSupportAutoRelativeMouse(bool support) { support_auto_relative_mouse_ = support; }
  virtual void SetCursorLockState(bool locked) { cursor_locked_ = locked; }

  // 1: the greeting was queued; 0: this device's firmware does without it.
  virtual int ReqUpgradeFirmwareHandShake() = 0;
  // Does nothing and returns 0: an image goes out by ReqUpgradeFirmware of the proxy.
  virtual int UpgradeFirmware(const wchar_t* path) = 0;
  // Queues one chunk of at most 1024 bytes.
  virtual int UpgradeFirmware(uint16_t id, uint16_t total, const uint8_t* data, uint16_t length) = 0;

  // Direct operations: they run on the caller's thread, wait for the device's answer and never pass the queue.
  virtual int GetDevInfo(_get_dev_info_reply& reply, std::string& version) = 0;
  virtual int SendSetDevInfo(const std::string& name) = 0;
  virtual int GetLedStatus() = 0;
  virtual int SetLedStatus(uint8_t status) = 0;

 protected:
  IKeyMouseListener* const listener_;
  // Stored for hosts that set them; nothing here reads these two.
  bool support_auto_relative_mouse_ = false;
  bool cursor_locked_ = false;
  int monitor_index_ = 0;
};

}  // namespace mirn
