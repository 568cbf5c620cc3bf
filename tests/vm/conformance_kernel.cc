#include <array>
#include <string>
#include <vector>

#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "tests/vm/conformance_backend.h"
#include "tests/vm/kernel_mirn.h"

namespace mirn {

namespace {

bool opens(const std::wstring& serial) {
  hid_device* device = hidFunctions().open(g_vid, g_pid, serial.c_str());
  if (device == nullptr) return false;
  hidFunctions().close(device);
  return true;
}

// Enumeration takes most of a case's time here, so the devices stay plugged in from case to case, brought back to how
// they were in between.
class OnKernel : public ConformanceBackend {
 public:
  explicit OnKernel(size_t devices) {
    for (size_t i = 0; i < kDevices; ++i) {
      if (all()[i] == nullptr) all()[i] = std::make_unique<KernelMirn>(settingsOf(i));
      mirn(i).setFaultPlan({});
      mirn(i).setName(settingsOf(i).name);
      mirn(i).setLed({});
      mirn(i).clearReceived();
      if (i < devices) {
        plug(i);
      } else {
        unplug(i);
      }
    }
  }
  VirtualMirn& mirn(size_t index) override { return all().at(index)->mirn(); }
  void plug(size_t index) override {
    all().at(index)->plug();
    EXPECT_TRUE(waitFor([&] { return opens(serial(index)); }));
  }
  void unplug(size_t index) override {
    all().at(index)->unplug();
    EXPECT_TRUE(waitFor([&] { return !opens(serial(index)); }));
  }

 private:
  static constexpr size_t kDevices = 2;

  static std::array<std::unique_ptr<KernelMirn>, kDevices>& all() {
    static std::array<std::unique_ptr<KernelMirn>, kDevices> devices;
    return devices;
  }
  static VirtualMirnSettings settingsOf(size_t index) {
    VirtualMirnSettings settings;
    settings.serial = "conformance-" + std::to_string(index);
    return settings;
  }
  static std::wstring serial(size_t index) { return L"conformance-" + std::to_wstring(index); }
};

}  // namespace

std::unique_ptr<ConformanceBackend> makeConformanceBackend(size_t devices) {
  hidFunctions().init();
  return std::make_unique<OnKernel>(devices);
}

}  // namespace mirn
