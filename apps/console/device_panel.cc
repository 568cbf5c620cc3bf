#include "apps/console/device_panel.h"

#include <gtkmm/adjustment.h>

#include "apps/common/utf8.h"

namespace mirn {

DevicePanel::DevicePanel(Session& session, DeviceLink& link) : session_(session), link_(link) {
  constexpr int kGap = 8;
  constexpr int kMargin = 12;
  set_row_spacing(kGap);
  set_column_spacing(kGap);
  set_margin(kMargin);
  int row = 0;
  addRow(row++, "Device", presence_);
  addRow(row++, "_Name", name_);
  attach(counter_, 1, row++);
  attach(save_, 1, row++);
  addRow(row++, "Id", id_);
  addRow(row++, "Flag", flag_);
  addRow(row++, "Version", version_);
  addRow(row++, "USB port", port_);
  led_.set_adjustment(Gtk::Adjustment::create(0, 0, 255, 1, 16));
  led_.set_numeric(true);
  addRow(row++, "L_ED", led_);
  attach(set_led_, 1, row++);
  upgrade_.set_action_name("win.upgrade");
  attach(upgrade_, 0, row++, 2);
  message_.set_wrap(true);
  attach(message_, 0, row, 2);
  constexpr int kLineLength = 28;
  message_.set_max_width_chars(kLineLength);
  counter_.set_halign(Gtk::Align::END);
  counter_.add_css_class("dim-label");
  set_hexpand(false);  // else its fields would take half the window from the picture
  name_.signal_changed().connect(sigc::mem_fun(*this, &DevicePanel::checkName));
  name_.signal_activate().connect(sigc::mem_fun(*this, &DevicePanel::saveName));
  save_.signal_clicked().connect(sigc::mem_fun(*this, &DevicePanel::saveName));
  set_led_.signal_clicked().connect(sigc::mem_fun(*this, &DevicePanel::saveLed));
  link_.signalChanged().connect(sigc::mem_fun(*this, &DevicePanel::refresh));
  refresh();
  checkName();
}

void DevicePanel::addRow(int row, const char* label, Gtk::Widget& value) {
  auto* name = Gtk::make_managed<Gtk::Label>(label, true);
  name->set_halign(Gtk::Align::START);
  name->set_mnemonic_widget(value);
  value.set_hexpand(true);
  value.set_halign(Gtk::Align::FILL);
  if (auto* text = dynamic_cast<Gtk::Label*>(&value)) {
    text->set_halign(Gtk::Align::START);
    text->set_selectable(true);
  }
  attach(*name, 0, row);
  attach(value, 1, row);
}

void DevicePanel::refresh() {
  presence_.set_text(link_.facts().present ? (link_.info() ? "plugged in" : "plugged in, doesn't answer")
                                           : "not plugged in");
  port_.set_text(hostHidTopologyPath());
  set_led_.set_sensitive(link_.info().has_value());
  if (link_.info() == shown_) {
    return;
  }
  shown_ = link_.info();
  DeviceInfo info = shown_.value_or(DeviceInfo());
  name_.set_text(info.name);
  id_.set_text(info.id);
  flag_.set_text(shown_ ? (info.flag ? "1" : "0") : "");
  version_.set_text(info.version);
  if (shown_) {
    int led = session_.led();
    led_.set_value(led < 0 ? 0 : led);
  }
  checkName();
}

void DevicePanel::checkName() {
  NameCheck check = checkDeviceName(name_.get_text().raw());
  counter_.set_text(std::to_string(check.bytes) + " of " + std::to_string(kDeviceNameBytes) + " bytes");
  bool changed = shown_ && shown_->name != name_.get_text().raw();
  save_.set_sensitive(check.ok && changed);
  message_.set_text(check.ok || !shown_ ? "" : check.reason);
}

void DevicePanel::saveName() {
  std::string name = name_.get_text().raw();
  if (!checkDeviceName(name).ok || !shown_) {
    return;
  }
  session_.setName(name);
  link_.refreshInfo();
  message_.set_text(link_.info() && link_.info()->name == name ? "The name is saved."
                                                               : "The Mirn did not take the name.");
}

void DevicePanel::saveLed() {
  int wanted = led_.get_value_as_int();
  session_.setLed(wanted);
  message_.set_text(session_.led() == wanted ? "The LED is set." : "The Mirn did not take the LED status.");
}

}  // namespace mirn
