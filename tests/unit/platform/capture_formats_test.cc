#include <gtest/gtest.h>

#include <cerrno>

#include "platform/capture.h"
#include "tests/support/video/fake_capture.h"

namespace mirn {
namespace {

using test::makeFormat;

std::vector<std::string> names(const std::vector<CaptureFormatRef>& formats) {
  std::vector<std::string> result;
  result.reserve(formats.size());
  for (const CaptureFormatRef& format : formats) {
    result.push_back(describe(*format));
  }
  return result;
}

TEST(CaptureFormatsTest, SubtypesFollowThePixelFormat) {
  EXPECT_EQ(fourCharText(captureMediaSubtype(kCaptureYuyv)), "yuvs");
  EXPECT_EQ(fourCharText(captureMediaSubtype(kCaptureNv12)), "420v");
  EXPECT_EQ(fourCharText(captureMediaSubtype(kCaptureMjpg)), "420v");
  EXPECT_EQ(captureMediaSubtype(fourCharCode("H264")), 0U);
}

TEST(CaptureFormatsTest, WithinASizeAndSubtypeTheFastestStandsLast) {
  const auto sorted = sortedFormats({makeFormat(kCaptureMjpg, 1920, 1080, 60), makeFormat(kCaptureNv12, 1920, 1080, 30),
                                     makeFormat(kCaptureMjpg, 1920, 1080, 25)});
  EXPECT_EQ(names(sorted),
            (std::vector<std::string>{"1920x1080 '420v' (MJPG) 25.00 fps", "1920x1080 '420v' (NV12) 30.00 fps",
                                      "1920x1080 '420v' (MJPG) 60.00 fps"}));
}

TEST(CaptureFormatsTest, AtEqualRateNv12StandsBeforeMjpg) {
  const auto sorted = sortedFormats({makeFormat(kCaptureMjpg, 1280, 720, 60), makeFormat(kCaptureNv12, 1280, 720, 60)});
  EXPECT_EQ(sorted[0]->pixelFormat, kCaptureNv12);
  EXPECT_EQ(sorted[1]->pixelFormat, kCaptureMjpg);
}

TEST(CaptureFormatsTest, GroupsKeepTheOrderOfTheirFirstMembers) {
  const auto sorted = sortedFormats({makeFormat(kCaptureYuyv, 1280, 720, 10), makeFormat(kCaptureMjpg, 1920, 1080, 60),
                                     makeFormat(kCaptureYuyv, 1920, 1080, 5), makeFormat(kCaptureMjpg, 1280, 720, 60),
                                     makeFormat(kCaptureYuyv, 1280, 720, 5)});
  EXPECT_EQ(names(sorted),
            (std::vector<std::string>{"1280x720 'yuvs' (YUYV) 5.00 fps", "1280x720 'yuvs' (YUYV) 10.00 fps",
                                      "1920x1080 '420v' (MJPG) 60.00 fps", "1920x1080 'yuvs' (YUYV) 5.00 fps",
                                      "1280x720 '420v' (MJPG) 60.00 fps"}));
}

TEST(CaptureFormatsTest, RatesCompareExactlyAndUnknownIsSlowest) {
  CaptureFormat ntsc = makeFormat(kCaptureNv12, 1280, 720, 30);
  ntsc.interval = {1001, 30000};
  CaptureFormat unknown = makeFormat(kCaptureMjpg, 1280, 720, 30);
  unknown.interval = {};
  const auto sorted = sortedFormats({makeFormat(kCaptureNv12, 1280, 720, 30), ntsc, unknown});
  EXPECT_EQ(sorted[0]->pixelFormat, kCaptureMjpg);
  EXPECT_EQ(sorted[1]->interval.numerator, 1001U);
  EXPECT_EQ(sorted[2]->interval.numerator, 1U);
}

TEST(CaptureFormatsTest, TheHighPresetIsTheLargestPictureAtItsBestRate) {
  const auto best = highPresetFormat(
      sortedFormats({makeFormat(kCaptureYuyv, 1920, 1080, 60), makeFormat(kCaptureMjpg, 1920, 1080, 30),
                     makeFormat(kCaptureMjpg, 1280, 720, 120)}));
  EXPECT_EQ(describe(*best), "1920x1080 'yuvs' (YUYV) 60.00 fps");
}

TEST(CaptureFormatsTest, AmongEqualsTheHighPresetTakesMjpgThenNv12ThenYuyv) {
  EXPECT_EQ(highPresetFormat(sortedFormats(test::usualFormats()))->pixelFormat, kCaptureMjpg);
  EXPECT_EQ(
      highPresetFormat(sortedFormats({makeFormat(kCaptureYuyv, 640, 480, 30), makeFormat(kCaptureNv12, 640, 480, 30)}))
          ->pixelFormat,
      kCaptureNv12);
  EXPECT_EQ(highPresetFormat({}), nullptr);
}

TEST(CaptureErrorTest, SaysWhereWhatWhyAndWhatToDo) {
  const CaptureError error = {EBUSY, "/dev/video0", "the device is in use by another program", "Close it."};
  EXPECT_EQ(error.localizedDescription(),
            "/dev/video0: the device is in use by another program (Device or resource busy). Close it.");
  EXPECT_TRUE(error);
  EXPECT_FALSE(CaptureError{});
}

TEST(CaptureErrorTest, TheLastOneIsKeptUntilASuccess) {
  reportCaptureError({EACCES, "/dev/video7", "no", ""});
  EXPECT_EQ(lastCaptureError().node, "/dev/video7");
  clearLastCaptureError();
  EXPECT_FALSE(lastCaptureError());
}

}  // namespace
}  // namespace mirn
