// The keyboard/mouse proxy of a Mirn: turns key and pointer events into the device's records and plays them out, in
// order, on a sending thread of its own. One source file for each half: core, keyboard, pointer, firmware.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "deps/pellum/base_thread.h"
#include "deps/pellum/reference.h"
#include "deps/pellum/sem_queue.h"
#include "device/hard_key_mouse.h"
#include "device/key_mouse_proxy.h"
#include "device/pointer_mapping.h"
#include "device/regular_file.h"
#include "device/vx_tasks.h"

namespace mirn {

// Bound to one submitting thread, as KeyMouseProxy says: key map, held keys, pointer state and the held-back move are
// not locked. The direct operations (GetDevInfo, SendSetDevInfo, GetLedStatus, SetLedStatus, GetVXInfo,
// SetVXLedStatus, DeviceTopology) may come from any thread; the device mutex orders them with the sending thread.
//
// A proxy opens the device and greets it while it is built (up to 2 s when the device is silent), whether or not there
// is a device. It never reopens: after unplugging every operation fails until a new proxy is built. At most one may
// live in a process at a time, because the frame decoder is the process's.
//
// Pointer moves are thinned before they are queued: one in seven is sent in absolute mode, one in two in relative
// mode. The last one held back goes out in front of the next button, wheel, key or firmware record; no timer sends it.
//
// Destruction (callers have stopped): the proxy submits a report with all keys up and the release of the three mouse
// buttons, closes the queue, waits for the exchange in flight and no longer, and closes the device. Closing the queue
// drops every task that the sending thread has not taken, without a listener call. So the four release records arrive
// only as far as an idle sending thread takes them before the queue closes (always a first part of them, in order), and
// none arrives when an exchange is in flight. Who needs the keys up for certain calls KeyBoardUp(0, 0) and the button
// releases, and destroys the proxy after the listener has heard of them.
class HardKMProxy : public KeyMouseProxy, public CReference {
 public:
  // The one consumer of the queue.
  class SendThread : public CBaseThread {
   public:
    explicit SendThread(HardKMProxy* proxy) : proxy_(proxy) {}
    ~SendThread() override;

    // Opens the queue and starts the thread: for a restart after Stop. 1 when the thread runs.
    int Start();
    // Closes the queue, which drops what is in it, and joins the thread: it finishes the exchange it is in, a relative
    // move its step. Returns 1.
    int Stop() override;
    int Stop(int milliseconds) override;

    // To the back of the queue; without effect while it is closed.
    void AddKMTask(CRefObj<i_vx_task> task);
    int ThreadLoop() override;

   private:
    // What the queue's open is given; no limit, the queue has none.
    static constexpr int kQueueArgument = 100;

    void Report(i_vx_task& task, int result);

    HardKMProxy* const proxy_;
    sem_queue<CRefObj<i_vx_task>> queue_;
  };

  HardKMProxy(IKeyMouseListener* listener, uint16_t vendor, uint16_t product);
  ~HardKMProxy() override;

  int64_t AddRef() override { return CReference::AddRef(); }
  int64_t Release() override { return CReference::Release(); }

  // initKeyMap, then initMousePos.
  int Init(const std::vector<tagRECT>& monitors) override;

  // Keyboard ------------------------------------------------------------------------------------------------------

  // Before this every key but a modifier maps to usage 0.
  int initKeyMap();
  int KeyBoardUp(int unused, int key) override;
  int KeyBoardDown(int unused, int key) override;
  // Types upper case, space and punctuation of `text` and skips every other character. With the first that it types it
  // lets go of all held keys; a text without any changes nothing.
  int TypeString(const wchar_t* text, int unused) override;
  int sendKeyboard(const keyboard_args_type& args);

  // Pointer -------------------------------------------------------------------------------------------------------

  int initMousePos(const std::vector<tagRECT>& monitors);
  int SetMouseMoveRelative(bool relative) override;
  int SetRelativeOrigin(unsigned int speed, int x, int y) override;
  // Chooses the raw mouse report for devices whose firmware has it.
  void SetMirnMouseMove(bool new_logic);

