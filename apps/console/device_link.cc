#include "apps/console/device_link.h"

#include <utility>

namespace mirn {
namespace {

constexpr unsigned kLookEveryMs = 100;
constexpr std::chrono::milliseconds kPictureEvery{700};

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
  if (known_ && present == present_) {
    return;
  }
  bool first = !std::exchange(known_, true);
  present_ = present;
  picture_tried_.reset();
  keyboard_pace_.reset();
  if (!present) {
    if (!first) {
      closeAll();
      said_.emit("The Mirn was unplugged.");
    }
  } else if (!first) {
    said_.emit("A Mirn was plugged in.");
  }
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
  HostSessionStatistics picture = hostSessionStatistics();
  bool runs = picture.open && picture.stopCode == 0;
  if (runs || (picture_tried_ && now - *picture_tried_ < kPictureEvery)) {
    return;
  }
  picture_tried_ = now;
  if (session_.openPicture()) {
    session_.setQuality(quality_);
    session_.setColor(best_color_);
  }
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
  if (!broken && info_) {
    return;
  }
  askKeyboard(broken);
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
    blocked = compareTopology(hostHidTopologyPath(), hostCaptureTopologyPath()).reason;
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
  picture_tried_.reset();
  keyboard_pace_.reset();
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
