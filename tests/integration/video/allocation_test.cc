// In the steady state a frame allocates nothing, from the capture thread's hand to textures and grabber.

#include <gtest/gtest.h>

#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/fake_registry.h"
#include "tests/support/video/log_capture.h"
#include "tests/support/video/manual_queue.h"
#include "tests/unit/embedding/allocation_count.h"
#include "video/camera_manager.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

class QuietRegistry : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> /*texture*/) override { return 0; }
  void textureFrameAvailable(int64_t /*id*/) override { ++told; }
  void unregisterTexture(int64_t /*id*/) override {}
  int told = 0;
};

TEST(FrameAllocationTest, TexturesTakeFramesWithoutAllocating) {
  test::LogCapture log;
  test::ManualQueue queue;
  test::FakeCaptureSystem system;
  auto device = system.add("Nuvra Mirn");
  auto manager = MirnManager::init();
  auto registry = std::make_shared<QuietRegistry>();
  for (int64_t id = 1; id <= 8; ++id) {
    insertTexture(id, MirnTexture::init(), registry);
  }
  ASSERT_TRUE(manager->open());
  PixelBufferPool pool(64, 36, kPixelFormatBGRA, 8);
  const auto frame = [&] {
    device->push(pool.acquire());
    queue.runAll();
  };
  for (int i = 0; i < 50; ++i) {
    frame();
  }
  const uint64_t before = test::allocationsOfAllThreads();
  for (int i = 0; i < 500; ++i) {
    frame();
  }
  EXPECT_EQ(test::allocationsOfAllThreads(), before);
  EXPECT_EQ(registry->told, 8 * 550);
  EXPECT_LE(pool.allocations(), 3U);
  manager.reset();
  for (int64_t id = 1; id <= 8; ++id) {
    destroyTexture(id);
  }
}

TEST(FrameAllocationTest, TheGrabberTakesFramesWithoutAllocating) {
  CameraManager camera;
  CaptureVideoOutput output;
  const PixelBufferRef picture = PixelBuffer::create(1366, 768, kPixelFormatBGRA);
  const auto frame = [&] {
    camera.captureOutput(output, {picture, {}}, {});
    return camera.currentFrame().has_value();
  };
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(frame());
  }
  const uint64_t before = test::allocationsOfAllThreads();
  int stored = 0;
  for (int i = 0; i < 20; ++i) {
    stored += frame() ? 1 : 0;
  }
  EXPECT_EQ(test::allocationsOfAllThreads(), before);
  EXPECT_EQ(stored, 20);
}

}  // namespace
}  // namespace mirn
