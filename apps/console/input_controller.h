// A person's keys and pointer over the picture, on their way to the target.
#pragma once

#include <glibmm/main.h>
#include <gtkmm/eventcontrollerscroll.h>
#include <gtkmm/window.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "apps/common/gated_input.h"
#include "apps/common/held_keys.h"
#include "apps/common/pointer_rest.h"
#include "apps/common/wheel_notches.h"
#include "apps/console/picture_view.h"

namespace mirn {

// The keyboard is captured from a click into the picture until the release key is tapped alone, the window loses the
// focus or another widget of it gets the focus: then every key goes to the target and the desktop's shortcuts are
// inhibited. A menu only borrows the focus. The pointer acts whenever it is over the picture of an active window. Bound
// to the main thread; window and view must outlive it.
class InputController {
 public:
  InputController(Gtk::Window& window, PictureView& view, GatedInput& input);
  ~InputController();
  InputController(const InputController&) = delete;
  InputController& operator=(const InputController&) = delete;

  bool captured() const { return captured_; }
  void capture();
  // Gives the keyboard back; everything held is released.
  void release();
  // The key that gives the keyboard back: "rightctrl", "pause" or "scrolllock".
  void setReleaseKey(const std::string& name);
  const char* releaseKeyLabel() const;
  // keyUp 0 and the three button-ups where the pointer is, also while input is held back.
  void releaseEverything();
  // A new proxy, or the gate moved: nothing is held any more, and the pointer goes to where it rests.
  void forgetHeld();
  // A key or button is held or was just used: a new proxy now would let go of it, or discard it on its way.
  bool inUse() const;
  // Keys don't go out while a text is pasted.
  void setPasting(bool pasting) { pasting_ = pasting; }

  sigc::signal<void()>& signalCaptured() { return captured_changed_; }
  // Everything is about to be released, or was: what somebody else holds goes, too.
  sigc::signal<void()>& signalReleasing() { return releasing_; }
  sigc::signal<void(std::string)>& signalSaid() { return said_; }

 private:
  void connectKeyboard(Gtk::Window& window);
  void connectPointer();
  bool onKeyPressed(guint keyval, guint keycode, Gdk::ModifierType state);
  void onKeyReleased(guint keyval, guint keycode, Gdk::ModifierType state);
  void onMotion(double x, double y);
  void onLeave();
  // Of the pointer now, in the view's coordinates, also outside it.
  std::optional<std::pair<double, double>> pointerPlace();
  void onButton(guint button, bool down, double x, double y);
  bool onScroll(double dx, double dy);
  void onActive();
  void onFocus();
  bool watchFocus();
  void loseFocus();
  void inhibitShortcuts(bool inhibit);
  void scheduleRest();
  bool onRest();

  Gtk::Window& window_;
  PictureView& view_;
  GatedInput& input_;
  HeldKeys keys_;
  PointerRest pointer_;
  WheelNotches wheel_;
  Glib::RefPtr<Gtk::EventControllerScroll> scroll_;
  unsigned release_code_ = 0;
  const char* release_label_ = "";
  bool release_alone_ = false;
  bool captured_ = false;
  bool focus_seen_ = false;  // the desktop gave it since the capture: a click may come before the focus does
  bool recapture_ = false;   // when the window is active again
  bool after_menu_ = false;  // when a menu gives the focus back
  bool pasting_ = false;
  unsigned buttons_ = 0;  // bit n: button n is down
  sigc::connection rest_;
  sigc::connection focus_watch_;  // while captured
  sigc::signal<void()> captured_changed_;
  sigc::signal<void()> releasing_;
  sigc::signal<void(std::string)> said_;
};

}  // namespace mirn
