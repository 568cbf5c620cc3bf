// Pasting text as key presses: shows first what can't be typed, then types with progress and cancel.
#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>
#include <gtkmm/progressbar.h>
#include <gtkmm/textview.h>
#include <gtkmm/window.h>

#include <memory>
#include <string>

#include "apps/common/typing_run.h"
#include "apps/console/device_link.h"

namespace mirn {

// Bound to the main thread; the references must outlive it. The text is never written anywhere.
class PasteDialog : public Gtk::Window {
 public:
  PasteDialog(Gtk::Window& parent, InputSink& input, DeviceLink& link, std::string layout);
  ~PasteDialog() override;

  void setText(const Glib::ustring& text);
  // Presses the "Type" button.
  void start();
  bool running() const { return run_ != nullptr; }
  void cancel();
  // All keys are being let go, or the proxy went: a text half typed can't go on. Nothing happens without one.
  void interrupt();

  // true at the start of typing, false at its end.
  sigc::signal<void(bool)>& signalRunning() { return running_changed_; }

 private:
  void plan();
  bool advance();
  void finish(std::string outcome);

  InputSink& input_;
  DeviceLink& link_;
  std::string layout_;
  std::unique_ptr<TypingRun> run_;
  sigc::connection timer_;
  Gtk::Box box_{Gtk::Orientation::VERTICAL};
  Gtk::TextView text_;
  Gtk::Label note_;
  Gtk::ProgressBar progress_;
  Gtk::Button type_{"_Type", true};
  Gtk::Button cancel_{"_Cancel", true};
  sigc::signal<void(bool)> running_changed_;
};

}  // namespace mirn
