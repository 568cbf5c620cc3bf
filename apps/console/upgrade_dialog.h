// The firmware upgrade: checks the file, asks once, follows the chunks, judges by the new handshake's version.
#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>
#include <gtkmm/progressbar.h>
#include <gtkmm/window.h>

#include <filesystem>
#include <memory>
#include <string>

#include "apps/console/device_link.h"
#include "apps/console/input_controller.h"

namespace mirn {

// Bound to the main thread; the references must outlive it.
class UpgradeDialog : public Gtk::Window {
 public:
  UpgradeDialog(Gtk::Window& parent, Session& session, DeviceLink& link, InputController& input);
  ~UpgradeDialog() override;

  // Checks the file and shows what would be sent. Ignored while an upgrade runs.
  void offer(const std::string& path);
  bool running() const { return flow_ != nullptr; }
  // For steering from outside: presses the start button. The file is checked once more: one that has changed since it
  // was shown is shown anew, and nothing goes out.
  void start();
  const std::string& outcome() const { return outcome_; }

 private:
  bool tick();
  void offerFile(const UpgradeFile& file, const std::string& news);
  void show(const UpgradeStatus& status);
  std::string settlingText(const UpgradeStatus& status) const;
  void finish();

  Session& session_;
  DeviceLink& link_;
  InputController& input_;
  UpgradeFile file_;
  std::filesystem::file_time_type written_{};  // the file, when it was checked
  std::unique_ptr<UpgradeFlow> flow_;
  std::string outcome_;
  bool handshake_due_ = false;
  sigc::connection timer_;
  Gtk::Box box_{Gtk::Orientation::VERTICAL};
  Gtk::Label file_label_;
  Gtk::Label state_;
  Gtk::ProgressBar progress_;
  Gtk::Button start_{"_Start upgrade", true};
  Gtk::Button close_{"_Close", true};
};

}  // namespace mirn
