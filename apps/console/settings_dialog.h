// What a person may set for good.
#pragma once

#include <gtkmm/dropdown.h>
#include <gtkmm/grid.h>
#include <gtkmm/window.h>

#include "apps/common/settings.h"

namespace mirn {

// Bound to the main thread. Each change is told at once.
class SettingsDialog : public Gtk::Window {
 public:
  SettingsDialog(Gtk::Window& parent, const ConsoleSettings& settings);

  sigc::signal<void(ConsoleSettings)>& signalChanged() { return changed_; }

 private:
  void addChoice(int row, const char* label, Gtk::DropDown& choice, const std::vector<Glib::ustring>& names,
                 int chosen);
  void read();

  ConsoleSettings settings_;
  Gtk::Grid grid_;
  Gtk::DropDown theme_;
  Gtk::DropDown scaling_;
  Gtk::DropDown release_key_;
  Gtk::DropDown layout_;
  sigc::signal<void(ConsoleSettings)> changed_;
};

// "system", "light" or "dark" for the whole program.
void applyTheme(const std::string& theme);

}  // namespace mirn
