#include "platform/linux/v4l2_formats.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/video/fake_v4l2.h"

namespace mirn {
namespace {

v4l2_pix_format reported(uint32_t width, uint32_t height, uint32_t colorspace, uint32_t encoding = 0,
                         uint32_t quantization = 0) {
  v4l2_pix_format format{};
  format.width = width;
  format.height = height;
  format.pixelformat = V4L2_PIX_FMT_YUYV;
  format.bytesperline = width * 2;
  format.colorspace = colorspace;
  format.ycbcr_enc = encoding;
  format.quantization = quantization;
  return format;
}

TEST(V4l2FormatsTest, CodesAreTurnedRound) {
  EXPECT_EQ(fromV4l2Format(V4L2_PIX_FMT_YUYV), kCaptureYuyv);
  EXPECT_EQ(fromV4l2Format(V4L2_PIX_FMT_NV12), kCaptureNv12);
  EXPECT_EQ(fromV4l2Format(V4L2_PIX_FMT_MJPEG), kCaptureMjpg);
  EXPECT_EQ(fromV4l2Format(V4L2_PIX_FMT_JPEG), kCaptureMjpg);
  EXPECT_EQ(toV4l2Format(kCaptureMjpg), static_cast<uint32_t>(V4L2_PIX_FMT_MJPEG));
}

TEST(V4l2FormatsTest, OnlyAStreamingCaptureNodeCounts) {
  v4l2_capability capability{};
  capability.capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  EXPECT_TRUE(isCaptureNode(capability));
  // A UVC metadata node: the device can capture, this node can't.
  capability.capabilities |= V4L2_CAP_DEVICE_CAPS;
  capability.device_caps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
  EXPECT_FALSE(isCaptureNode(capability));
  capability.device_caps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_READWRITE;
  EXPECT_FALSE(isCaptureNode(capability));
}

TEST(V4l2FormatsTest, ColourFollowsWhatTheDriverReports) {
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_REC709)).matrix, YuvMatrix::kBt709);
  EXPECT_EQ(layoutOf(reported(1920, 1080, V4L2_COLORSPACE_SMPTE170M)).matrix, YuvMatrix::kBt601);
  EXPECT_EQ(layoutOf(reported(1920, 1080, V4L2_COLORSPACE_SRGB)).matrix, YuvMatrix::kBt601);
  EXPECT_EQ(layoutOf(reported(1920, 1080, V4L2_COLORSPACE_SRGB, V4L2_YCBCR_ENC_709)).matrix, YuvMatrix::kBt709);
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_REC709, V4L2_YCBCR_ENC_601)).matrix, YuvMatrix::kBt601);
}

TEST(V4l2FormatsTest, WithoutAColourSpaceTheSizeDecides) {
  EXPECT_EQ(layoutOf(reported(1280, 720, V4L2_COLORSPACE_DEFAULT)).matrix, YuvMatrix::kBt709);
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_DEFAULT)).matrix, YuvMatrix::kBt601);
}

TEST(V4l2FormatsTest, RangeIsVideoUnlessReportedOtherwise) {
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_SRGB)).range, YuvRange::kVideo);
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_JPEG)).range, YuvRange::kFull);
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_JPEG, 0, V4L2_QUANTIZATION_LIM_RANGE)).range, YuvRange::kVideo);
  EXPECT_EQ(layoutOf(reported(640, 480, V4L2_COLORSPACE_SRGB, 0, V4L2_QUANTIZATION_FULL_RANGE)).range, YuvRange::kFull);
}

