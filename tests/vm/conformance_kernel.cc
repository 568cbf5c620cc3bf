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

class OnKernel : public ConformanceBackend {
 public:
  explicit OnKernel(size_t devices) {
    for (size_t i = 0; i < devices; ++i) {
      VirtualMirnSettings settings;
      settings.serial = "conformance-" + std::to_string(i);
      devices_.push_back(std::make_unique<KernelMirn>(settings));
      plug(i);
    }
  }
  VirtualMirn& mirn(size_t index) override { return devices_.at(index)->mirn(); }
  void plug(size_t index) override {
    devices_.at(index)->plug();
    EXPECT_TRUE(waitFor([&] { return opens(serial(index)); }));
  }
  void unplug(size_t index) override {
    devices_.at(index)->unplug();
    EXPECT_TRUE(waitFor([&] { return !opens(serial(index)); }));
  }

 private:
  static std::wstring serial(size_t index) { return L"conformance-" + std::to_wstring(index); }

  std::vector<std::unique_ptr<KernelMirn>> devices_;
};

}  // namespace

std::unique_ptr<ConformanceBackend> makeConformanceBackend(size_t devices) {
  hidFunctions().init();
  return std::make_unique<OnKernel>(devices);
}

}  // namespace mirn
