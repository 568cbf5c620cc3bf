// The side panel: what the device is, and what can be set on it.
#pragma once

#include <gtkmm/button.h>
#include <gtkmm/entry.h>
#include <gtkmm/grid.h>
#include <gtkmm/label.h>
#include <gtkmm/spinbutton.h>

#include "apps/console/device_link.h"

namespace mirn {

// Bound to the main thread; both must outlive it.
class DevicePanel : public Gtk::Grid {
 public:
  DevicePanel(Session& session, DeviceLink& link);

 private:
  void addRow(int row, const char* label, Gtk::Widget& value);
  void refresh();
  void checkName();
  void saveName();
  void saveLed();

  Session& session_;
  DeviceLink& link_;
  std::optional<DeviceInfo> shown_;
  Gtk::Label presence_;
  Gtk::Entry name_;
  Gtk::Label counter_;
  Gtk::Button save_{"_Save name", true};
  Gtk::Label id_;
  Gtk::Label flag_;
  Gtk::Label version_;
  Gtk::Label port_;
  Gtk::SpinButton led_;
  Gtk::Button set_led_{"Set _LED", true};
  Gtk::Button upgrade_{"_Upgrade firmware…", true};
  Gtk::Label message_;
};

}  // namespace mirn
