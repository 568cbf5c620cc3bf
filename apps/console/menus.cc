#include "apps/console/menus.h"

#include "apps/common/chords.h"

namespace mirn {

Glib::RefPtr<Gio::Menu> mainMenu() {
  auto picture = Gio::Menu::create();
  picture->append("_1080P", "win.quality::1080P");
  picture->append("_720P", "win.quality::720P");
  auto color = Gio::Menu::create();
  color->append("_Normal color", "win.color::normal");
  color->append("_Best color", "win.color::best");
  auto view = Gio::Menu::create();
  view->append("_Full screen", "win.fullscreen");
  view->append("Fill the _window", "win.fill");
  view->append("_Statistics over the picture", "win.overlay");
  view->append("_Device panel", "win.device-panel");
  auto pictures = Gio::Menu::create();
  pictures->append("Save _screenshot", "win.screenshot");
  pictures->append("_Copy picture", "win.copy-picture");
  auto device = Gio::Menu::create();
  device->append("_Give the keyboard to the target", "win.capture");
  device->append("_Type text…", "win.paste");
  device->append("_Reconnect", "win.reconnect");
  device->append("_Upgrade firmware…", "win.upgrade");
  auto program = Gio::Menu::create();
  program->append("S_ettings", "win.settings");
  program->append("_About", "win.about");
  program->append("_Quit", "win.quit");
  auto menu = Gio::Menu::create();
  for (const auto& section : {picture, color, view, pictures, device, program}) {
    menu->append_section(section);
  }
  return menu;
}

Glib::RefPtr<Gio::Menu> chordMenu() {
  auto menu = Gio::Menu::create();
  for (const Chord& chord : chordPalette()) {
    auto item = Gio::MenuItem::create(chord.label, "");
    item->set_action_and_target("win.chord", Glib::Variant<Glib::ustring>::create(chord.keys));
    menu->append_item(item);
  }
  return menu;
}

void setAccelerators(Gtk::Application& application) {
  application.set_accels_for_action("win.fullscreen", {"F11"});
  application.set_accels_for_action("win.capture", {"<Control>Return"});
  application.set_accels_for_action("win.paste", {"<Control><Shift>v"});
  application.set_accels_for_action("win.screenshot", {"<Control>s"});
  application.set_accels_for_action("win.copy-picture", {"<Control><Shift>c"});
  application.set_accels_for_action("win.overlay", {"<Control>i"});
  application.set_accels_for_action("win.device-panel", {"F9"});
  application.set_accels_for_action("win.reconnect", {"F5"});
  application.set_accels_for_action("win.upgrade", {"<Control>u"});
  application.set_accels_for_action("win.settings", {"<Control>comma"});
  application.set_accels_for_action("win.quit", {"<Control>q"});
}

}  // namespace mirn
