#include "apps/console/scenario.h"

#include <glib.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>

#include "apps/common/held_keys.h"
#include "apps/common/png_file.h"
#include "apps/common/pointer_map.h"
#include "apps/common/pointer_rest.h"
#include "apps/common/program_start.h"
#include "apps/common/session.h"
#include "apps/common/text_typing.h"
#include "apps/common/topology_check.h"
#include "apps/common/typing_run.h"
#include "apps/common/upgrade_file.h"
#include "host/main_loop.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

using Steady = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience{10};
constexpr const char* kLine = "Hello from the Mirn: typed by key presses, seen in the picture.";

// One run. Each step returns what to say, or an empty text with failure_ set.
class Scenario {
 public:
  Scenario(VirtualWorld& world, int output) : world_(world), output_(output) {}

  int run(const std::string& picture_path) {
    struct Step {
      const char* name;
      std::function<bool()> act;
    };
    const std::array steps = {
        Step{"find the device", [this] { return find(); }},
        Step{"open picture and keyboard", [this] { return open(); }},
        Step{"switch quality and colour", [this] { return switchFormats(); }},
        Step{"type a line", [this] { return type(); }},
        Step{"move the pointer and click", [this] { return pointAndClick(); }},
        Step{"read and set information", [this] { return information(); }},
        Step{"upgrade the firmware", [this] { return upgrade(); }},
        Step{"save the picture", [this, &picture_path] { return save(picture_path); }},
    };
    size_t number = 0;
    for (const Step& step : steps) {
      ++number;
      note_.clear();
      bool good = step.act();
      say(std::string(good ? "ok    " : "FAILED ") + std::to_string(number) + "/" + std::to_string(steps.size()) + " " +
          step.name + (note_.empty() ? "" : ": " + note_));
      if (!good) {
        return 1;
      }
    }
    return 0;
  }

 private:
  void say(const std::string& line) { writeAll(output_, line + "\n"); }
  bool done(const std::string& note) {
    note_ = note;
    return true;
  }
  bool failed(const std::string& note) {
    note_ = note;
    return false;
  }

  bool find() {
    if (!session_.isPlugged()) {
      return failed("no Mirn on the bus");
    }
    std::vector<std::string> names = session_.captureNames();
    return names.empty() ? failed("no capture device") : done(names.front());
  }

  bool open() {
    session_.texture();
    if (!session_.openPicture()) {
      return failed(hostLastOpenError().reason);
    }
    if (!session_.connectKeyboard()) {
      return failed("the keyboard interface doesn't answer");
    }
    TopologyVerdict verdict = compareTopology(hostHidTopologyPath(), hostCaptureTopologyPath());
    return verdict.same ? done("both at " + hostHidTopologyPath()) : failed(verdict.reason);
  }

  // A picture that was taken in this format, which the camera still runs at.
  bool newPictureComes(const PictureChoice& format) {
    session_.engine().syncRaster();  // no picture of the old format is underway any more
    size_t width = format.quality == "720P" ? 1280 : 1920;
    PixelBufferRef picture = session_.waitForPicture(session_.picture(), kPatience);
    return picture && picture->width() == width && session_.runningFormat() == format;
  }

  bool switchFormats() {
    std::string seen;
    for (const PictureChoice& wanted :
         {PictureChoice{"720P", false}, PictureChoice{"1080P", true}, PictureChoice{"1080P", false}}) {
      if (!session_.setFormat(wanted)) {
        return failed("the camera doesn't take " + describe(wanted));
      }
      if (!newPictureComes(wanted)) {
        return failed("no picture at " + describe(wanted));
      }
      seen += (seen.empty() ? "" : ", ") + wanted.quality + " " + fourCharText(hostSessionStatistics().pixelFormat);
    }
    return done(seen);
  }

  // The newest picture shows the input that the target holds now.
  bool pictureShowsInput() {
    return runLoopUntil(
        [&] {
          PixelBufferRef picture = session_.picture();
          if (!picture) {
            return false;
          }
          picture->lockBaseAddress(kPixelBufferLockReadOnly);
          auto strip = readStripBgra(picture->baseAddress(), static_cast<int>(picture->width()),
                                     static_cast<int>(picture->height()), picture->bytesPerRow());
          picture->unlockBaseAddress(kPixelBufferLockReadOnly);
          return strip && strip->input_digest == world_.target().inputState().digest();
        },
        kPatience);
  }

  bool type() {
    HostLinkStatistics link = hostLinkStatistics();
    TypingRun run(planTyping(kLine, *keyboardLayout("us")), session_.input(), link.keyboardSent + link.keyboardFailed,
                  link.keyboardFailed);
    runLoopUntil(
        [&] {
          HostLinkStatistics now = hostLinkStatistics();
          return run.advance(now.keyboardSent + now.keyboardFailed, now.keyboardFailed, Steady::now()) !=
                 TypingRun::State::kTyping;
        },
        kPatience);
    if (run.state() != TypingRun::State::kDone) {
      return failed(run.failure());
    }
    std::string text = world_.target().text();
    std::erase(text, '\n');
    if (text.find(kLine) == std::string::npos) {
      return failed("the target holds \"" + text + "\"");
    }
    return pictureShowsInput() ? done(std::to_string(run.charactersDone()) + " characters, all on the target")
                               : failed("the picture doesn't show it");
  }

