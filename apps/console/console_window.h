// The main window: the target's picture with everything around it.
#pragma once

#include <giomm/simpleaction.h>
#include <gtkmm/application.h>
#include <gtkmm/applicationwindow.h>
#include <gtkmm/filechoosernative.h>
#include <gtkmm/headerbar.h>
#include <gtkmm/menubutton.h>
#include <gtkmm/overlay.h>
#include <gtkmm/revealer.h>

#include <memory>
#include <string>

#include "apps/common/settings.h"
#include "apps/console/device_link.h"
#include "apps/console/device_panel.h"
#include "apps/console/input_controller.h"
#include "apps/console/overlay_text.h"
#include "apps/console/paste_dialog.h"
#include "apps/console/picture_feed.h"
#include "apps/console/picture_view.h"
#include "apps/console/settings_dialog.h"
#include "apps/console/status_card.h"
#include "apps/console/upgrade_dialog.h"

namespace mirn {

// Bound to the main thread.
class ConsoleWindow : public Gtk::ApplicationWindow {
 public:
  // `settings_path` is where the settings are kept.
  ConsoleWindow(std::string settings_path, bool is_virtual);
  ~ConsoleWindow() override;

  // For steering from outside (tests): the parts, as a person would reach them.
  PictureView& view() { return view_; }
  InputController& input() { return input_; }
  DeviceLink& link() { return link_; }
  PictureFeed& feed() { return feed_; }
  PasteDialog& paste() { return paste_; }
  UpgradeDialog& upgrade() { return upgrade_; }
  Session& session() { return session_; }
  const std::string& said() const { return said_text_; }
  // Saves the picture; the path, or nothing with a line for the person.
  std::string saveScreenshot();
  void pasteText(const Glib::ustring& text);

 private:
  void build();
  void buildHeader();
  void buildBody();
  void addActions();
  void addSwitches();
  void addPictureActions();
  void tickFormat();
  void connect();
  bool onClose();
  void onLinkChanged();
  void onPictureGone(bool another_mirn);
  void forgetPicture();
  void onShown();
  // Why input is held back now, by the link or by the window; empty when it may be sent.
  std::string blockedReason() const;
  // Picture and keyboard are there, but input may not be sent.
  bool heldBack() const;
  void onCaptured();
  void onFullscreen();
  void onOverlayTick();
  void say(const std::string& line);
  void copyPicture();
  void openPaste();
  void chooseFirmware();
  void showSettings();
  void applySettings(const ConsoleSettings& settings);
  void keepSettings();
  void showAbout();

  std::string settings_path_;
  ConsoleSettings settings_;
  Session session_;
  PictureView view_;
  DeviceLink link_;
  GatedInput gate_;
  InputController input_;
  PictureFeed feed_;
  OverlayText overlay_text_;

  Gtk::HeaderBar header_;
  Gtk::MenuButton menu_button_;
  Gtk::MenuButton chord_button_;
  Gtk::Button keyboard_button_;
  Gtk::Box body_{Gtk::Orientation::VERTICAL};
  Gtk::Box middle_{Gtk::Orientation::HORIZONTAL};
  Gtk::Overlay layers_;
  Gtk::Label capture_hint_;
  Gtk::Label figures_;
  Gtk::Label status_;
  StatusCard card_;
  DevicePanel panel_;
  PasteDialog paste_;
  UpgradeDialog upgrade_;
  std::unique_ptr<SettingsDialog> settings_dialog_;
  Glib::RefPtr<Gtk::FileChooserNative> chooser_;
  // Held: the link looks on when the closed window has let its actions go.
  Glib::RefPtr<Gio::SimpleAction> quality_;
  Glib::RefPtr<Gio::SimpleAction> color_;
  sigc::connection overlay_timer_;
  std::string said_text_;
  bool closing_ = false;
  bool said_held_back_ = false;
};

}  // namespace mirn
