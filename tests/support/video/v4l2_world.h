#pragma once

// One Mirn on the V4L2 double, as the capture system in use: everything above the system calls is the real thing.

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/v4l2_capture_system.h"
#include "tests/support/video/fake_v4l2.h"

namespace mirn::test {

class V4l2World {
 public:
  /// The node offers this format only, so that nobody has to choose.
  V4l2World(uint32_t pixelFormat, uint32_t width, uint32_t height) {
    kernel_->node(kNode).sizes = {{pixelFormat, width, height, {60}}};
    catalog_->nodes = {nodeInfo(kNode, "Nuvra Mirn")};
    setCaptureSystem(&system_);
  }
  ~V4l2World() { setCaptureSystem(nullptr); }
  V4l2World(const V4l2World&) = delete;
  V4l2World& operator=(const V4l2World&) = delete;

  bool push(const std::vector<uint8_t>& bytes) { return kernel_->push(kNode, bytes); }
  FakeV4l2& kernel() { return *kernel_; }

 private:
  static constexpr const char* kNode = "/dev/video0";
  std::shared_ptr<FakeV4l2> kernel_ = std::make_shared<FakeV4l2>();
  std::shared_ptr<FakeCatalog> catalog_ = std::make_shared<FakeCatalog>();
  V4l2CaptureSystem system_{catalog_, kernel_};
};

}  // namespace mirn::test