  int MouseMove(int x, int y, bool relative) override;
  int MouseLButtonDown(int x, int y) override;
  int MouseLButtonUp(int x, int y) override;
  int MouseLButtonUp(void* event) override;
  int MouseRButtonDown(int x, int y) override;
  int MouseRButtonUp(int x, int y) override;
  int MouseMButtonDown(int x, int y) override;
  int MouseMButtonUp(int x, int y) override;
  int MouseWheelUp(int x, int y, int delta) override;
  int MouseWheelDown(int x, int y, int delta) override;
  // Presses the left button on the device: that is meant. The other three X operations send nothing and return 1.
  int MouseX1ButtonDown(int x, int y) override;
  int MouseX1ButtonUp(int x, int y) override;
  int MouseX2ButtonDown(int x, int y) override;
  int MouseX2ButtonUp(int x, int y) override;
  int GetMousePoint(int x, int y, void* point) override;
  int sendMouse(const mouse_args_type& args);

  // Firmware ------------------------------------------------------------------------------------------------------

  int ReqUpgradeFirmwareHandShake() override;
  int UpgradeFirmware(const wchar_t* path) override;
  int UpgradeFirmware(uint16_t id, uint16_t total, const uint8_t* data, uint16_t length) override;
  // Queues the whole image in chunks; 1 when every chunk was queued, else 0. A HEX file (isHexFirmwarePath) is
  // converted into a temporary file first, which stays. What the device makes of the chunks reaches the listener.
  int ReqUpgradeFirmware(const std::string& path);
  // HEX to a flat image by the plain rules of HexConverter; 0 or -1. The destination gets mode 0600; one that is
  // no regular file of ours (a symbolic link, say) is refused. After -1 it is empty or as it was. `image` as in
  // convertHexFile.
  static int ParseHexFile(const std::string& source_path, const std::string& des_path, RegularFile* image = nullptr);

  // Direct operations ---------------------------------------------------------------------------------------------

  int GetDevInfo(_get_dev_info_reply& reply, std::string& version) override;
  int SendSetDevInfo(const std::string& name) override;
  int GetLedStatus() override;
  int SetLedStatus(uint8_t status) override;
  int GetVXInfo(vx_info_type& info);
  int SetVXLedStatus(const vx_led_status_def& led);
  // Where the HID interface hangs; "" without a device.
  std::string DeviceTopology();

 protected:
  // For work of other kinds than the listener knows: it runs in its turn and is not reported.
  SendThread& send_thread() { return send_thread_; }
  hard_key_mouse& device() { return device_; }

 private:
  void Submit(CRefObj<i_vx_task> task);
  // Sends the held-back move, if there is one, ahead of what follows.
  void FlushPendingMove();
  void SubmitMove(CRefObj<i_vx_task> move);
  bool MoveIsDue();

  uint8_t UsageOf(int key);
  bool HoldKey(uint8_t usage);
  int SendKeyState();

  bool Relative() const { return relative_mode_ || last_move_relative_; }
  PointerPosition EventPosition(int x, int y) const;
  int SendAt(int x, int y, mouse_args_type args);

  int QueueImage(const RegularFile& file, const std::string& path);

  hard_key_mouse device_;
  SendThread send_thread_;

  uint8_t move_counter_ = 0;
  CRefObj<i_vx_task> pending_move_;

  std::map<uint8_t, uint8_t> key_map_;
  uint8_t modifiers_ = 0;
  std::array<uint8_t, 6> slots_{};

  uint8_t left_state_ = 0;
  uint8_t right_state_ = 0;
  uint8_t x1_state_ = 0;  // kept, never sent
  uint8_t x2_state_ = 0;
  PointerMapping mapping_;
  bool relative_mode_ = false;
  bool seen_relative_mode_ = false;
  bool last_move_relative_ = false;
  bool mirn_mouse_move_ = false;
};

}  // namespace mirn
