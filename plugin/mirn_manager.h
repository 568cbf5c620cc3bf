// The one object behind every channel command: the device half (mirn_manager_device.cc) and the video half
// (mirn_manager_video.cc) of the device manager.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "device/key_mouse_listener.h"
#include "platform/capture.h"
#include "usb/usb_monitor.h"

namespace mirn {

class HardKMProxy;
class MyCppListenerWrapper;

// The capture colour in force: true = the '420v' formats, false = 'yuvs'. Belongs to the process. Platform thread.
extern bool gNormalColor;

// What an upgrade answers that can't begin.
inline constexpr int32_t kUpgradeImpossible = -4;

struct MirnSize {
  double width = 0;  // pixels
  double height = 0;
};

// Bound to the platform thread, except setProcess (any thread). Every operation can be called at any time: without a
// device it does nothing or answers the "missing" value named beside it. What the layers below throw (out of memory,
// say) passes through here and ends at the plug-in, which answers as without a device; with two exceptions: connecting
// answers false to every standard exception, and getMirnDevInfo an empty list to any exception of its question, though
// not of the connecting before it.
class MirnManager : public SampleBufferDelegate {
 public:
  // A manager with a listener and an initialised HID library; no device is opened.
  static std::unique_ptr<MirnManager> init();

  // Destroys the USB monitor and lets the capture objects go. The proxy and its listener are left behind alive, because
  // its sending thread may be in the middle of an exchange: nothing is sent to the device from here.
  ~MirnManager() override;
  MirnManager(const MirnManager&) = delete;
  MirnManager& operator=(const MirnManager&) = delete;

  // ---- device half

  // Opens the device through a new proxy, in place of the one that exists. False, and no proxy, when it does not
  // answer.
  bool initkmproxy();
  bool initKmProxy();

  // Whether a Mirn is plugged in. The first call scans and starts the monitor; later ones read its flag.
  bool getDeviceExist();
  // One scan of the bus, without the monitor.
  bool checkDeviceExist();

  void setLedStatus(int32_t status);  // the low 8 bits

  // Name, id, "1" or "0", firmware version. Empty without a device, after one attempt to open it.
  std::vector<std::string> getMirnDevInfo();
  int32_t setMirnDevInfo(const std::string& name);  // the command layer's result; -1 without a proxy

  // Windows virtual-key codes.
  void keyDown(int32_t key);
  void keyUp(int32_t key);

  // Positions: 0..32767 per axis.
  void mouseMove(int32_t x, int32_t y);
  // "lbdown", "lbup", "rbdown", "rbup", "mbdown", "mbup", in exactly these letters; any other word does nothing.
  void mouseEventButtons(std::string_view type, int32_t x, int32_t y);
  // Deltas below 1, also 0, are a notch up; the others a notch down. That is meant.
  void mouseWheel(int32_t x, int32_t y, int32_t delta);

  // Queues the whole image. 1 when it was queued, 0 when it could not be read; -4 without a proxy or when the capture
  // device can't be locked for the time.
  int32_t reqUpgradeFirmware(const std::string& path);
  // Thread-safe. Two independent numbers: a reader may see a new one beside an old one.
  void setProcess(int32_t current, int32_t total);
  // {current, total}; empty without a proxy. Never reset: a second upgrade starts from the last pair of the first.
  std::vector<int32_t> getUpgradeProgress();

  // ---- video half

  // The names of all video capture devices, in the system's order.
  std::vector<std::string> getDeviceList();
  bool open();
  void close();
  // "720P" or "1080P"; `quality` may be null (a text that isn't there).
  bool setVideoQuality(const std::string* quality);
  void normalColor();
  void bestColor();
  void bindTexture(int64_t textureId);
  MirnSize getSize();

  // Every frame, on the main queue: handed to every live texture.
  void captureOutput(CaptureVideoOutput& output, const SampleBuffer& sampleBuffer,
                     const CaptureConnection& connection) override;

  // ---- for plugin/mirn_host.h

  std::shared_ptr<CaptureSession> captureSession() const { return captureSession_; }
  std::shared_ptr<CaptureDevice> captureDevice() const { return captureDevice_; }
  HardKMProxy* kmproxy() const { return kmproxy_.get(); }
  MyCppListenerWrapper& listener() const { return *pWrapper; }
  void releaseProxy();

 private:
  MirnManager();

  // Video half's helpers.
  void storeFormats();
  void switchColor(bool normal);

  std::shared_ptr<CaptureSession> captureSession_;
  std::shared_ptr<CaptureVideoOutput> videoOutput_;
  std::shared_ptr<CaptureDeviceInput> videoInput_;
  std::shared_ptr<CaptureDevice> captureDevice_;
  int64_t sourceWidth_ = 0;  // pixels
  int64_t sourceHeight_ = 0;
  int64_t textureId_ = -1;  // -1 = none. Stored, but frames go to every texture: that is meant.
  std::unique_ptr<HardKMProxy> kmproxy_;
  CaptureFormatRef normalcolor_;          // 1920 x 1080 '420v'
  CaptureFormatRef bestcolor_;            // 1920 x 1080 'yuvs'
  CaptureFormatRef normalcolor_720_;      // 1280 x 720 '420v'
  CaptureFormatRef bestcolor_720_;        // 1280 x 720 'yuvs'
  std::vector<int64_t> frameTextureIds_;  // of the frame being handed out; kept for its capacity
  std::unique_ptr<MyCppListenerWrapper> pWrapper;
  std::atomic<int32_t> curProgressNum{0};
  std::atomic<int32_t> totalProgressNum{0};
  USBMonitor uSBMonitor_;
};

// What the proxy's sending thread tells. Thread-safe. May be called after the manager has gone: then it does nothing
// but print and count.
class MyCppListenerWrapper : public IKeyMouseListener {
 public:
  void OnUpgradeStep(uint16_t id, uint16_t total) override;
  void OnSendMouseResult(int result) override;
  void OnSendKeyboardResult(int result) override;
  void OnSendUpgradeResult(int err_no, uint16_t cur_id, uint16_t total) override;
  void OnSendFirmwareHandSharkeResult(int result) override;
};

}  // namespace mirn
