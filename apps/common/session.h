// One connection to the library as an application has it: an engine, the channel, one texture. Every command and every
// picture goes through them; what they don't carry comes from plugin/mirn_host.h.
#pragma once

#include <chrono>
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

// What the two picture commands ask for.
struct PictureChoice {
  std::string quality;  // "720P" or "1080P"; of a camera that runs, "" = another size
  bool best = false;

  bool operator==(const PictureChoice&) const = default;
};
// "720P in best color"
std::string describe(const PictureChoice& format);

// What a new proxy and an upgrade let go of first, because a crash may have left it held. A button's release carries a
// position, so it moves the pointer of a target whose pointer this program has not put anywhere yet.
enum class Release {
  kKeys,        // keyUp 0 alone: moves nothing
  kEverything,  // and the three button-ups, where the pointer was put last (the middle before that)
};

// Bound to the main thread (the default GLib main context).
class Session {
 public:
  explicit Session(Release release = Release::kEverything);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  Engine& engine() { return engine_; }
  ChannelClient& channel() { return channel_; }
  InputSink& input() { return input_; }

  // "isVidPidExist"; while that says no, the bus is asked once a second, because the answer goes with the first of
  // several Mirns that is unplugged.
  bool isPlugged();
  // How often isPlugged() saw that a Mirn went, also when another one stayed.
  uint64_t departures() const { return departures_; }
  std::vector<std::string> captureNames();  // "getDeviceList"

  // "initKmProxy", and right after it the releases; none into another computer than the one on the screen.
  bool connectKeyboard();
  // The device has answered the releases of the last connectKeyboard().
  bool releasesAnswered() const;
  std::optional<DeviceInfo> info();  // "getMirnDevInfo"
  int setName(const std::string& name);
  void setLed(int status);
  int led();  // the status byte, -1 when the device doesn't answer

  bool openPicture();  // "open"; one that fails leaves nothing behind
  void closePicture();
  bool pictureRuns() const;  // opened, and the camera has not stopped by itself
  // "setVideoQuality" and the color. False when the camera doesn't run at it afterwards: the commands say yes to what
  // it doesn't offer, too, and it goes on as before.
  bool setFormat(const PictureChoice& format);
  // What the camera runs at; nothing while no picture is open.
  std::optional<PictureChoice> runningFormat() const;
  // Makes the texture at the first call; its id.
  int64_t texture();
  PixelBufferRef picture();
  // Serves the main loop until a picture came that is newer than `after` (null = any), or the time is over.
  PixelBufferRef waitForPicture(const PixelBufferRef& after, std::chrono::milliseconds limit);

  // "reqUpgradeFirmware", after the releases.
  int64_t startUpgrade(const std::string& path);

  // Facts for a diagnosis and an upgrade as of now.
  DeviceFacts facts();
  UpgradeFacts upgradeFacts();

 private:
  struct Releases {
    uint64_t keys = 0;
    uint64_t buttons = 0;
  };
  Releases letGo();

  const Release release_;
  Engine engine_;
  ChannelClient channel_;
  ChannelInput input_;
  int64_t texture_ = -1;
  bool open_ = false;
  bool camera_found_ = true;  // when the picture was last opened
  bool flag_ = false;         // what "isVidPidExist" answered last
  bool on_bus_ = false;       // what the last look at the bus saw
  std::optional<std::chrono::steady_clock::time_point> looked_;
  uint64_t departures_ = 0;
  std::optional<std::chrono::steady_clock::time_point> departed_;  // the last of them
  HostOpenError refusal_;                                          // of the keyboard interface, when it was last tried
  Releases answered_;  // keyboard and pointer records answered once the last releases are
};

// The open keyboard interface and the open camera belong to two devices.
bool keyboardIsElsewhere();

}  // namespace mirn
