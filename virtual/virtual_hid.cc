#include "virtual/virtual_hid.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <cwchar>
#include <deque>
#include <iterator>
#include <utility>

#include "deps/pellum/thread_annotations.h"
#include "platform/clock.h"

namespace mirn {
namespace {

// Unread reports that one handle keeps, as the kernel's hidraw does; newer ones are dropped.
constexpr size_t kKeptReports = 63;

// The kernel (6.1, usbhid_open) drops what comes within so long of the first opening: left-overs of an earlier one.
// Nobody waits for it here.
constexpr Clock::Duration kDroppedAtOpening = std::chrono::milliseconds(50);

struct Handle {
  std::shared_ptr<VirtualMirn> device;
  uint64_t generation = 0;
  std::deque<VirtualReport> unread;

  bool gone() const { return !device->plugged() || device->generation() != generation; }
};

struct Device {
  std::shared_ptr<VirtualMirn> mirn;
  uint64_t listener = 0;
  // Of this plugging; made, but not on the cable yet.
  std::deque<VirtualReport> coming{};
  uint64_t generation = 0;
};

bool sameText(const wchar_t* wide, const std::string& narrow) {
  return std::equal(wide, wide + std::wcslen(wide), narrow.begin(), narrow.end(),
                    [](wchar_t a, unsigned char b) { return a == static_cast<wchar_t>(b); });
}

}  // namespace

// Lock order: a device's own locks are taken under this one, so nothing that makes a device call its listeners (a
// write, a plugging) may be done while it is held.
struct VirtualHid::State {
  mutable Mutex mutex;
  std::condition_variable_any changed;
  std::vector<Device> devices MIRN_GUARDED_BY(mutex);
  std::vector<std::unique_ptr<Handle>> handles MIRN_GUARDED_BY(mutex);
  uint64_t init_calls MIRN_GUARDED_BY(mutex) = 0;
  bool denied MIRN_GUARDED_BY(mutex) = false;

  // The first device, in the order of adding, that is plugged in and has the identifiers.
  Device* first(unsigned short vendor, unsigned short product, const wchar_t* serial) MIRN_REQUIRES(mutex) {
    for (Device& device : devices) {
      const VirtualMirn& mirn = *device.mirn;
      if (mirn.plugged() && mirn.vendorId() == vendor && mirn.productId() == product &&
          (serial == nullptr || sameText(serial, mirn.serial()))) {
        return &device;
      }
    }
    return nullptr;
  }

  Handle* find(hid_device* device) MIRN_REQUIRES(mutex) {
    const auto found =
        std::ranges::find(handles, reinterpret_cast<Handle*>(device), [](const auto& handle) { return handle.get(); });
    return found != handles.end() ? found->get() : nullptr;
  }

  bool isOpen(const Device& device) const MIRN_REQUIRES(mutex) {
    return std::ranges::any_of(handles,
                               [&](const auto& handle) { return handle->device == device.mirn && !handle->gone(); });
  }

  // Null when the device has been removed.
  Device* deviceOf(const VirtualMirn& mirn) MIRN_REQUIRES(mutex) {
    const auto found = std::ranges::find(devices, &mirn, [](const Device& device) { return device.mirn.get(); });
    return found != devices.end() ? &*found : nullptr;
  }

  // Hands what the device has said by `now` to every handle on it. What is due later reaches a handle that is opened
  // until then, too, as on a real bus.
  void distribute(Device& device, Clock::Duration now) MIRN_REQUIRES(mutex) {
    const uint64_t generation = device.mirn->generation();
    if (!device.mirn->plugged() || device.generation != generation) {
      device.coming.clear();
      device.generation = generation;
    }
    std::ranges::move(device.mirn->takeReports(), std::back_inserter(device.coming));
    for (; !device.coming.empty() && device.coming.front().due <= now; device.coming.pop_front()) {
      for (const auto& handle : handles) {
        if (handle->device == device.mirn && !handle->gone() && handle->unread.size() < kKeptReports) {
          handle->unread.push_back(device.coming.front());
        }
      }
    }
  }
};

// The calls of the table.
struct VirtualHidCalls {
  using State = VirtualHid::State;

  static State& state() { return *VirtualHid::instance().state_; }

  static int init() {
    State& hid = state();
    const MutexGuard guard(hid.mutex);
    ++hid.init_calls;
    return 0;
  }

  static hid_device* open(unsigned short vendor, unsigned short product, const wchar_t* serial) {
    State& hid = state();
    const MutexGuard guard(hid.mutex);
    Device* const device = hid.first(vendor, product, serial);
    if (device == nullptr || hid.denied) {
      return nullptr;
    }
    const Clock::Duration now = clock().now();
    hid.distribute(*device, hid.isOpen(*device) ? now : now + kDroppedAtOpening);
    hid.handles.push_back(std::make_unique<Handle>(Handle{device->mirn, device->mirn->generation(), {}}));
    return reinterpret_cast<hid_device*>(hid.handles.back().get());
  }

  static int write(hid_device* device, const unsigned char* data, size_t length) {
    State& hid = state();
    std::shared_ptr<VirtualMirn> mirn;
    {
      const MutexGuard guard(hid.mutex);
      const Handle* const handle = hid.find(device);
      if (handle == nullptr || data == nullptr || length == 0 || handle->gone()) {
        return -1;
      }
      mirn = handle->device;
    }
    // The report number stays behind: it never reaches a device that numbers no reports.
    if (mirn->hostWrite({data + 1, length - 1}, clock().now()) != VirtualWriteResult::kAccepted) {
      return -1;
    }
    const MutexGuard guard(hid.mutex);
    if (Device* const known = hid.deviceOf(*mirn)) {
      hid.distribute(*known, clock().now());
    }
    hid.changed.notify_all();  // readers wait for what is due next
    return static_cast<int>(length);
  }

