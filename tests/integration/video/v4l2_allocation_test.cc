// In the steady state a frame maps and allocates nothing on its whole way: V4L2 buffer, conversion, GLib's main loop,
// textures.

#include <glib.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <turbojpeg.h>
#include <unistd.h>

#include "platform/main_queue.h"
#include "plugin/mirn_manager.h"
#include "tests/integration/video/system_memory.h"
#include "tests/support/video/log_capture.h"
#include "tests/support/video/pictures.h"
#include "tests/support/video/v4l2_world.h"
#include "tests/unit/embedding/allocation_count.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr uint64_t kFrames = 60;
constexpr int64_t kTextures = 8;

using Bytes = std::vector<uint8_t>;

Bytes desktopJpeg() {
  const test::Picture picture = test::desktopPicture(kWidth, kHeight);
  tjhandle encoder = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(encoder, picture.bytes.data(), kWidth, 0, kHeight, TJPF_BGRA, &jpeg, &size, TJSAMP_422, 85, 0),
            0);
  Bytes bytes(jpeg, jpeg + size);
  tjFree(jpeg);
  tjDestroy(encoder);
  return bytes;
}

Bytes frameOf(uint32_t pixelFormat) {
  constexpr size_t kPixels = static_cast<size_t>(kWidth) * kHeight;
  if (pixelFormat == V4L2_PIX_FMT_MJPEG) {
    return desktopJpeg();
  }
  return Bytes(pixelFormat == V4L2_PIX_FMT_YUYV ? kPixels * 2 : kPixels * 3 / 2, 128);
}

// What TurboJPEG's own pools take, for header and picture: nothing but for MJPEG.
uint64_t heapCallsOfDecoding(uint32_t pixelFormat, const Bytes& bytes) {
  if (pixelFormat != V4L2_PIX_FMT_MJPEG) {
    return 0;
  }
  Bytes pixels(static_cast<size_t>(kWidth) * kHeight * 4);
  tjhandle decoder = tjInitDecompress();
  const auto decode = [&] {
    int sides[4] = {};
    EXPECT_EQ(tjDecompressHeader3(decoder, bytes.data(), bytes.size(), &sides[0], &sides[1], &sides[2], &sides[3]), 0);
    EXPECT_EQ(tjDecompress2(decoder, bytes.data(), bytes.size(), pixels.data(), kWidth, kWidth * 4, kHeight, TJPF_BGRA,
                            TJFLAG_FASTUPSAMPLE),
              0);
  };
  decode();
  const uint64_t before = test::heapCalls();
  for (uint64_t i = 0; i < kFrames; ++i) {
    decode();
  }
  const uint64_t calls = test::heapCalls() - before;
  tjDestroy(decoder);
  return calls;
}

class CountingRegistry : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> /*texture*/) override { return 0; }
  void textureFrameAvailable(int64_t /*id*/) override { ++told; }
  void unregisterTexture(int64_t /*id*/) override {}
  uint64_t told = 0;  // main thread only
};

class V4l2AllocationTest : public testing::TestWithParam<uint32_t> {
 protected:
  V4l2AllocationTest() {
    for (int64_t id = 1; id <= kTextures; ++id) {
      insertTexture(id, MirnTexture::init(), registry_);
    }
    deadline_ = g_timeout_add_seconds(
        60,
        [](gpointer late) -> gboolean {
          *static_cast<bool*>(late) = true;
          return G_SOURCE_CONTINUE;
        },
        &late_);
  }
  ~V4l2AllocationTest() override {
    manager_.reset();
    for (int64_t id = 1; id <= kTextures; ++id) {
      destroyTexture(id);
    }
    g_source_remove(deadline_);
  }

  // False when a frame didn't reach every texture.
  bool play(uint64_t frames) {
    for (; frames > 0; --frames) {
      const uint64_t wanted = registry_->told + kTextures;
      if (!world_.push(bytes_)) {
        return false;
      }
      while (registry_->told < wanted && !late_) {
        g_main_context_iteration(nullptr, TRUE);
      }
    }
    return !late_;
  }

  test::LogCapture log_;
  const Bytes bytes_ = frameOf(GetParam());
  test::V4l2World world_{GetParam(), kWidth, kHeight};
  std::shared_ptr<CountingRegistry> registry_ = std::make_shared<CountingRegistry>();
  std::unique_ptr<MirnManager> manager_ = MirnManager::init();
  bool late_ = false;
  guint deadline_ = 0;
};

TEST_P(V4l2AllocationTest, AFrameMapsAndAllocatesNothingFromTheDriverToTheTextures) {
  ASSERT_TRUE(manager_->open());
  const uint64_t decoding = heapCallsOfDecoding(GetParam(), bytes_);
  ASSERT_TRUE(play(20));
  const uint64_t news = test::allocationsOfAllThreads();
  const uint64_t heap = test::heapCalls();
  const uint64_t maps = test::mapCalls();
  const uint64_t pages = test::mappedPages();
  ASSERT_TRUE(play(kFrames));
  EXPECT_EQ(test::allocationsOfAllThreads(), news);
  EXPECT_EQ(test::mapCalls(), maps);
  if (test::kCountsSystemMemory) {
    EXPECT_EQ(test::heapCalls() - heap, decoding);
    EXPECT_EQ(test::mappedPages(), pages);
  }
  const CaptureStatistics numbers = manager_->captureSession()->statistics();
  EXPECT_EQ(numbers.framesDelivered, 20 + kFrames);
  EXPECT_EQ(numbers.droppedDamaged + numbers.droppedLate, 0U);
}

TEST(SystemMemoryTest, EveryKindOfTakingIsSeen) {
  if (!test::kCountsSystemMemory) {
    EXPECT_EQ(test::heapCalls() + test::mapCalls(), 0U);
    return;
  }
  const uint64_t heap = test::heapCalls();
  const uint64_t maps = test::mapCalls();
  const uint64_t pages = test::mappedPages();
  g_free(g_malloc(1));
  EXPECT_EQ(test::heapCalls(), heap + 1) << "from within a library too";
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* mapped = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  EXPECT_EQ(test::mapCalls(), maps + 1);
  EXPECT_EQ(test::mappedPages(), pages + 1);
  munmap(mapped, page);
  EXPECT_EQ(test::mappedPages(), pages);
}

INSTANTIATE_TEST_SUITE_P(Formats, V4l2AllocationTest,
                         testing::Values(V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_MJPEG),
                         [](const testing::TestParamInfo<uint32_t>& format) {
                           return format.param == V4L2_PIX_FMT_YUYV   ? "Yuyv"
                                  : format.param == V4L2_PIX_FMT_NV12 ? "Nv12"
                                                                      : "Mjpeg";
                         });

}  // namespace
}  // namespace mirn
