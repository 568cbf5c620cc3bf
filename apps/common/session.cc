#include "apps/common/session.h"

#include <algorithm>
#include <utility>

#include "apps/common/held_keys.h"
#include "apps/common/topology_check.h"
#include "host/main_loop.h"
#include "platform/capture.h"
#include "platform/mirn_identity.h"
#include "plugin/registration.h"

namespace mirn {
namespace {

constexpr std::chrono::seconds kLookEvery{1};
// From leaving the bus to coming back, of a device that starts its new firmware.
constexpr std::chrono::seconds kRestartsWithin{8};

// A virtual capture source is this program's own object, and what it reports stays on this side of the library.
HostOpenError openError() {
  HostOpenError error = hostLastOpenError();
  if (error.code == 0) {
    CaptureError own = lastCaptureError();
    error = {own.code, own.node, own.reason, own.advice};
  }
  return error;
}

}  // namespace

std::string describe(const PictureChoice& format) {
  return format.quality + (format.best ? " in best color" : " in normal color");
}

Session::Session(Release release) : release_(release), channel_(engine_), input_(channel_) {
  registerFlutterMirnPluginCApi(engine_.makeRegistrar());
}

Session::~Session() {
  closePicture();
}

bool Session::isPlugged() {
  bool flag = channel_.call("isVidPidExist").asBool();
  if (std::exchange(flag_, flag) && !flag) {
    ++departures_;
    departed_ = std::chrono::steady_clock::now();
    looked_.reset();
  }
  if (flag) {
    return true;
  }
  auto now = std::chrono::steady_clock::now();
  if (!looked_ || now - *looked_ >= kLookEvery) {
    looked_ = now;
    on_bus_ = hostDeviceAttached();
  }
  return on_bus_;
}

std::vector<std::string> Session::captureNames() {
  CallOutcome outcome = channel_.call("getDeviceList");
  std::vector<std::string> names;
  for (size_t i = 0; i < outcome.listSize(); ++i) {
    const std::string* name = outcome.at(i).asText();
    names.push_back(name != nullptr ? *name : std::string());
  }
  return names;
}

bool Session::connectKeyboard() {
  refusal_ = {};
  if (!channel_.call("initKmProxy").asBool()) {
    refusal_ = hostHidRefusal();
    return false;
  }
  // The old proxy and its records are gone: from here on only this one's are answered.
  HostLinkStatistics link = hostLinkStatistics();
  Releases sent = letGo();
  answered_ = {link.keyboardSent + link.keyboardFailed + sent.keys, link.mouseSent + link.mouseFailed + sent.buttons};
  return true;
}

Session::Releases Session::letGo() {
  if (keyboardIsElsewhere()) {
    return {};
  }
  if (release_ == Release::kKeys) {
    input_.keyUp(0);
    return {1, 0};
  }
  releaseEverythingOn(input_, input_.x(), input_.y());
  return {1, 3};
}

bool Session::releasesAnswered() const {
  HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardSent + link.keyboardFailed >= answered_.keys &&
         link.mouseSent + link.mouseFailed >= answered_.buttons;
}

std::optional<DeviceInfo> Session::info() {
  // Without a proxy the command would make one itself, and nothing would be released after it.
  if (!hostLinkStatistics().proxy && !connectKeyboard()) {
    return std::nullopt;
  }
  CallOutcome outcome = channel_.call("getMirnDevInfo");
  constexpr size_t kFields = 4;
  if (outcome.listSize() != kFields) {
    return std::nullopt;
  }
  auto text = [&](size_t index) {
    const std::string* value = outcome.at(index).asText();
    return value != nullptr ? *value : std::string();
  };
  return DeviceInfo{text(0), text(1), text(2) == "1", text(3)};
}

int Session::setName(const std::string& name) {
  return static_cast<int>(channel_.call("setMirnDevInfo", {{"name", Value(name)}}).asInt(-1));
}

void Session::setLed(int status) {
  channel_.call("setLedStatus", {{"ledStatus", Value(int32_t{status})}});
}

int Session::led() {
  return hostLedStatus();
}

bool Session::openPicture() {
  // A second "open" would make a new session beside the old one.
  closePicture();
  open_ = channel_.call("open").asBool();
  camera_found_ = true;
  if (!open_) {
    // What it made on the way would pass for a session, and hold the camera.
    channel_.call("release");
    std::vector<std::string> names = captureNames();
    camera_found_ = std::find(names.begin(), names.end(), kMirnProductName) != names.end();
  }
  return open_;
}

void Session::closePicture() {
  if (std::exchange(open_, false)) {
    channel_.call("release");
  }
}

bool Session::pictureRuns() const {
  HostSessionStatistics session = hostSessionStatistics();
  return open_ && session.open && session.stopCode == 0;
}

bool Session::setFormat(const PictureChoice& format) {
  bool taken = channel_.call("setVideoQuality", {{"quality", Value(format.quality)}}).asBool();
  channel_.call(format.best ? "bestColor" : "normalColor");
  return taken && runningFormat() == format;
}

std::optional<PictureChoice> Session::runningFormat() const {
  if (!pictureRuns()) {
    return std::nullopt;
  }
  HostSessionStatistics session = hostSessionStatistics();
  PictureChoice format;
  if (session.width == 1280 && session.height == 720) {
    format.quality = "720P";
  } else if (session.width == 1920 && session.height == 1080) {
    format.quality = "1080P";
  }
  format.best = session.pixelFormat == kCaptureYuyv;
  return format;
}

int64_t Session::texture() {
  if (texture_ < 0) {
    texture_ = channel_.call("createTexture").asInt(-1);
    channel_.call("bindTexture", {{"textureId", Value(int64_t{texture_})}});
  }
  return texture_;
}

PixelBufferRef Session::picture() {
  return engine_.latestPicture(texture());
}

PixelBufferRef Session::waitForPicture(const PixelBufferRef& after, std::chrono::milliseconds limit) {
  PixelBufferRef newest;
  runLoopUntil(
      [&] {
        newest = picture();
        return newest && newest.get() != after.get();
      },
      limit);
  return newest && newest.get() != after.get() ? newest : PixelBufferRef();
}

int64_t Session::startUpgrade(const std::string& path) {
  letGo();
  return channel_.call("reqUpgradeFirmware", {{"path", Value(path)}}).asInt(0);
}

DeviceFacts Session::facts() {
  DeviceFacts facts;
  facts.present = isPlugged();
  facts.proxy = hostLinkStatistics().proxy;
  if (!facts.proxy) {
    facts.keyboard_failure = classifyOpenError(refusal_.code);
    facts.keyboard_detail = refusal_.code == 0 ? "" : refusal_.node + ": " + refusal_.reason;
  }
  facts.open = pictureRuns();
  facts.frames = hostSessionStatistics().framesCaptured;
  if (!facts.open && !camera_found_) {
    facts.failure = OpenFailure::kNotFound;  // the last error is of a camera that was there
  } else if (!facts.open) {
    HostOpenError error = openError();
    facts.failure = classifyOpenError(error.code);
    if (error.code != 0) {
      facts.failure_detail = (error.node.empty() ? "" : error.node + ": ") + error.reason;
    }
  }
  return facts;
}

UpgradeFacts Session::upgradeFacts() {
  HostLinkStatistics link = hostLinkStatistics();
  // When one of several goes it is taken for the upgraded one: asking another one for its version would mislead.
  bool present = isPlugged();
  if (present && !flag_ && departed_) {
    present = std::chrono::steady_clock::now() - *departed_ > kRestartsWithin;
  }
  return {present, link.firmwareSent + link.firmwareFailed, link.firmwareFailed};
}

bool keyboardIsElsewhere() {
  return compareTopology(hostHidTopologyPath(), hostCaptureTopologyPath()).elsewhere;
}

}  // namespace mirn