  static int readTimeout(hid_device* device, unsigned char* data, size_t length, int milliseconds) {
    State& hid = state();
    const Clock::Duration deadline = clock().now() + std::chrono::milliseconds(milliseconds);
    const MutexGuard guard(hid.mutex);
    while (true) {
      Handle* const handle = hid.find(device);
      if (handle == nullptr || handle->gone()) {
        return -1;
      }
      Device* const known = hid.deviceOf(*handle->device);
      if (known == nullptr) {
        return -1;
      }
      const Clock::Duration now = clock().now();
      hid.distribute(*known, now);
      if (!handle->unread.empty()) {
        return deliver(handle, data, length);
      }
      if (milliseconds >= 0 && now >= deadline) {
        return 0;
      }
      if (!known->coming.empty()) {
        const Clock::Duration due = known->coming.front().due;
        clock().waitUntil(hid.changed, hid.mutex, milliseconds >= 0 ? std::min(due, deadline) : due);
      } else if (milliseconds >= 0) {
        clock().waitUntil(hid.changed, hid.mutex, deadline);
      } else {
        hid.changed.wait(hid.mutex);
      }
    }
  }

  static int deliver(Handle* handle, unsigned char* data, size_t length) {
    const VirtualReport report = handle->unread.front();
    handle->unread.pop_front();
    if (report.read_error) {
      return -1;
    }
    const size_t size = std::min(length, report.bytes.size());
    std::memcpy(data, report.bytes.data(), size);
    return static_cast<int>(size);
  }

  static void close(hid_device* device) {
    State& hid = state();
    const MutexGuard guard(hid.mutex);
    std::erase_if(hid.handles, [&](const auto& handle) { return handle.get() == reinterpret_cast<Handle*>(device); });
    hid.changed.notify_all();
  }

  static std::string topology(hid_device* device) {
    State& hid = state();
    const MutexGuard guard(hid.mutex);
    const Handle* const handle = hid.find(device);
    return handle != nullptr ? handle->device->topology() : std::string();
  }

  static HidRefusal refusal(unsigned short vendor, unsigned short product) {
    State& hid = state();
    const MutexGuard guard(hid.mutex);
    const Device* const device = hid.first(vendor, product, nullptr);
    return device != nullptr && hid.denied ? HidRefusal{EACCES, "virtual-hid:" + device->mirn->topology()}
                                           : HidRefusal{};
  }
};

VirtualHid::VirtualHid() : state_(new State) {}

VirtualHid& VirtualHid::instance() {
  static VirtualHid* const hid = new VirtualHid;
  return *hid;
}

const HidFunctions& VirtualHid::functions() {
  static constexpr HidFunctions kFunctions{
      VirtualHidCalls::init,  VirtualHidCalls::open,     VirtualHidCalls::write,  VirtualHidCalls::readTimeout,
      VirtualHidCalls::close, VirtualHidCalls::topology, VirtualHidCalls::refusal};
  return kFunctions;
}

void VirtualHid::setDenied(bool denied) {
  const MutexGuard guard(state_->mutex);
  state_->denied = denied;
}

void VirtualHid::add(std::shared_ptr<VirtualMirn> device) {
  // A reader that waits on a device hears of its unplugging.
  const uint64_t listener = device->addListener([this](const VirtualMirnEvent& event) {
    if (event.kind == VirtualMirnEvent::Kind::kUnplugged) {
      const MutexGuard guard(state_->mutex);
      state_->changed.notify_all();
    }
  });
  const MutexGuard guard(state_->mutex);
  state_->devices.push_back({std::move(device), listener});
}

void VirtualHid::remove(const std::shared_ptr<VirtualMirn>& device) {
  Device removed;
  {
    const MutexGuard guard(state_->mutex);
    const auto found = std::ranges::find(state_->devices, device, &Device::mirn);
    if (found == state_->devices.end()) {
      return;
    }
    removed = *found;
    state_->devices.erase(found);
  }
  removed.mirn->unplug();
  removed.mirn->removeListener(removed.listener);
}

void VirtualHid::removeAll() {
  for (const std::shared_ptr<VirtualMirn>& device : devices()) {
    remove(device);
  }
}

std::vector<std::shared_ptr<VirtualMirn>> VirtualHid::devices() const {
  const MutexGuard guard(state_->mutex);
  std::vector<std::shared_ptr<VirtualMirn>> devices;
  for (const Device& device : state_->devices) {
    devices.push_back(device.mirn);
  }
  return devices;
}

size_t VirtualHid::openHandles() const {
  const MutexGuard guard(state_->mutex);
  return state_->handles.size();
}

uint64_t VirtualHid::initCalls() const {
  const MutexGuard guard(state_->mutex);
  return state_->init_calls;
}

ScopedVirtualHid::ScopedVirtualHid(std::vector<std::shared_ptr<VirtualMirn>> devices) {
  for (std::shared_ptr<VirtualMirn>& device : devices) {
    VirtualHid::instance().add(std::move(device));
  }
  setHidFunctions(&VirtualHid::functions());
}

ScopedVirtualHid::~ScopedVirtualHid() {
  setHidFunctions(nullptr);
  VirtualHid::instance().removeAll();
}

}  // namespace mirn
