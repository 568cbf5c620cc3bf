// The card over the picture that says what is wrong and what to do.
#pragma once

#include <gtkmm/box.h>
#include <gtkmm/button.h>
#include <gtkmm/label.h>

#include <string>

namespace mirn {

class StatusCard : public Gtk::Box {
 public:
  StatusCard();

  // An empty title hides the card.
  void show(const std::string& title, const std::string& text, bool offer_reconnect);

 private:
  Gtk::Label title_;
  Gtk::Label text_;
  Gtk::Button reconnect_{"_Reconnect", true};
};

}  // namespace mirn
