#include "apps/console/status_card.h"

namespace mirn {

StatusCard::StatusCard() : Gtk::Box(Gtk::Orientation::VERTICAL) {
  constexpr int kGap = 8;
  constexpr int kLineLength = 52;
  set_spacing(kGap);
  set_halign(Gtk::Align::CENTER);
  set_valign(Gtk::Align::CENTER);
  add_css_class("mirn-card");
  title_.add_css_class("title-2");
  text_.set_wrap(true);
  text_.set_max_width_chars(kLineLength);
  text_.set_justify(Gtk::Justification::CENTER);
  reconnect_.set_action_name("win.reconnect");
  reconnect_.set_halign(Gtk::Align::CENTER);
  reconnect_.set_focus_on_click(false);  // it stands over the picture, which keeps the keyboard
  append(title_);
  append(text_);
  append(reconnect_);
  set_visible(false);
}

void StatusCard::show(const std::string& title, const std::string& text, bool offer_reconnect) {
  set_visible(!title.empty());
  title_.set_text(title);
  text_.set_text(text);
  reconnect_.set_visible(offer_reconnect);
}

}  // namespace mirn
