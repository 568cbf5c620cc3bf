// Keeps the console connected: notices plugging, opens and reopens picture and keyboard by itself, judges what is
// wrong, and decides whether input may be sent.
#pragma once

#include <glibmm/main.h>
#include <sigc++/signal.h>

#include <chrono>
#include <optional>
#include <string>

#include "apps/common/diagnosis.h"
#include "apps/common/session.h"
#include "apps/common/topology_check.h"
#include "apps/console/retry_pace.h"

namespace mirn {

// Bound to the main thread. The session must outlive it.
class DeviceLink {
 public:
  DeviceLink(Session& session, std::string quality, bool best_color);
  ~DeviceLink();
  DeviceLink(const DeviceLink&) = delete;
  DeviceLink& operator=(const DeviceLink&) = delete;

  // Looks at once and from then on several times a second.
  void start();

  Condition condition() const { return diagnosis_.condition(); }
  const DeviceFacts& facts() const { return facts_; }
  const std::optional<DeviceInfo>& info() const { return info_; }
  const std::string& quality() const { return quality_; }
  bool bestColor() const { return best_color_; }

  void setQuality(const std::string& quality);
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

  // Why input is held back now; empty when it may be sent.
  const std::string& blockedReason() const { return blocked_; }

  sigc::signal<void()>& signalChanged() { return changed_; }  // condition, facts, information or block
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
  void keepKeyboard(Steady::time_point now);
  void askKeyboard(bool broken);
  void closeAll();
  bool keyboardBroken();
  void update(Steady::time_point now);

  Session& session_;
  std::string quality_;
  bool best_color_;
  Diagnosis diagnosis_;
  DeviceFacts facts_;
  std::optional<DeviceInfo> info_;
  std::string blocked_;
  bool present_ = false;
  bool known_ = false;
  bool upgrading_ = false;
  bool typing_ = false;
  bool ask_again_ = false;  // whether the keyboard interface still answers
  uint64_t failures_ = 0;
  uint64_t departures_ = 0;
  std::optional<Steady::time_point> picture_tried_;
  unsigned picture_failures_ = 0;  // in a row, as far as they count
  RetryPace keyboard_pace_;
  sigc::connection timer_;
  sigc::signal<void()> changed_;
  sigc::signal<void()> keyboard_gone_;
  sigc::signal<void(std::string)> said_;
};

}  // namespace mirn
