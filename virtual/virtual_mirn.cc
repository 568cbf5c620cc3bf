#include "virtual/virtual_mirn.h"

#include <algorithm>

#include "virtual/mirn_state.h"

namespace mirn {
namespace {

template <size_t Size>
std::string textOf(const std::array<uint8_t, Size>& bytes) {
  return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

}  // namespace

VirtualMirn::VirtualMirn(VirtualMirnSettings settings)
    : settings_(std::move(settings)), state_(std::make_unique<MirnState>(settings_)) {}

VirtualMirn::~VirtualMirn() = default;

void VirtualMirn::change(const std::function<void(MirnState&)>& action) {
  const MutexGuard order(tell_mutex_);
  std::vector<VirtualMirnEvent> events;
  {
    const MutexGuard guard(mutex_);
    action(*state_);
    events = state_->takeEvents();
  }
  tell(events);
}

VirtualWriteResult VirtualMirn::hostWrite(std::span<const uint8_t> report, std::chrono::nanoseconds now) {
  VirtualWriteResult result = VirtualWriteResult::kGone;
  change([&](MirnState& state) { result = state.hostWrite(report, now); });
  return result;
}

void VirtualMirn::plug() {
  change([](MirnState& state) { state.plug(); });
}

void VirtualMirn::unplug() {
  change([](MirnState& state) { state.unplug(); });
}

void VirtualMirn::setVersion(std::string_view version, std::string_view detail) {
  change([&](MirnState& state) { state.setVersion(version, detail); });
}

void VirtualMirn::setName(std::string_view name) {
  change([&](MirnState& state) { state.setName(name); });
}

void VirtualMirn::setLed(VirtualLed led) {
  change([&](MirnState& state) { state.setLed(led); });
}

void VirtualMirn::setIdText(std::string_view id_text) {
  const MutexGuard guard(mutex_);
  state_->setIdText(id_text);
}

void VirtualMirn::setFlag(uint8_t flag) {
  const MutexGuard guard(mutex_);
  state_->flag = flag;
}

void VirtualMirn::setFaultPlan(FaultPlan plan) {
  const MutexGuard guard(mutex_);
  state_->plan = std::move(plan);
  state_->exchanges = 0;
  state_->exchanges_of_command.fill(0);
}

void VirtualMirn::setLatency(std::chrono::nanoseconds latency, std::chrono::nanoseconds jitter) {
  const MutexGuard guard(mutex_);
  state_->latency = latency;
  state_->jitter = jitter;
}

std::vector<VirtualReport> VirtualMirn::takeReports() {
  const MutexGuard guard(mutex_);
  return std::exchange(state_->reports, {});
}

bool VirtualMirn::plugged() const {
  const MutexGuard guard(mutex_);
  return state_->plugged;
}

uint64_t VirtualMirn::generation() const {
  const MutexGuard guard(mutex_);
  return state_->generation;
}

std::string VirtualMirn::serial() const {
  return settings_.serial.empty() ? settings_.id_text : settings_.serial;
}

std::string VirtualMirn::name() const {
  const MutexGuard guard(mutex_);
  return textOf(state_->name);
}

std::string VirtualMirn::idText() const {
  const MutexGuard guard(mutex_);
  return textOf(state_->id_text);
}

std::string VirtualMirn::version() const {
  const MutexGuard guard(mutex_);
  return state_->version;
}

std::string VirtualMirn::detail() const {
  const MutexGuard guard(mutex_);
  return state_->detail;
}

uint8_t VirtualMirn::flag() const {
  const MutexGuard guard(mutex_);
  return state_->flag;
}

VirtualLed VirtualMirn::led() const {
  const MutexGuard guard(mutex_);
  return state_->led;
}

VirtualInputState VirtualMirn::input() const {
  const MutexGuard guard(mutex_);
  return state_->input;
}

VirtualFirmwareState VirtualMirn::firmware() const {
  const MutexGuard guard(mutex_);
  return state_->firmware;
}

VirtualMirnCounters VirtualMirn::counters() const {
  const MutexGuard guard(mutex_);
  return state_->countersNow();
}

std::vector<VirtualReceived> VirtualMirn::received() const {
  return receivedAfter(0);
}

std::vector<VirtualReceived> VirtualMirn::receivedAfter(uint64_t number) const {
  const MutexGuard guard(mutex_);
  const auto first = std::ranges::upper_bound(state_->received, number, {}, &VirtualReceived::number);
  return {first, state_->received.end()};
}

uint64_t VirtualMirn::receivedCount() const {
  const MutexGuard guard(mutex_);
  return state_->received_count;
}

void VirtualMirn::clearReceived() {
  const MutexGuard guard(mutex_);
  state_->received.clear();
}

uint64_t VirtualMirn::addListener(VirtualMirnListener listener) {
  const MutexGuard guard(tell_mutex_);
  listeners_.emplace_back(next_listener_, std::move(listener));
  return next_listener_++;
}

void VirtualMirn::removeListener(uint64_t id) {
  const MutexGuard guard(tell_mutex_);
  std::erase_if(listeners_, [&](const auto& entry) { return entry.first == id; });
}

void VirtualMirn::tell(const std::vector<VirtualMirnEvent>& events) {
  for (const VirtualMirnEvent& event : events) {
    for (const auto& [id, listener] : listeners_) {
      listener(event);
    }
  }
}

}  // namespace mirn
