#include "apps/console/paste_dialog.h"

#include <gtkmm/eventcontrollerkey.h>
#include <gtkmm/scrolledwindow.h>

#include <utility>

namespace mirn {
namespace {

uint64_t keysAnswered() {
  HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardSent + link.keyboardFailed;
}

}  // namespace

PasteDialog::PasteDialog(Gtk::Window& parent, InputSink& input, DeviceLink& link, std::string layout)
    : input_(input), link_(link), layout_(std::move(layout)) {
  constexpr int kWidth = 520;
  constexpr int kHeight = 360;
  constexpr int kGap = 8;
  constexpr int kMargin = 12;
  set_title("Type text");
  set_transient_for(parent);
  set_modal(true);
  set_hide_on_close(true);
  set_default_size(kWidth, kHeight);
  box_.set_spacing(kGap);
  box_.set_margin(kMargin);
  auto* scroll = Gtk::make_managed<Gtk::ScrolledWindow>();
  scroll->set_child(text_);
  scroll->set_vexpand(true);
  text_.set_wrap_mode(Gtk::WrapMode::WORD_CHAR);
  note_.set_wrap(true);
  note_.set_halign(Gtk::Align::START);
  progress_.set_show_text(true);
  auto* buttons = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, kGap);
  buttons->set_halign(Gtk::Align::END);
  buttons->append(cancel_);
  buttons->append(type_);
  type_.add_css_class("suggested-action");
  box_.append(*scroll);
  box_.append(note_);
  box_.append(progress_);
  box_.append(*buttons);
  set_child(box_);
  text_.get_buffer()->signal_changed().connect(sigc::mem_fun(*this, &PasteDialog::plan));
  type_.signal_clicked().connect(sigc::mem_fun(*this, &PasteDialog::start));
  cancel_.signal_clicked().connect([this] { running() ? cancel() : set_visible(false); });
  signal_close_request().connect(
      [this] {
        cancel();
        return false;
      },
      false);
  plan();
}

PasteDialog::~PasteDialog() {
  timer_.disconnect();
}

void PasteDialog::setText(const Glib::ustring& text) {
  text_.get_buffer()->set_text(text);
  type_.grab_focus();
}

void PasteDialog::plan() {
  TypingPlan plan = planTyping(text_.get_buffer()->get_text().raw(), *keyboardLayout(layout_));
  std::string note = std::to_string(plan.characters()) + " characters can be typed.";
  if (!plan.untypable.empty()) {
    note = untypableSummary(plan) + ". They are left out.";
  }
  if (!link_.blockedReason().empty()) {
    note += "\n" + link_.blockedReason();
  }
  note_.set_text(note);
  progress_.set_fraction(0);
  progress_.set_text(" ");
  type_.set_sensitive(plan.characters() != 0 && link_.blockedReason().empty());
}

void PasteDialog::start() {
  if (running() || !link_.blockedReason().empty()) {
    return;
  }
  TypingPlan plan = planTyping(text_.get_buffer()->get_text().raw(), *keyboardLayout(layout_));
  run_ = std::make_unique<TypingRun>(std::move(plan), input_, keysAnswered(), hostLinkStatistics().keyboardFailed);
  text_.set_sensitive(false);
  type_.set_sensitive(false);
  running_changed_.emit(true);
  constexpr unsigned kEveryMs = 4;
  timer_ = Glib::signal_timeout().connect(sigc::mem_fun(*this, &PasteDialog::advance), kEveryMs);
}

bool PasteDialog::advance() {
  if (!link_.blockedReason().empty()) {
    run_->cancel();
  }
  TypingRun::State state =
      run_->advance(keysAnswered(), hostLinkStatistics().keyboardFailed, std::chrono::steady_clock::now());
  size_t done = run_->charactersDone();
  size_t all = run_->characters();
  progress_.set_fraction(all == 0 ? 1 : static_cast<double>(done) / static_cast<double>(all));
  progress_.set_text(std::to_string(done) + " of " + std::to_string(all));
  std::string count = std::to_string(done) + " of " + std::to_string(all) + " characters";
  switch (state) {
    case TypingRun::State::kTyping:
      return true;
    case TypingRun::State::kDone:
      finish("Typed " + count + ".");
      set_visible(false);
      break;
    case TypingRun::State::kCancelled:
      finish("Cancelled after " + count + ".");
      break;
    case TypingRun::State::kFailed:
      finish(run_->failure());
      break;
  }
  return false;
}

void PasteDialog::cancel() {
  if (running()) {
    run_->cancel();
  }
}

void PasteDialog::interrupt() {
  if (running()) {
    run_->interrupt();
  }
}

// By value: the outcome may be the run's own, which goes first.
void PasteDialog::finish(std::string outcome) {
  if (!link_.blockedReason().empty()) {
    outcome += "\n" + link_.blockedReason();
  }
  run_.reset();
  text_.set_sensitive(true);
  type_.set_sensitive(true);
  note_.set_text(outcome);
  running_changed_.emit(false);
}

}  // namespace mirn
