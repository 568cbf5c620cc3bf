#include "apps/console/input_controller.h"

#include <gdk/gdk.h>
#include <gtkmm/eventcontrollerkey.h>
#include <gtkmm/eventcontrollermotion.h>
#include <gtkmm/gestureclick.h>

#include <array>
#include <utility>

#include "apps/common/key_position.h"
#include "apps/console/desktop_focus.h"

namespace mirn {
namespace {

using Steady = std::chrono::steady_clock;

struct ReleaseKey {
  const char* name;
  unsigned evdev;
  const char* label;
};

constexpr std::array kReleaseKeys = {
    ReleaseKey{"rightctrl", 97, "right Ctrl"},
    ReleaseKey{"pause", 119, "Pause"},
    ReleaseKey{"scrolllock", 70, "Scroll Lock"},
};

// Types of "mouseEventButtons"; null for a button that the device doesn't have.
const char* buttonType(guint button, bool down) {
  switch (button) {
    case GDK_BUTTON_PRIMARY:
      return down ? "lbdown" : "lbup";
    case GDK_BUTTON_MIDDLE:
      return down ? "mbdown" : "mbup";
    case GDK_BUTTON_SECONDARY:
      return down ? "rbdown" : "rbup";
    default:
      return nullptr;
  }
}

}  // namespace

InputController::InputController(Gtk::Window& window, PictureView& view, GatedInput& input)
    : window_(window), view_(view), input_(input), keys_(input), pointer_(input) {
  setReleaseKey("rightctrl");
  connectKeyboard(window);
  connectPointer();
  window_.property_is_active().signal_changed().connect(sigc::mem_fun(*this, &InputController::onActive));
  window_.property_focus_widget().signal_changed().connect(sigc::mem_fun(*this, &InputController::onFocus));
}

InputController::~InputController() {
  rest_.disconnect();
  focus_watch_.disconnect();
}

void InputController::connectKeyboard(Gtk::Window& window) {
  auto controller = Gtk::EventControllerKey::create();
  // Before the window's own shortcuts: while captured, all keys are the target's.
  controller->set_propagation_phase(Gtk::PropagationPhase::CAPTURE);
  controller->signal_key_pressed().connect(sigc::mem_fun(*this, &InputController::onKeyPressed), false);
  controller->signal_key_released().connect(sigc::mem_fun(*this, &InputController::onKeyReleased), false);
  window.add_controller(controller);
}

void InputController::connectPointer() {
  auto motion = Gtk::EventControllerMotion::create();
  motion->signal_motion().connect(sigc::mem_fun(*this, &InputController::onMotion));
  motion->signal_enter().connect(sigc::mem_fun(*this, &InputController::onMotion));
  motion->signal_leave().connect(sigc::mem_fun(*this, &InputController::onLeave));
  view_.add_controller(motion);

  // Raw presses and releases: a click gesture would wait and count.
  auto raw = Glib::wrap(gtk_event_controller_legacy_new(), false);
  raw->set_propagation_phase(Gtk::PropagationPhase::BUBBLE);
  g_signal_connect(
      raw->gobj(), "event",
      G_CALLBACK(+[](GtkEventControllerLegacy* /*controller*/, GdkEvent* event, gpointer self) -> gboolean {
        GdkEventType type = gdk_event_get_event_type(event);
        if (type != GDK_BUTTON_PRESS && type != GDK_BUTTON_RELEASE) {
          return FALSE;
        }
        auto* controller = static_cast<InputController*>(self);
        double x = 0;
        double y = 0;
        gdk_event_get_position(event, &x, &y);
        // Surface to widget coordinates.
        auto* widget = GTK_WIDGET(controller->view_.gobj());
        GtkNative* native = gtk_widget_get_native(widget);
        double left = 0;
        double top = 0;
        gtk_native_get_surface_transform(native, &left, &top);
        gtk_widget_translate_coordinates(GTK_WIDGET(native), widget, x - left, y - top, &x, &y);
        controller->onButton(gdk_button_event_get_button(event), type == GDK_BUTTON_PRESS, x, y);
        return TRUE;
      }),
      this);
  view_.add_controller(raw);

  scroll_ = Gtk::EventControllerScroll::create();
  scroll_->set_flags(Gtk::EventControllerScroll::Flags::VERTICAL);
  scroll_->signal_scroll().connect(sigc::mem_fun(*this, &InputController::onScroll), false);
  scroll_->signal_scroll_begin().connect([this] { wheel_.reset(); });
  view_.add_controller(scroll_);
}

void InputController::setReleaseKey(const std::string& name) {
  for (const ReleaseKey& key : kReleaseKeys) {
    if (name == key.name) {
      release_code_ = key.evdev + kHardwareCodeOffset;
      release_label_ = key.label;
    }
  }
}

const char* InputController::releaseKeyLabel() const {
  return release_label_;
}

void InputController::capture() {
  if (captured_) {
    return;
  }
  captured_ = true;
  recapture_ = false;
  after_menu_ = false;
  view_.grab_focus();
  inhibitShortcuts(true);
  focus_seen_ = false;
  constexpr unsigned kWatchEveryMs = 100;
  focus_watch_ = Glib::signal_timeout().connect(sigc::mem_fun(*this, &InputController::watchFocus), kWatchEveryMs);
  captured_changed_.emit();
}

void InputController::release() {
  recapture_ = false;
  after_menu_ = false;
  if (!captured_) {
    return;
  }
  captured_ = false;
  focus_watch_.disconnect();
  releaseEverything();
  inhibitShortcuts(false);
  captured_changed_.emit();
}

void InputController::inhibitShortcuts(bool inhibit) {
  auto surface = window_.get_surface();
  if (!surface || !GDK_IS_TOPLEVEL(surface->gobj())) {
    return;
  }
  if (inhibit) {
    gdk_toplevel_inhibit_system_shortcuts(GDK_TOPLEVEL(surface->gobj()), nullptr);
  } else {
    gdk_toplevel_restore_system_shortcuts(GDK_TOPLEVEL(surface->gobj()));
  }
}

void InputController::onActive() {
  if (window_.is_active()) {
    if (std::exchange(recapture_, false)) {
      capture();
    }
    return;
  }
  if (captured_) {
    loseFocus();
  } else {
    releaseEverything();
  }
}

void InputController::loseFocus() {
  release();
  recapture_ = true;
}

bool InputController::watchFocus() {
  bool here = hasDesktopFocus(window_);
  if (!here && focus_seen_) {
    loseFocus();
    return false;
  }
  focus_seen_ = focus_seen_ || here;
  return true;
}

// What is typed belongs to the widget that shows the caret.
void InputController::onFocus() {
  Gtk::Widget* focus = window_.get_focus();
  if (focus == &view_) {
    if (std::exchange(after_menu_, false) && window_.is_active()) {
      capture();
    }
  } else if (focus != nullptr && captured_) {
    release();
    GtkWidget* widget = focus->gobj();
    after_menu_ = gtk_widget_get_ancestor(widget, GTK_TYPE_MENU_BUTTON) != nullptr ||
                  gtk_widget_get_native(widget) != GTK_NATIVE(window_.gobj());
  }
}

bool InputController::inUse() const {
  // More than the device may take for an answer.
  constexpr std::chrono::milliseconds kOnItsWay{500};
  return keys_.holdsAny() || buttons_ != 0 || input_.passedWithin(kOnItsWay);
}

void InputController::releaseEverything() {
  releasing_.emit();
  keys_.forget();
  buttons_ = 0;
  pointer_.settle(Steady::now(), true);
  input_.releaseEverything(pointer_.x(), pointer_.y());
}

void InputController::forgetHeld() {
  releasing_.emit();
  keys_.forget();
  wheel_.reset();
  buttons_ = 0;
  input_.gateChanged(pointer_.x(), pointer_.y());
  pointer_.again(Steady::now());
  scheduleRest();
}

bool InputController::onKeyPressed(guint /*keyval*/, guint keycode, Gdk::ModifierType /*state*/) {
  if (!captured_) {
    return false;
  }
  if (!watchFocus()) {
    return true;  // this key was another window's already
  }
  release_alone_ = keycode == release_code_;
  const KeyPosition* key = keyByHardwareCode(keycode);
  if (key == nullptr || pasting_) {
    return true;
  }
  if (!key->on_device) {
    if (keycode != release_code_) {
      said_.emit(std::string("The Mirn has no key \"") + key->name + "\".");
    }
    return true;
  }
  keys_.press(keycode, key->virtual_key);
  return true;
}

void InputController::onKeyReleased(guint /*keyval*/, guint keycode, Gdk::ModifierType /*state*/) {
  if (!captured_) {
    return;
  }
  keys_.release(keycode);
  if (keycode == release_code_ && std::exchange(release_alone_, false)) {
    release();
  }
}

void InputController::onMotion(double x, double y) {
  if (!window_.is_active() || !view_.picture()) {
    return;
  }
  PicturePoint place = view_.devicePosition(x, y);
  pointer_.move(place.x, place.y, Steady::now());
  scheduleRest();
}

// A pointer thrown out of the picture rests at the edge that it left over, however far away the last move inside was.
void InputController::onLeave() {
  // GTK tells no place with the leaving; the pointer's own place now is beyond the edge.
  if (auto place = pointerPlace()) {
    onMotion(place->first, place->second);
  }
}

std::optional<std::pair<double, double>> InputController::pointerPlace() {
  GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(window_.gobj()));
  GdkSeat* seat = surface == nullptr ? nullptr : gdk_display_get_default_seat(gdk_surface_get_display(surface));
  GdkDevice* device = seat == nullptr ? nullptr : gdk_seat_get_pointer(seat);
  double x = 0;
  double y = 0;
  if (device == nullptr) {
    return std::nullopt;
  }
  // The answer only says whether the pointer is still over the window; the place is given in both cases.
  gdk_surface_get_device_position(surface, device, &x, &y, nullptr);
  double surface_left = 0;
  double surface_top = 0;
  gtk_native_get_surface_transform(GTK_NATIVE(window_.gobj()), &surface_left, &surface_top);
  if (!window_.translate_coordinates(view_, x - surface_left, y - surface_top, x, y)) {
    return std::nullopt;
  }
  return std::pair(x, y);
}

