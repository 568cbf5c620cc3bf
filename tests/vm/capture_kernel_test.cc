// What every capture system must do, on the kernel's video driver: the suite that the virtual source passes in ctest.
#include <chrono>
#include <memory>

#include "tests/integration/video/capture_conformance.h"
#include "tests/vm/kernel_mirn.h"

namespace mirn::test {
namespace {

class KernelWorld : public CaptureWorld {
 public:
  KernelWorld() {
    EXPECT_TRUE(waitFor(busIsEmpty));
    replug();
  }
  CaptureSystem& system() override { return captureSystem(); }
  void unplug() override {
    device_.unplug();
    EXPECT_TRUE(waitFor([this] { return !found(); }));
  }
  void replug() override {
    device_.plug();
    EXPECT_TRUE(waitFor([this] { return found(); }));
  }

 private:
  bool found() {
    for (const auto& device : captureSystem().devices()) {
      if (device->localizedName() == deviceName()) return true;
    }
    return false;
  }

  KernelMirn device_;
};

std::unique_ptr<CaptureWorld> makeKernelWorld() {
  return std::make_unique<KernelWorld>();
}

INSTANTIATE_TEST_SUITE_P(Kernel, CaptureConformanceTest, testing::Values(&makeKernelWorld));

}  // namespace
}  // namespace mirn::test
