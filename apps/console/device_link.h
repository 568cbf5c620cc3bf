// Keeps the console connected: notices plugging, opens and reopens picture and keyboard by itself, judges what is
// wrong, and decides whether input may be sent.
#pragma once

#include <glibmm/main.h>
#include <sigc++/signal.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "apps/common/diagnosis.h"
#include "apps/common/session.h"
#include "apps/common/topology_check.h"
#include "apps/console/retry_pace.h"

namespace mirn {

// Bound to the main thread. The session must outlive it.
class DeviceLink {
 public:
  DeviceLink(Session& session, PictureChoice wish);
  ~DeviceLink();
  DeviceLink(const DeviceLink&) = delete;
  DeviceLink& operator=(const DeviceLink&) = delete;

  // Looks at once and from then on several times a second.
  void start();

  // Not "fine" before the window has shown a picture of the camera that runs.
  Condition condition() const;
  const DeviceFacts& facts() const { return facts_; }
  const std::optional<DeviceInfo>& info() const { return info_; }
  // What was asked for last and could be had, or waits for a camera.
  const PictureChoice& wish() const { return wish_; }
  // What the camera runs at; without one the wish.
  PictureChoice format() const;

  void setQuality(const std::string& quality) { choose({quality, format().best}); }
  void setColor(bool best);
  // Closes and opens both again, at once.
  void reconnect();
  // Asks the device for its information again.
  void refreshInfo();
  // While an upgrade runs, nobody else makes a proxy.
  void setUpgrading(bool upgrading);
  bool upgrading() const { return upgrading_; }
  // While a text is typed the proxy stays as it is: a new one would discard the keys that wait and let go of Shift.
  void setTyping(bool typing) { typing_ = typing; }
  // Says whether a person is using keys or buttons right now. As long as that is so, a doubtful answer (a late one is
  // enough) makes no new proxy: it would let go of what is held.
  void setInUse(std::function<bool()> in_use) { in_use_ = std::move(in_use); }
  // The window shows a picture that came after signalPictureGone().
  void pictureShown();

  // Why input is held back now; empty when it may be sent.
  const std::string& blockedReason() const { return blocked_; }

  sigc::signal<void()>& signalChanged() { return changed_; }  // condition, facts, information or block
  // The camera was opened (anew): what was shown until now is no picture of it, and may be of another computer.
  sigc::signal<void(bool another_mirn)>& signalPictureGone() { return picture_gone_; }
  sigc::signal<void()>& signalKeyboardGone() {
    return keyboard_gone_;
  }                                                                // a proxy went or a new one came: nothing is held
  sigc::signal<void(std::string)>& signalSaid() { return said_; }  // a line for the person

 private:
  using Steady = std::chrono::steady_clock;

  bool tick();
  void followPlugging(bool present);
  void followOneOfSeveral();
  void tryAtOnce();
  void keepPicture(Steady::time_point now);
  void beginPicture();
  void keepKeyboard(Steady::time_point now);
  void askKeyboard(bool broken);
  void closeAll();
  void choose(const PictureChoice& wish);
  bool apply(const PictureChoice& wish);
  bool keyboardWaits() const;
  bool keyboardBroken();
  std::string whyBlocked() const;
  void judgeInput();
  void update(Steady::time_point now);

  Session& session_;
  PictureChoice wish_;
  Diagnosis diagnosis_;
  DeviceFacts facts_;
  std::optional<DeviceInfo> info_;
  std::string blocked_;
  bool present_ = false;
  bool known_ = false;
  bool upgrading_ = false;
  bool typing_ = false;
  std::function<bool()> in_use_ = [] { return false; };
  bool shown_ = false;      // a picture of the camera that runs is on the screen
  std::string camera_;      // the one that ran last
  bool ask_again_ = false;  // whether the keyboard interface still answers
  uint64_t failures_ = 0;
  uint64_t departures_ = 0;
  std::optional<Steady::time_point> picture_tried_;
  unsigned picture_failures_ = 0;  // in a row, as far as they count
  RetryPace keyboard_pace_;
  sigc::connection timer_;
  sigc::signal<void()> changed_;
  sigc::signal<void(bool)> picture_gone_;
  sigc::signal<void()> keyboard_gone_;
  sigc::signal<void(std::string)> said_;
};

}  // namespace mirn