void InputController::onButton(guint button, bool down, double x, double y) {
  const char* type = buttonType(button, down);
  unsigned bit = button < 32 ? 1U << button : 0U;
  if (type == nullptr || !view_.picture() || (!down && (buttons_ & bit) == 0)) {
    return;
  }
  if (down) {
    capture();
    buttons_ |= bit;
  } else {
    buttons_ &= ~bit;
  }
  release_alone_ = false;
  PicturePoint place = view_.devicePosition(x, y);
  input_.mouseButton(type, place.x, place.y);
  pointer_.settledAt(place.x, place.y);
}

bool InputController::onScroll(double /*dx*/, double dy) {
  if (!window_.is_active() || !view_.picture()) {
    return false;
  }
  release_alone_ = false;
  // A notch comes without a place, and the last move may be of before the window was active.
  auto under = pointerPlace();
  PicturePoint place =
      under ? view_.devicePosition(under->first, under->second) : PicturePoint{pointer_.x(), pointer_.y()};
  bool pixels = scroll_->get_unit() == Gdk::ScrollUnit::SURFACE;
  int notches = wheel_.add(pixels ? dy / kPixelsPerNotch : dy);
  for (int i = 0; i < (notches < 0 ? -notches : notches); ++i) {
    input_.mouseWheel(place.x, place.y, notches < 0 ? -1 : 1);
  }
  if (notches != 0) {
    pointer_.settledAt(place.x, place.y);
  }
  return true;
}

void InputController::scheduleRest() {
  if (!rest_.connected()) {
    rest_ = Glib::signal_timeout().connect(sigc::mem_fun(*this, &InputController::onRest),
                                           static_cast<unsigned>(PointerRest::kRestAfter.count()));
  }
}

bool InputController::onRest() {
  // A hand that still moves is asked again; one that rests is done with.
  return !pointer_.settle(Steady::now()) && pointer_.due().has_value();
}

}  // namespace mirn
