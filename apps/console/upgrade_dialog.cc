#include "apps/console/upgrade_dialog.h"

#include <array>
#include <cstdio>
#include <utility>

#include "apps/common/upgrade_file.h"

namespace mirn {
namespace {

using Steady = std::chrono::steady_clock;

std::filesystem::file_time_type lastWritten(const std::string& path) {
  std::error_code error;
  auto time = std::filesystem::last_write_time(path, error);
  return error ? std::filesystem::file_time_type{} : time;
}

bool sameFacts(const UpgradeFile& left, const UpgradeFile& right) {
  return left.ok == right.ok && left.hex == right.hex && left.file_bytes == right.file_bytes &&
         left.image_bytes == right.image_bytes;
}

// With two of them plugged in the picture may be of the one that would not be upgraded.
std::string elsewhereReason() {
  return "The picture comes from the Mirn at USB port " + hostCaptureTopologyPath() +
         ", but the firmware would go to the one at port " + hostHidTopologyPath() + ". Unplug one of them first.";
}

}  // namespace

UpgradeDialog::UpgradeDialog(Gtk::Window& parent, Session& session, DeviceLink& link, InputController& input)
    : session_(session), link_(link), input_(input) {
  constexpr int kWidth = 480;
  constexpr int kGap = 10;
  constexpr int kMargin = 16;
  constexpr int kLineLength = 60;
  set_title("Firmware upgrade");
  set_transient_for(parent);
  set_modal(true);
  set_hide_on_close(true);
  set_default_size(kWidth, -1);
  box_.set_spacing(kGap);
  box_.set_margin(kMargin);
  for (Gtk::Label* label : {&file_label_, &state_}) {
    label->set_wrap(true);
    label->set_max_width_chars(kLineLength);
    label->set_halign(Gtk::Align::START);
    label->set_selectable(false);
  }
  progress_.set_show_text(true);
  auto* buttons = Gtk::make_managed<Gtk::Box>(Gtk::Orientation::HORIZONTAL, kGap);
  buttons->set_halign(Gtk::Align::END);
  buttons->append(close_);
  buttons->append(start_);
  start_.add_css_class("destructive-action");
  box_.append(file_label_);
  box_.append(progress_);
  box_.append(state_);
  box_.append(*buttons);
  set_child(box_);
  start_.signal_clicked().connect(sigc::mem_fun(*this, &UpgradeDialog::start));
  close_.signal_clicked().connect([this] { close(); });
  // The window stays while chunks are sent: going now would leave the device with half an image.
  signal_close_request().connect(
      [this] {
        if (flow_ && flow_->state() == UpgradeState::kUnplugged) {
          flow_->giveUp();
          tick();
        }
        return running();
      },
      false);
}

UpgradeDialog::~UpgradeDialog() {
  timer_.disconnect();
}

void UpgradeDialog::offer(const std::string& path) {
  if (running()) {
    present();
    return;
  }
  written_ = lastWritten(path);  // before it is read: a change from here on is seen at the start
  offerFile(checkUpgradeFile(path), "");
  present();
}

void UpgradeDialog::offerFile(const UpgradeFile& file, const std::string& news) {
  file_ = file;
  outcome_.clear();
  progress_.set_fraction(0);
  progress_.set_text(" ");
  start_.set_sensitive(file_.ok && link_.info().has_value());
  if (!file_.ok) {
    file_label_.set_text("This file can't be used. " + file_.reason);
    state_.set_text("Nothing is sent.");
  } else {
    file_label_.set_text(file_.path + "\n" + (file_.hex ? "Intel HEX, checked. " : "Raw image, sent as it is. ") +
                         std::to_string(file_.image_bytes) + " bytes go out in " + std::to_string(file_.chunks) +
                         " chunks of 1024 bytes.");
    std::string state = "The device doesn't answer: it can't be upgraded now.";
    if (keyboardIsElsewhere()) {
      state = elsewhereReason() + " Nothing is sent.";
    } else if (link_.info()) {
      state = news + "The device runs version " + link_.info()->version +
              ". Don't unplug it while it is upgraded. Start now?";
    }
    state_.set_text(state);
  }
}

void UpgradeDialog::start() {
  if (running() || !file_.ok || !link_.info()) {
    return;
  }
  auto shown = std::exchange(written_, lastWritten(file_.path));
  UpgradeFile now = checkUpgradeFile(file_.path);
  bool changed = !sameFacts(now, file_) || shown != written_;
  if (changed || keyboardIsElsewhere()) {
    offerFile(now, changed ? "The file has changed since it was checked. " : "");
    return;
  }
  start_.set_sensitive(false);
  close_.set_sensitive(false);
  input_.release();
  input_.releaseEverything();
  std::string before = link_.info()->version;
  link_.setUpgrading(true);
  flow_ = std::make_unique<UpgradeFlow>(file_, before, session_.upgradeFacts());
  flow_->start(session_.startUpgrade(file_.path), Steady::now());
  constexpr unsigned kEveryMs = 50;
  timer_ = Glib::signal_timeout().connect(sigc::mem_fun(*this, &UpgradeDialog::tick), kEveryMs);
}

bool UpgradeDialog::tick() {
  if (!flow_) {
    return false;
  }
  Steady::time_point now = Steady::now();
  flow_->update(session_.upgradeFacts(), now);
  show(flow_->status(now));
  // One tick later, so that the window shows why: the new proxy waits for the chunk that is on its way.
  bool due = flow_->wantsHandshake(now);
  if (due && handshake_due_) {
    std::optional<std::string> version;
    if (session_.connectKeyboard()) {
      std::optional<DeviceInfo> info = session_.info();
      version = info ? std::optional<std::string>(info->version) : std::nullopt;
    }
    flow_->handshake(version, Steady::now());
    due = false;
  }
  handshake_due_ = due;
  if (flow_->state() != UpgradeState::kFinished) {
    return true;
  }
  finish();
  return false;
}

void UpgradeDialog::show(const UpgradeStatus& status) {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), "chunk %llu of %llu   %.0f %%   %.1f KiB/s",
                static_cast<unsigned long long>(status.chunk), static_cast<unsigned long long>(status.total),
                status.percent, status.bytes_per_second / 1024);
  std::string line = text.data();
  if (status.remaining) {
    line += "   " + std::to_string(status.remaining->count()) + " s left";
  }
  progress_.set_fraction(status.percent / 100);
  progress_.set_text(line);
  close_.set_sensitive(status.state == UpgradeState::kUnplugged);
  switch (status.state) {
    case UpgradeState::kSending:
      state_.set_text("Sending. Don't unplug the device.");
      break;
    case UpgradeState::kSettling:
      state_.set_text(settlingText(status));
      break;
    case UpgradeState::kUnplugged:
      state_.set_text("The device was unplugged in the middle. Plug it in again; closing this window gives up.");
      break;
    case UpgradeState::kFinished:
      break;
  }
}

std::string UpgradeDialog::settlingText(const UpgradeStatus& status) const {
  std::string happened = "The device took " + std::to_string(status.chunk) + " of " + std::to_string(status.total) +
                         " chunks and no more, so the upgrade is broken off.";
  if (status.all_taken) {
    happened = "All is sent.";
  } else if (flow_->wasUnplugged()) {
    happened = "The device is plugged in again.";
  }
  return happened + " Waiting for it to answer with its version.";
}

void UpgradeDialog::finish() {
  outcome_ = flow_->resultText();
  flow_.reset();
  state_.set_text(outcome_);
  close_.set_sensitive(true);
  link_.setUpgrading(false);
}

}  // namespace mirn