  bool pointAndClick() {
    constexpr int kX = 1400;
    constexpr int kY = 300;
    constexpr int kWidth = 1920;
    constexpr int kHeight = 1080;
    int x = positionOfPixel(kX, kWidth);
    int y = positionOfPixel(kY, kHeight);
    PointerRest pointer(session_.input());
    pointer.move(x, y, Steady::now());
    pointer.settle(Steady::now(), true);
    auto at = [&] { return world_.mirn().input().x == x && world_.mirn().input().y == y; };
    if (!runLoopUntil(at, kPatience)) {
      return failed("the pointer is not where it was put");
    }
    session_.input().mouseButton("lbdown", x, y);
    session_.input().mouseButton("lbup", x, y);
    auto clicked = [&] {
      std::vector<TargetClick> clicks = world_.target().clicks();
      return !clicks.empty() && clicks.back() == TargetClick{x, y, kTargetLeftButton};
    };
    if (!runLoopUntil(clicked, kPatience)) {
      return failed("the click did not arrive");
    }
    return pictureShowsInput() ? done("pixel 1400,300") : failed("the picture doesn't show it");
  }

  bool information() {
    std::optional<DeviceInfo> info = session_.info();
    if (!info) {
      return failed("the device doesn't answer");
    }
    constexpr const char* kName = "Demo Mirn";
    constexpr int kLed = 1;
    session_.setName(kName);
    session_.setLed(kLed);
    std::optional<DeviceInfo> after = session_.info();
    if (!after || after->name != kName || session_.led() != kLed) {
      return failed("name or LED did not change");
    }
    return done("\"" + info->name + "\" is now \"" + after->name + "\", version " + after->version + ", LED on");
  }

  // A small image in Intel HEX: 3,000 bytes with the version it brings.
  static std::string firmwareText() {
    constexpr size_t kBytes = 3000;
    constexpr size_t kPerRecord = 16;
    std::string image = "MIRN-VERSION=1.1.0";
    image.resize(kBytes, '\0');
    for (size_t i = 32; i < kBytes; ++i) {
      image[i] = static_cast<char>(i * 7);
    }
    std::string text;
    for (size_t at = 0; at < kBytes; at += kPerRecord) {
      size_t length = std::min(kPerRecord, kBytes - at);
      std::array<char, 16> part{};
      std::snprintf(part.data(), part.size(), ":%02X%04X00", static_cast<unsigned>(length), static_cast<unsigned>(at));
      text += part.data();
      unsigned sum = static_cast<unsigned>(length) + static_cast<unsigned>(at >> 8) + static_cast<unsigned>(at & 0xFF);
      for (size_t i = 0; i < length; ++i) {
        auto byte = static_cast<unsigned char>(image[at + i]);
        sum += byte;
        std::snprintf(part.data(), part.size(), "%02X", byte);
        text += part.data();
      }
      std::snprintf(part.data(), part.size(), "%02X\r\n", (0x100U - (sum & 0xFFU)) & 0xFFU);
      text += part.data();
    }
    return text + ":00000001FF\r\n";
  }

  bool upgrade() {
    const char* folder = g_get_tmp_dir();
    std::string path = std::string(folder) + "/mirn-demo-" + std::to_string(getpid()) + ".hex";
    std::string text = firmwareText();
    if (g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()), nullptr) == FALSE) {
      return failed("can't write " + path);
    }
    bool good = upgradeWith(path);
    unlink(path.c_str());
    return good;
  }

  bool upgradeWith(const std::string& path) {
    UpgradeFile file = checkUpgradeFile(path);
    std::optional<DeviceInfo> before = session_.info();
    if (!file.ok || !before) {
      return failed(file.ok ? "the device doesn't answer" : file.reason);
    }
    UpgradeFlow flow(file, before->version, session_.upgradeFacts());
    flow.start(session_.startUpgrade(path), Steady::now());
    runLoopUntil(
        [&] {
          flow.update(session_.upgradeFacts(), Steady::now());
          if (flow.wantsHandshake(Steady::now())) {
            std::optional<DeviceInfo> info = session_.connectKeyboard() ? session_.info() : std::nullopt;
            flow.handshake(info ? std::optional<std::string>(info->version) : std::nullopt, Steady::now());
          }
          return flow.state() == UpgradeState::kFinished;
        },
        std::chrono::seconds(60));
    return flow.result() == UpgradeResult::kUpdated ? done(flow.resultText()) : failed(flow.resultText());
  }

  bool save(const std::string& path) {
    if (!pictureShowsInput()) {
      return failed("the picture doesn't show the newest input");
    }
    std::string error;
    return writePng(session_.picture(), path, &error) ? done(path) : failed(error);
  }

  VirtualWorld& world_;
  int output_;
  Session session_;
  std::string note_;
};

}  // namespace

int runScenario(VirtualWorld& world, const std::string& picture_path, int output) {
  return Scenario(world, output).run(picture_path);
}

}  // namespace mirn
