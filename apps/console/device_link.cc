#include "apps/console/device_link.h"

#include <algorithm>
#include <utility>

namespace mirn {
namespace {

constexpr unsigned kLookEveryMs = 100;
// After a failure, its number in a row times this, up to the last: who waits for a plug or for the end of another
// program sees the picture at once, and a camera that is away for long is not asked all the time.
constexpr std::chrono::milliseconds kPictureEvery{700};
constexpr unsigned kLongestPicturePause = 3;

}  // namespace

DeviceLink::DeviceLink(Session& session, std::string quality, bool best_color)
    : session_(session), quality_(std::move(quality)), best_color_(best_color) {}

DeviceLink::~DeviceLink() {
  timer_.disconnect();
}

void DeviceLink::start() {
  tick();
  timer_ = Glib::signal_timeout().connect(sigc::mem_fun(*this, &DeviceLink::tick), kLookEveryMs);
}

bool DeviceLink::tick() {
  Steady::time_point now = Steady::now();
  followPlugging(session_.isPlugged());
  if (present_) {
    keepPicture(now);
    keepKeyboard(now);
  }
  update(now);
  return true;
}

void DeviceLink::followPlugging(bool present) {
  bool one_went = std::exchange(departures_, session_.departures()) != session_.departures();
  if (known_ && present == present_) {
    if (present && one_went) {
      followOneOfSeveral();
    }
    return;
  }
  bool first = !std::exchange(known_, true);
  present_ = present;
  tryAtOnce();
  if (!present) {
    if (!first) {
      closeAll();
      said_.emit("The Mirn was unplugged.");
    }
  } else if (!first) {
    said_.emit("A Mirn was plugged in.");
  }
}

void DeviceLink::followOneOfSeveral() {
  // Perhaps the one whose keyboard interface is open; its camera tells by itself.
  ask_again_ = true;
  tryAtOnce();
  said_.emit("A Mirn was unplugged; another one is still there.");
}

void DeviceLink::tryAtOnce() {
  picture_tried_.reset();
  picture_failures_ = 0;
  keyboard_pace_.reset();
}

void DeviceLink::closeAll() {
  session_.closePicture();
  if (!upgrading_) {
    hostReleaseProxy();
  }
  info_.reset();
  keyboard_gone_.emit();
}

void DeviceLink::keepPicture(Steady::time_point now) {
  if (session_.pictureRuns() ||
      (picture_tried_ && now - *picture_tried_ < kPictureEvery * std::max(picture_failures_, 1U))) {
    return;
  }
  picture_failures_ = std::min(picture_failures_ + 1, kLongestPicturePause);
  if (session_.openPicture()) {
    picture_failures_ = 0;
    session_.setQuality(quality_);
    session_.setColor(best_color_);
    ask_again_ = true;  // another one may have taken the place of the Mirn that had both
  }
  // Opening takes its time: the pause counts from its end.
  picture_tried_ = Steady::now();
}

bool DeviceLink::keyboardBroken() {
  HostLinkStatistics link = hostLinkStatistics();
  uint64_t failures = link.keyboardFailed + link.mouseFailed;
  bool broken = !link.proxy || failures != failures_;
  failures_ = failures;
  return broken;
}

void DeviceLink::keepKeyboard(Steady::time_point now) {
  if (upgrading_ || typing_ || !keyboard_pace_.due(now)) {
    return;
  }
  bool broken = keyboardBroken();
  if (!broken && info_ && !ask_again_) {
    return;
  }
  ask_again_ = false;
  askKeyboard(broken);
  if (!info_ && !broken) {
    // Nobody is behind this proxy any more. A new one is made at the next look.
    hostReleaseProxy();
    keyboard_gone_.emit();
    return;
  }
  // Asking may have taken seconds: the pause counts from its end.
  Steady::time_point end = Steady::now();
  if (info_) {
    keyboard_pace_.succeeded(end);
    return;
  }
  keyboard_pace_.failed(end);
  if (keyboard_pace_.failures() > 1) {
    said_.emit("The Mirn doesn't answer. It is asked again in " + std::to_string(keyboard_pace_.pause(end).count()) +
               " s; \"Reconnect\" asks at once.");
  }
}

void DeviceLink::askKeyboard(bool broken) {
  info_.reset();
  if (broken) {
    bool connected = session_.connectKeyboard();
    keyboard_gone_.emit();
    if (!connected) {
      return;
    }
  }
  // Also when an upgrade has made the proxy before the plugging was seen here.
  info_ = session_.info();
}

void DeviceLink::update(Steady::time_point now) {
  facts_ = session_.facts();
  diagnosis_.update(facts_, now);
  std::string blocked;
  if (upgrading_) {
    blocked = "Input is held back while the firmware is upgraded.";
  } else {
    // The place of a camera that doesn't run says nothing.
    blocked = compareTopology(hostHidTopologyPath(), facts_.open ? hostCaptureTopologyPath() : "").reason;
  }
  if (blocked != blocked_) {
    blocked_ = blocked;
    keyboard_gone_.emit();
  }
  changed_.emit();
}

void DeviceLink::setQuality(const std::string& quality) {
  quality_ = quality;
  session_.setQuality(quality);
  changed_.emit();
}

void DeviceLink::setColor(bool best) {
  best_color_ = best;
  session_.setColor(best);
  changed_.emit();
}

void DeviceLink::reconnect() {
  closeAll();
  tryAtOnce();
  tick();
}

void DeviceLink::refreshInfo() {
  if (present_ && !upgrading_) {
    info_ = session_.info();
  }
  changed_.emit();
}

void DeviceLink::setUpgrading(bool upgrading) {
  upgrading_ = upgrading;
  if (!upgrading) {
    info_ = present_ ? session_.info() : std::nullopt;
  }
  update(Steady::now());
}

}  // namespace mirn
