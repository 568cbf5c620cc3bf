// The window's actions: what menus, keys and buttons do.
#include <gdk/gdk.h>
#include <giomm/simpleaction.h>
#include <glibmm/fileutils.h>
#include <glibmm/miscutils.h>
#include <gtkmm/aboutdialog.h>
#include <gtkmm/dialog.h>

#include <ctime>

#include "apps/common/chords.h"
#include "apps/common/png_file.h"
#include "apps/console/console_window.h"
#include "apps/console/version.h"

namespace mirn {

void ConsoleWindow::addActions() {
  addSwitches();
  addPictureActions();
  add_action("capture", [this] { input_.captured() ? input_.release() : input_.capture(); });
  add_action_with_parameter("chord", Glib::VARIANT_TYPE_STRING, [this](const Glib::VariantBase& target) {
    auto keys = Glib::VariantBase::cast_dynamic<Glib::Variant<Glib::ustring>>(target).get();
    if (std::string reason = blockedReason(); !reason.empty()) {
      say(reason);
    } else if (paste_.running()) {
      say("A text is being typed: no other keys go out until that is done.");
    } else {
      playChord(gate_, keys.raw());
      say("Sent " + keys.raw() + ".");
    }
    view_.grab_focus();
  });
  add_action("paste", sigc::mem_fun(*this, &ConsoleWindow::openPaste));
  add_action("reconnect", [this] { link_.reconnect(); });
  add_action("upgrade", sigc::mem_fun(*this, &ConsoleWindow::chooseFirmware));
  add_action("settings", sigc::mem_fun(*this, &ConsoleWindow::showSettings));
  add_action("about", sigc::mem_fun(*this, &ConsoleWindow::showAbout));
  add_action("quit", [this] { close(); });
}

void ConsoleWindow::addSwitches() {
  quality_ = add_action_radio_string(
      "quality", [this](const Glib::ustring& quality) { link_.setQuality(quality.raw()); }, settings_.quality);
  color_ = add_action_radio_string(
      "color", [this](const Glib::ustring& color) { link_.setColor(color == "best"); },
      settings_.best_color ? "best" : "normal");
  auto flip = [this](const char* name, auto act) {
    return [this, name, act] {
      auto action = lookup_action(name);
      bool on = false;
      std::static_pointer_cast<Gio::SimpleAction>(action)->get_state(on);
      action->change_state(!on);
      act(!on);
    };
  };
  add_action_bool("overlay",
                  flip("overlay",
                       [this](bool on) {
                         settings_.overlay = on;
                         figures_.set_visible(on);
                         onOverlayTick();
                       }),
                  settings_.overlay);
  add_action_bool("device-panel",
                  flip("device-panel",
                       [this](bool on) {
                         settings_.device_panel = on;
                         panel_.set_visible(on);
                       }),
                  settings_.device_panel);
  add_action_bool("fill",
                  flip("fill",
                       [this](bool on) {
                         settings_.scaling = on ? Scaling::kFill : Scaling::kSharp;
                         view_.setScaling(settings_.scaling);
                       }),
                  settings_.scaling == Scaling::kFill);
  // The tick follows the window, which follows the window manager.
  add_action_bool(
      "fullscreen", [this] { is_fullscreen() ? unfullscreen() : fullscreen(); }, false);
}

// The ticks follow what the camera runs at: it may not offer what was asked for.
void ConsoleWindow::tickFormat() {
  PictureChoice format = link_.format();
  quality_->change_state(Glib::ustring(format.quality));
  color_->change_state(Glib::ustring(format.best ? "best" : "normal"));
}

void ConsoleWindow::addPictureActions() {
  add_action("screenshot", [this] { saveScreenshot(); });
  add_action("copy-picture", sigc::mem_fun(*this, &ConsoleWindow::copyPicture));
}

std::string ConsoleWindow::saveScreenshot() {
  std::string folder = settings_.screenshot_folder;
  if (folder.empty()) {
    folder = Glib::get_user_special_dir(Glib::UserDirectory::PICTURES);
  }
  if (folder.empty() || !Glib::file_test(folder, Glib::FileTest::IS_DIR)) {
    folder = Glib::get_home_dir();
  }
  std::string path = Glib::build_filename(folder, screenshotName(std::time(nullptr)));
  std::string error;
  if (!writePng(view_.picture(), path, &error)) {
    say(error);
    return "";
  }
  say("Saved " + path);
  return path;
}

void ConsoleWindow::copyPicture() {
  std::vector<uint8_t> png = encodePng(view_.picture());
  if (png.empty()) {
    say("There is no picture to copy.");
    return;
  }
  GBytes* bytes = g_bytes_new(png.data(), png.size());
  GError* error = nullptr;
  GdkTexture* texture = gdk_texture_new_from_bytes(bytes, &error);
  g_bytes_unref(bytes);
  if (texture == nullptr) {
    say(std::string("The picture can't be copied: ") + error->message);
    g_clear_error(&error);
    return;
  }
  gdk_clipboard_set_texture(gtk_widget_get_clipboard(GTK_WIDGET(gobj())), texture);
  g_object_unref(texture);
  say("The picture is on the clipboard.");
}

void ConsoleWindow::openPaste() {
  input_.release();
  auto clipboard = get_clipboard();
  clipboard->read_text_async([this, clipboard](Glib::RefPtr<Gio::AsyncResult>& result) {
    Glib::ustring text;
    try {
      text = clipboard->read_text_finish(result);
    } catch (const Glib::Error&) {
      // Nothing that is text lies on the clipboard: the dialog opens empty.
      text.clear();
    }
    pasteText(text);
  });
}

void ConsoleWindow::pasteText(const Glib::ustring& text) {
  input_.release();
  if (!paste_.running()) {
    paste_.setText(text);
  }
  paste_.present();
}

void ConsoleWindow::chooseFirmware() {
  input_.release();
  if (upgrade_.running()) {
    upgrade_.present();
    return;
  }
  chooser_ = Gtk::FileChooserNative::create("Choose a firmware file", *this, Gtk::FileChooser::Action::OPEN, "_Check",
                                            "_Cancel");
  auto filter = Gtk::FileFilter::create();
  filter->set_name("Firmware (Intel HEX or raw image)");
  for (const char* pattern : {"*.hex", "*.HEX", "*.bin", "*.BIN"}) {
    filter->add_pattern(pattern);
  }
  chooser_->add_filter(filter);
  if (!settings_.firmware_folder.empty()) {
    chooser_->set_current_folder(Gio::File::create_for_path(settings_.firmware_folder));
  }
  chooser_->signal_response().connect([this](int response) {
    auto file = chooser_->get_file();
    chooser_->hide();
    if (response == Gtk::ResponseType::ACCEPT && file) {
      settings_.firmware_folder = Glib::path_get_dirname(file->get_path());
      upgrade_.offer(file->get_path());
    }
  });
  chooser_->show();
}

void ConsoleWindow::showSettings() {
  input_.release();
  settings_dialog_ = std::make_unique<SettingsDialog>(*this, settings_);
  settings_dialog_->signalChanged().connect([this](const ConsoleSettings& settings) {
    lookup_action("fill")->change_state(settings.scaling == Scaling::kFill);
    applySettings(settings);
  });
  settings_dialog_->present();
}

void ConsoleWindow::showAbout() {
  auto* about = new Gtk::AboutDialog();
  about->set_transient_for(*this);
  about->set_modal(true);
  about->set_program_name("Mirn Console");
  about->set_version(kConsoleVersion);
  about->set_logo_icon_name("mirn-console");
  about->set_comments("The screen of another computer, its keyboard and its pointer, through a Mirn.");
  about->signal_close_request().connect(
      [about] {
        delete about;
        return true;
      },
      false);
  about->present();
}

}  // namespace mirn
