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

DeviceLink::DeviceLink(Session& session, PictureChoice wish) : session_(session), wish_(std::move(wish)) {}

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
    beginPicture();
    apply(wish_);
    // Another one may have taken the place of the Mirn that had both: asked before the first picture lets input pass.
    ask_again_ = true;
    if (info_) {
      keyboard_pace_.reset();
    }
  }
  // Opening takes its time: the pause counts from its end.
  picture_tried_ = Steady::now();
}

// Between two looks another Mirn's camera may have taken the place of the one on the screen.
void DeviceLink::beginPicture() {
  // The raster thread may still hold the last picture of the old session: afterwards only new ones come.
  session_.engine().syncRaster();
  shown_ = false;
  diagnosis_ = {};
  std::string before = std::exchange(camera_, hostSessionStatistics().uniqueId);
  judgeInput();
  picture_gone_.emit(!before.empty() && before != camera_);
}

void DeviceLink::pictureShown() {
  shown_ = true;
  update(Steady::now());
}

Condition DeviceLink::condition() const {
  Condition condition = diagnosis_.condition();
  return condition == Condition::kFine && !shown_ ? Condition::kStarting : condition;
}

bool DeviceLink::keyboardBroken() {
  HostLinkStatistics link = hostLinkStatistics();
  uint64_t failures = link.keyboardFailed + link.mouseFailed;
  bool broken = !link.proxy || failures != failures_;
  failures_ = failures;
  return broken;
}

bool DeviceLink::keyboardWaits() const {
  // After a plugging or a person's wish the old proxy is nobody's any more.
  bool in_hands = !keyboard_pace_.fresh() && blocked_.empty() && in_use_();
  return upgrading_ || typing_ || in_hands;
}

void DeviceLink::keepKeyboard(Steady::time_point now) {
  if (keyboardWaits() || !keyboard_pace_.due(now)) {
    return;
  }
  bool broken = keyboardBroken();
  if (!broken && info_ && !ask_again_) {
    return;
  }
  ask_again_ = false;
  askKeyboard(broken);
  if (!info_ && !broken) {
    // Nobody is behind this proxy any more. A new one at once: input that comes meanwhile would find none.
    hostReleaseProxy();
    askKeyboard(true);
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

std::string DeviceLink::whyBlocked() const {
  if (upgrading_) {
    return "Input is held back while the firmware is upgraded.";
  }
  // The place of a camera that doesn't run says nothing.
  TopologyVerdict verdict =
      compareTopology(hostHidTopologyPath(), session_.pictureRuns() ? hostCaptureTopologyPath() : "");
  if (verdict.same && !shown_) {
    return "Input is held back until the first picture is shown.";
  }
  return verdict.reason;
}

void DeviceLink::judgeInput() {
  std::string blocked = whyBlocked();
  if (blocked != blocked_) {
    blocked_ = blocked;
    keyboard_gone_.emit();
  }
}

void DeviceLink::update(Steady::time_point now) {
  facts_ = session_.facts();
  diagnosis_.update(facts_, now);
  judgeInput();
  changed_.emit();
}

PictureChoice DeviceLink::format() const {
  std::optional<PictureChoice> running = session_.runningFormat();
  return running && !running->quality.empty() ? *running : wish_;
}

void DeviceLink::setColor(bool best) {
  choose({format().quality, best});
}

void DeviceLink::choose(const PictureChoice& wish) {
  if (!session_.pictureRuns() || apply(wish)) {
    wish_ = wish;
  }
  changed_.emit();
}

bool DeviceLink::apply(const PictureChoice& wish) {
  const PictureChoice before = format();
  if (session_.setFormat(wish)) {
    return true;
  }
  if (session_.pictureRuns()) {
    // The library took the wish for done: say what runs.
    session_.setFormat(before);
    said_.emit("The camera doesn't offer " + describe(wish) + ".");
  }
  return false;
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
