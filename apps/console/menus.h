// The menus as models, and their keys.
#pragma once

#include <giomm/menu.h>
#include <gtkmm/application.h>

namespace mirn {

Glib::RefPtr<Gio::Menu> mainMenu();
Glib::RefPtr<Gio::Menu> chordMenu();
// Keys that work while the keyboard is not captured.
void setAccelerators(Gtk::Application& application);

}  // namespace mirn
