#include <chrono>
#include <memory>

#include "tests/integration/video/capture_conformance.h"
#include "virtual/virtual_capture.h"
#include "virtual/virtual_target.h"

namespace mirn::test {
namespace {

class VirtualWorld : public CaptureWorld {
 public:
  VirtualWorld() {
    VirtualCaptureSettings settings;
    settings.warm_up = std::chrono::milliseconds(5);
    device_ = capture_.add(std::make_shared<VirtualTarget>(), settings);
  }
  CaptureSystem& system() override { return capture_; }
  void unplug() override { device_->unplug(); }
  void replug() override { device_->replug(); }

 private:
  VirtualCapture capture_;
  std::shared_ptr<VirtualCaptureDevice> device_;
};

std::unique_ptr<CaptureWorld> makeVirtualWorld() {
  return std::make_unique<VirtualWorld>();
}

INSTANTIATE_TEST_SUITE_P(Virtual, CaptureConformanceTest, testing::Values(&makeVirtualWorld));

}  // namespace
}  // namespace mirn::test
