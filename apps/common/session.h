// One connection to the library as an application has it: an engine, the channel, one texture. Every command and every
// picture goes through them; what they don't carry comes from plugin/mirn_host.h.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/channel_input.h"
#include "apps/common/diagnosis.h"
#include "apps/common/upgrade_flow.h"
#include "host/channel_client.h"
#include "host/engine.h"
#include "plugin/mirn_host.h"

namespace mirn {

struct DeviceInfo {
  std::string name;
  std::string id;
  bool flag = false;
  std::string version;

  bool operator==(const DeviceInfo&) const = default;
};

// Bound to the main thread (the default GLib main context).
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Engine& engine() { return engine_; }
  ChannelClient& channel() { return channel_; }
  InputSink& input() { return input_; }

  bool isPlugged();                         // "isVidPidExist"
  std::vector<std::string> captureNames();  // "getDeviceList"

  // "initKmProxy", and right after it keyUp 0 and the three button-ups: what a crash left held is let go.
  bool connectKeyboard();
  std::optional<DeviceInfo> info();  // "getMirnDevInfo"
  int setName(const std::string& name);
  void setLed(int status);
  int led();  // the status byte, -1 when the device doesn't answer

  bool openPicture();  // "open"
  void closePicture();
  bool setQuality(const std::string& quality);
  void setColor(bool best);
  // Makes the texture at the first call; its id.
  int64_t texture();
  PixelBufferRef picture();
  // Serves the main loop until a picture came that is newer than `after` (null = any), or the time is over.
  PixelBufferRef waitForPicture(const PixelBufferRef& after, std::chrono::milliseconds limit);

  // "reqUpgradeFirmware"; releases everything before.
  int64_t startUpgrade(const std::string& path);

  // Facts for a diagnosis and an upgrade as of now.
  DeviceFacts facts();
  UpgradeFacts upgradeFacts();

 private:
  Engine engine_;
  ChannelClient channel_;
  ChannelInput input_;
  int64_t texture_ = -1;
  bool open_ = false;
};

// Reads the file's size and checks it strictly.
UpgradeFile checkUpgradeFile(const std::string& path);

}  // namespace mirn
