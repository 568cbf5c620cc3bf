#include "apps/console/settings_dialog.h"

#include <gtkmm/label.h>
#include <gtkmm/settings.h>
#include <gtkmm/stringlist.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "apps/common/text_typing.h"

namespace mirn {
namespace {

constexpr std::array kThemes = {"system", "light", "dark"};
constexpr std::array kReleaseKeys = {"rightctrl", "pause", "scrolllock"};

template <typename Names>
int placeOf(const Names& names, const std::string& name) {
  auto found = std::find(names.begin(), names.end(), name);
  return found != names.end() ? static_cast<int>(found - names.begin()) : 0;
}

}  // namespace

SettingsDialog::SettingsDialog(Gtk::Window& parent, const ConsoleSettings& settings) : settings_(settings) {
  constexpr int kGap = 10;
  constexpr int kMargin = 16;
  set_title("Settings");
  set_transient_for(parent);
  set_modal(true);
  set_hide_on_close(true);
  grid_.set_row_spacing(kGap);
  grid_.set_column_spacing(kGap);
  grid_.set_margin(kMargin);
  addChoice(0, "_Appearance", theme_, {"As the desktop", "Light", "Dark"}, placeOf(kThemes, settings.theme));
  addChoice(1, "_Picture size", scaling_, {"Sharp (whole multiples)", "Fill the window"},
            settings.scaling == Scaling::kFill ? 1 : 0);
  addChoice(2, "Key that gives the _keyboard back", release_key_, {"Right Ctrl", "Pause", "Scroll Lock"},
            placeOf(kReleaseKeys, settings.release_key));
  std::vector<Glib::ustring> layouts;
  for (const KeyboardLayout& layout : keyboardLayouts()) {
    layouts.emplace_back(layout.label);
  }
  addChoice(3, "Target's keyboard _layout", layout_, layouts, 0);
  set_child(grid_);
}

void SettingsDialog::addChoice(int row, const char* label, Gtk::DropDown& choice,
                               const std::vector<Glib::ustring>& names, int chosen) {
  auto* name = Gtk::make_managed<Gtk::Label>(label, true);
  name->set_halign(Gtk::Align::START);
  name->set_mnemonic_widget(choice);
  choice.set_model(Gtk::StringList::create(names));
  choice.set_selected(static_cast<guint>(chosen));
  choice.property_selected().signal_changed().connect(sigc::mem_fun(*this, &SettingsDialog::read));
  grid_.attach(*name, 0, row);
  grid_.attach(choice, 1, row);
}

void SettingsDialog::read() {
  settings_.theme = kThemes.at(std::min<size_t>(theme_.get_selected(), kThemes.size() - 1));
  settings_.scaling = scaling_.get_selected() == 1 ? Scaling::kFill : Scaling::kSharp;
  settings_.release_key = kReleaseKeys.at(std::min<size_t>(release_key_.get_selected(), kReleaseKeys.size() - 1));
  size_t layout = std::min<size_t>(layout_.get_selected(), keyboardLayouts().size() - 1);
  settings_.layout = keyboardLayouts()[layout].id;
  changed_.emit(settings_);
}

void applyTheme(const std::string& theme) {
  auto settings = Gtk::Settings::get_default();
  if (!settings) {
    return;
  }
  if (theme == "system") {
    settings->reset_property("gtk-application-prefer-dark-theme");
  } else {
    settings->property_gtk_application_prefer_dark_theme() = theme == "dark";
  }
}

}  // namespace mirn