TEST(V4l2FormatsTest, EnumeratesSizesWithTheirFastestInterval) {
  test::FakeV4l2 calls;
  calls.node("/dev/video0").sizes = {{V4L2_PIX_FMT_YUYV, 1280, 720, {5, 10}},
                                     {V4L2_PIX_FMT_GREY, 1280, 720, {100}},
                                     {V4L2_PIX_FMT_MJPEG, 1920, 1080, {60, 30}},
                                     {V4L2_PIX_FMT_MJPEG, 1280, 720, {}}};
  int fd = -1;
  ASSERT_EQ(calls.open("/dev/video0", fd), 0);
  const auto formats = enumerateFormats(calls, fd);
  ASSERT_EQ(formats.size(), 3U);
  EXPECT_EQ(describe(formats[0]), "1280x720 'yuvs' (YUYV) 10.00 fps");
  EXPECT_EQ(describe(formats[1]), "1920x1080 '420v' (MJPG) 60.00 fps");
  EXPECT_EQ(describe(formats[2]), "1280x720 '420v' (MJPG) 0.00 fps");
  calls.close(fd);
}

// A driver that offers ranges, and one that never ends its lists.
class RangeCalls : public V4l2Calls {
 public:
  explicit RangeCalls(bool endless) : endless_(endless) {}
  int open(const std::string& /*path*/, int& fd) override {
    fd = 1;
    return 0;
  }
  void close(int /*fd*/) override {}
  int control(int /*fd*/, unsigned long request, void* argument) override {
    ++controls;
    if (request == VIDIOC_ENUM_FMT) {
      auto& entry = *static_cast<v4l2_fmtdesc*>(argument);
      entry.pixelformat = V4L2_PIX_FMT_YUYV;
      return endless_ || entry.index == 0 ? 0 : EINVAL;
    }
    if (request == VIDIOC_ENUM_FRAMESIZES) {
      auto& entry = *static_cast<v4l2_frmsizeenum*>(argument);
      if (endless_) {
        entry.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        entry.discrete = {entry.index == 0 ? 1280U : 100000U, 720};
        return 0;
      }
      entry.type = V4L2_FRMSIZE_TYPE_STEPWISE;
      entry.stepwise = {16, 2000, 16, 16, 1100, 8};
      return 0;
    }
    auto& entry = *static_cast<v4l2_frmivalenum*>(argument);
    entry.type = V4L2_FRMIVAL_TYPE_STEPWISE;
    entry.stepwise.min = {1, 50};
    entry.stepwise.max = {1, 1};
    return 0;
  }
  void* map(int /*fd*/, size_t /*bytes*/, uint64_t /*offset*/, int& error) override {
    error = EINVAL;
    return nullptr;
  }
  void unmap(void* /*start*/, size_t /*bytes*/) override {}
  V4l2Wait wait(int /*fd*/, int /*wakeFd*/, int /*timeoutMs*/) override { return {}; }
  int controls = 0;

 private:
  const bool endless_;
};

TEST(V4l2FormatsTest, OfARangeTheUsualSizesAreOffered) {
  RangeCalls calls(false);
  const auto formats = enumerateFormats(calls, 1);
  ASSERT_EQ(formats.size(), 3U);
  EXPECT_EQ(describe(formats[0]), "640x480 'yuvs' (YUYV) 50.00 fps");
  EXPECT_EQ(formats[2].height, 1080);
}

TEST(V4l2FormatsTest, EndlessListsAndAbsurdSizesEnd) {
  RangeCalls calls(true);
  for (const CaptureFormat& format : enumerateFormats(calls, 1)) {
    EXPECT_EQ(format.width, 1280);
  }
  EXPECT_LT(calls.controls, 100000);
}

TEST(V4l2ErrorsTest, SayWhatHappenedAndWhatToDo) {
  EXPECT_EQ(v4l2Error(EBUSY, "/dev/video0", "opening").localizedDescription(),
            "/dev/video0: the device is in use by another program (Device or resource busy). Close that program (fuser "
            "-v /dev/video0 shows it) and open again.");
  EXPECT_NE(v4l2Error(EACCES, "/dev/video0", "opening").localizedDescription().find("group 'video'"),
            std::string::npos);
  EXPECT_NE(v4l2Error(ENODEV, "/dev/video0", "opening").localizedDescription().find("Plug it in"), std::string::npos);
  EXPECT_TRUE(meansGone(ENODEV));
  EXPECT_TRUE(meansGone(ESHUTDOWN));
  EXPECT_FALSE(meansGone(EIO));
}

}  // namespace
}  // namespace mirn
