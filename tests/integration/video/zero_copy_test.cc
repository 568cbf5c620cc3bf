// One frame is converted once and shared: the number of times anybody asked for its bytes is the proof.

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_registry.h"
#include "tests/support/video/log_capture.h"
#include "tests/support/video/manual_queue.h"
#include "video/mirn_texture.h"
#include "virtual/virtual_capture.h"
#include "virtual/virtual_target.h"

namespace mirn {
namespace {

class ZeroCopyTest : public testing::TestWithParam<int64_t> {
 protected:
  ZeroCopyTest() {
    VirtualCaptureSettings settings;
    settings.frames_per_second = 0;  // frames by hand
    device_ = capture_.add(std::make_shared<VirtualTarget>(), settings);
    setCaptureSystem(&capture_);
  }
  ~ZeroCopyTest() override {
    manager_.reset();
    setCaptureSystem(nullptr);
    for (int64_t id = 1; id <= GetParam(); ++id) {
      destroyTexture(id);
    }
  }

  test::LogCapture log_;
  test::ManualQueue queue_;
  VirtualCapture capture_;
  std::shared_ptr<VirtualCaptureDevice> device_;
  std::unique_ptr<MirnManager> manager_ = MirnManager::init();
};

TEST_P(ZeroCopyTest, NoPixelIsTouchedAfterTheConversion) {
  const auto registry = std::make_shared<test::FakeTextureRegistry>();
  std::vector<std::shared_ptr<MirnTexture>> textures;
  for (int64_t id = 1; id <= GetParam(); ++id) {
    textures.push_back(MirnTexture::init());
    insertTexture(id, textures.back(), registry);
  }
  ASSERT_TRUE(manager_->open());
  const std::string word = "720P";
  ASSERT_TRUE(manager_->setVideoQuality(&word));
  const uint64_t copied = pixelBytesCopied();
  std::set<PixelBuffer*> pictures;
  std::set<PixelBufferRef, decltype([](const PixelBufferRef& a, const PixelBufferRef& b) { return a.get() < b.get(); })>
      kept;
  for (int frame = 0; frame < 3; ++frame) {
    ASSERT_TRUE(device_->step());
    queue_.runAll();
    const PixelBufferRef shown = textures[0]->copyPixelBuffer();
    ASSERT_TRUE(shown);
    for (const auto& texture : textures) {
      EXPECT_EQ(texture->copyPixelBuffer(), shown);
    }
    EXPECT_EQ(shown->locksTaken(), 1U) << "the conversion's own";
    kept.insert(shown);
    pictures.insert(shown.get());
  }
  EXPECT_EQ(pictures.size(), 3U);
  EXPECT_EQ(pixelBytesCopied(), copied);
  EXPECT_EQ(manager_->captureSession()->statistics().framesDelivered, 3U);
}

INSTANTIATE_TEST_SUITE_P(Textures, ZeroCopyTest, testing::Values(1, 2, 8, 64));

}  // namespace
}  // namespace mirn
