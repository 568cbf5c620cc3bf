#include "apps/console/console_window.h"

#include <gtkmm/cssprovider.h>
#include <gtkmm/stylecontext.h>

#include <utility>

#include "apps/console/menus.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

constexpr const char* kStyle = R"(
.mirn-card { background: alpha(@theme_bg_color, 0.94); color: @theme_fg_color; border-radius: 12px; padding: 24px; }
.mirn-hint, .mirn-figures { background: alpha(black, 0.72); color: white; border-radius: 6px; padding: 4px 10px; }
.mirn-figures { font-family: monospace; font-size: 90%; }
.mirn-status { padding: 2px 10px; }
window.fullscreen { padding: 0; border: none; }
.title-2 { font-size: 150%; font-weight: bold; }
)";

void loadStyle() {
  auto provider = Gtk::CssProvider::create();
  provider->load_from_data(kStyle);
  Gtk::StyleContext::add_provider_for_display(Gdk::Display::get_default(), provider,
                                              GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

}  // namespace

ConsoleWindow::ConsoleWindow(std::string settings_path, bool is_virtual)
    : settings_path_(std::move(settings_path)),
      settings_(loadSettings(settings_path_)),
      link_(session_, {settings_.quality, settings_.best_color}),
      gate_(
          session_.input(), [this] { return blockedReason().empty(); }, [this] { feed_.echo().sent(); },
          &keyboardIsElsewhere),
      input_(*this, view_, gate_),
      feed_(session_,
            [this](const PixelBufferRef& picture, const ChangedRows& rows) { view_.setPicture(picture, rows); }),
      panel_(session_, link_),
      paste_(*this, gate_, link_, settings_.layout),
      upgrade_(*this, session_, link_, input_) {
  set_title(is_virtual ? "Mirn Console (virtual device)" : "Mirn Console");
  set_icon_name("mirn-console");
  set_default_size(settings_.window_width, settings_.window_height);
  loadStyle();
  build();
  addActions();
  connect();
  applySettings(settings_);
  if (settings_.maximized) {
    maximize();
  }
  link_.start();
}

ConsoleWindow::~ConsoleWindow() {
  overlay_timer_.disconnect();
}

void ConsoleWindow::build() {
  buildHeader();
  buildBody();
  set_titlebar(header_);
  set_child(body_);
}

void ConsoleWindow::buildHeader() {
  menu_button_.set_icon_name("open-menu-symbolic");
  menu_button_.set_menu_model(mainMenu());
  menu_button_.set_primary(true);
  menu_button_.set_tooltip_text("Menu (F10)");
  chord_button_.set_label("_Keys");
  chord_button_.set_use_underline(true);
  chord_button_.set_menu_model(chordMenu());
  chord_button_.set_tooltip_text("Key combinations for the target");
  keyboard_button_.set_action_name("win.capture");
  keyboard_button_.set_focus_on_click(false);  // it toggles what a move of the focus would end
  header_.pack_start(keyboard_button_);
  header_.pack_start(chord_button_);
  header_.pack_end(menu_button_);
}

void ConsoleWindow::buildBody() {
  constexpr int kMargin = 8;
  capture_hint_.add_css_class("mirn-hint");
  capture_hint_.set_halign(Gtk::Align::CENTER);
  capture_hint_.set_valign(Gtk::Align::START);
  capture_hint_.set_margin(kMargin);
  capture_hint_.set_can_target(false);
  figures_.add_css_class("mirn-figures");
  figures_.set_halign(Gtk::Align::END);
  figures_.set_valign(Gtk::Align::START);
  figures_.set_margin(kMargin);
  figures_.set_can_target(false);
  status_.add_css_class("mirn-status");
  status_.set_halign(Gtk::Align::START);
  status_.set_ellipsize(Pango::EllipsizeMode::END);
  layers_.set_child(view_);
  layers_.add_overlay(figures_);
  layers_.add_overlay(card_);
  middle_.append(layers_);
  middle_.append(panel_);
  body_.append(middle_);
  body_.append(status_);
}

void ConsoleWindow::connect() {
  link_.signalChanged().connect(sigc::mem_fun(*this, &ConsoleWindow::onLinkChanged));
  link_.signalPictureGone().connect(sigc::mem_fun(*this, &ConsoleWindow::onPictureGone));
  // Later: labels can't change in the middle of drawing. But before the next drawing: where that takes all the time
  // there is, nothing behind it ever has its turn. (PRIORITY_DEFAULT would mean the lowest of an idle call here.)
  view_.signalShown().connect([this] {
    Glib::signal_idle().connect_once(sigc::mem_fun(*this, &ConsoleWindow::onShown), Glib::PRIORITY_HIGH_IDLE);
  });
  link_.signalKeyboardGone().connect([this] { input_.forgetHeld(); });
  link_.setInUse([this] { return input_.inUse(); });
  link_.signalSaid().connect(sigc::mem_fun(*this, &ConsoleWindow::say));
  input_.signalCaptured().connect(sigc::mem_fun(*this, &ConsoleWindow::onCaptured));
  input_.signalSaid().connect(sigc::mem_fun(*this, &ConsoleWindow::say));
  input_.signalReleasing().connect([this] { paste_.interrupt(); });
  paste_.signalRunning().connect([this](bool running) {
    input_.setPasting(running);
    link_.setTyping(running);
  });
  signal_close_request().connect(sigc::mem_fun(*this, &ConsoleWindow::onClose), false);
  property_fullscreened().signal_changed().connect(sigc::mem_fun(*this, &ConsoleWindow::onFullscreen));
  constexpr unsigned kFiguresEveryMs = 500;
  overlay_timer_ = Glib::signal_timeout().connect(
      [this] {
        onOverlayTick();
        return true;
      },
      kFiguresEveryMs);
  onCaptured();
}

void ConsoleWindow::onLinkChanged() {
  Condition condition = link_.condition();
  Advice advice = adviceFor(condition, link_.facts());
  if (!view_.failure().empty()) {
    card_.show("No OpenGL", view_.failure() + " Start with GDK_DEBUG=gl-legacy or another graphics driver.", false);
  } else if (heldBack()) {
    card_.show("Input is held back", link_.blockedReason(), true);
  } else {
    card_.show(advice.title, advice.text, condition != Condition::kStarting && condition != Condition::kNotPluggedIn);
  }
  if (!link_.facts().open) {
    forgetPicture();
  }
  tickFormat();
  if (std::exchange(said_held_back_, heldBack()) != heldBack()) {
    onCaptured();
  }
}

void ConsoleWindow::onPictureGone(bool another_mirn) {
  forgetPicture();
  if (another_mirn) {
    input_.release();  // whoever types means the computer that was on the screen until now
  }
}

void ConsoleWindow::forgetPicture() {
  view_.clearPicture();
  feed_.forget();
}

void ConsoleWindow::onShown() {
  if (view_.shown()) {  // the camera may have been opened again meanwhile
    link_.pictureShown();
  }
}

std::string ConsoleWindow::blockedReason() const {
  return closing_ ? "The window is being closed." : link_.blockedReason();
}

bool ConsoleWindow::heldBack() const {
  return link_.condition() == Condition::kFine && !link_.blockedReason().empty() && !link_.upgrading();
}

void ConsoleWindow::onCaptured() {
  std::string key = input_.releaseKeyLabel();
  std::string hint = "Click into the picture to type on the target.";
  std::string keyboard = "Keyboard: here";
  if (input_.captured()) {
    hint = "Keyboard goes to the target. Tap " + key + " alone to get it back.";
    keyboard = "Keyboard: target";
  }
  if (heldBack()) {
    hint = link_.blockedReason();
    keyboard = "Keyboard: held back";
    if (input_.captured()) {
      hint += " Tap " + key + " alone to get the keyboard back.";
    }
  }
  capture_hint_.set_text(hint);
  keyboard_button_.set_label(keyboard);
  keyboard_button_.set_tooltip_text(hint);
  say(hint);
  // In full screen neither header nor status line is there to tell the way out.
  bool shown = capture_hint_.get_parent() != nullptr;
  if (input_.captured() && is_fullscreen() && !shown) {
    layers_.add_overlay(capture_hint_);
  } else if (shown && (!input_.captured() || !is_fullscreen())) {
    layers_.remove_overlay(capture_hint_);
  }
}

// Also when the window manager does it: the way out is shown wherever the lines that tell it are not.
void ConsoleWindow::onFullscreen() {
  status_.set_visible(!is_fullscreen());
  if (auto action = lookup_action("fullscreen")) {
    action->change_state(is_fullscreen());
  }
  onCaptured();
}

void ConsoleWindow::onOverlayTick() {
  if (figures_.get_visible()) {
    figures_.set_text(overlay_text_.compose({hostSessionStatistics(), feed_.changed(), view_.drawn(),
                                             view_.placement().width, view_.placement().height,
                                             feed_.echo().takeOutcome(), std::chrono::steady_clock::now()}));
  }
}

void ConsoleWindow::say(const std::string& line) {
  said_text_ = line;
  status_.set_text(line);
}

bool ConsoleWindow::onClose() {
  if (closing_) {
    return true;  // the first one is waiting below, and ends the window
  }
  if (upgrade_.running()) {
    say("The firmware is being upgraded; the window stays until that is done.");
    return true;
  }
  paste_.cancel();
  input_.release();
  HostLinkStatistics before = hostLinkStatistics();
  input_.releaseEverything();
  // From here on nothing goes down any more, although the loop below still serves the window.
  closing_ = true;
  body_.set_can_target(false);
  link_.setTyping(true);  // what waits is to go out through this proxy
  // A new proxy would discard what waits: give the four releases the time of a healthy device.
  constexpr uint64_t kReleases = 4;
  constexpr std::chrono::milliseconds kPatience{400};
  auto answered = [](const HostLinkStatistics& link) {
    return link.keyboardSent + link.keyboardFailed + link.mouseSent + link.mouseFailed;
  };
  if (before.proxy) {
    runLoopUntil([&] { return answered(hostLinkStatistics()) - answered(before) >= kReleases; }, kPatience);
  }
  keepSettings();
  return false;
}

void ConsoleWindow::keepSettings() {
  settings_.quality = link_.wish().quality;
  settings_.best_color = link_.wish().best;
  settings_.maximized = is_maximized();
  // The toolkit keeps it: the size that the window has, or had before it was maximized, with its border.
  get_default_size(settings_.window_width, settings_.window_height);
  std::string error;
  if (!saveSettings(settings_path_, settings_, &error)) {
    say(error);
  }
}

void ConsoleWindow::applySettings(const ConsoleSettings& settings) {
  settings_ = settings;
  applyTheme(settings.theme);
  view_.setScaling(settings.scaling);
  input_.setReleaseKey(settings.release_key);
  figures_.set_visible(settings.overlay);
  panel_.set_visible(settings.device_panel);
  onCaptured();
  onOverlayTick();
}

}  // namespace mirn
