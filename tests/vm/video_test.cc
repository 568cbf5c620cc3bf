// Pictures through the kernel's video driver: each format and size, told apart by the strip of pixels in the picture.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "device/hard_key_mouse.h"
#include "platform/capture.h"
#include "platform/mirn_identity.h"
#include "tests/vm/kernel_mirn.h"
#include "tests/vm/strip_capture.h"

namespace mirn {
namespace {

class VideoTest : public KernelTest {
 protected:
  void plug(UsbShape shape = {}) {
    device_ = std::make_unique<KernelMirn>(VirtualMirnSettings(), shape);
    device_->plug();
    ASSERT_TRUE(waitFor([] { return findMirn() != nullptr; }));
  }
  std::unique_ptr<KernelMirn> device_;
};

TEST_F(VideoTest, OffersEachFormatAndSizeUnderTheProductsName) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  EXPECT_EQ(camera->localizedName(), "Nuvra Mirn");
  EXPECT_NE(camera->topologyPath(), "");
  for (const FourCharCode pixels : {kCaptureYuyv, kCaptureNv12, kCaptureMjpg}) {
    for (const int width : {1280, 1920}) EXPECT_NE(findFormat(*camera, pixels, width), nullptr) << width;
  }
  size_t named = 0;
  for (const auto& device : captureSystem().devices()) named += device->localizedName() == "Nuvra Mirn" ? 1 : 0;
  EXPECT_EQ(named, 1U) << "the metadata node is no capture device";
}

struct PictureCase {
  const char* name;
  UsbShape shape;
  FourCharCode pixels;
  int width;
};

class VideoPictures : public VideoTest, public testing::WithParamInterface<PictureCase> {};

TEST_P(VideoPictures, ArriveIntactAndInOrder) {
  constexpr size_t kFrames = 6;
  const PictureCase& wanted = GetParam();
  ASSERT_NO_FATAL_FAILURE(plug(wanted.shape));
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, wanted.pixels, wanted.width)));
  ASSERT_TRUE(capture.start());
  ASSERT_TRUE(capture.reader().waitForFrames(kFrames));
  const std::vector<SeenFrame> frames = capture.reader().takeFrames();
  for (size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].width, static_cast<size_t>(wanted.width));
    EXPECT_EQ(frames[i].height, static_cast<size_t>(wanted.width * 9 / 16));
    if (i > 0) {
      EXPECT_GT(frames[i].strip.frame_number, frames[i - 1].strip.frame_number);
    }
  }
  EXPECT_EQ(capture.reader().unreadable(), 0);
  EXPECT_EQ(capture.session().statistics().droppedDamaged, 0U);
}

constexpr UsbShape kHighBulk{UsbSpeed::kHigh, VideoTransfer::kBulk};
constexpr UsbShape kSuperBulk{UsbSpeed::kSuper, VideoTransfer::kBulk};
constexpr UsbShape kHighIsochronous{UsbSpeed::kHigh, VideoTransfer::kIsochronous};

INSTANTIATE_TEST_SUITE_P(Each, VideoPictures,
                         testing::Values(PictureCase{"Yuyv720", kHighBulk, kCaptureYuyv, 1280},
                                         PictureCase{"Yuyv1080", kHighBulk, kCaptureYuyv, 1920},
                                         PictureCase{"Nv12At720", kHighBulk, kCaptureNv12, 1280},
                                         PictureCase{"Nv12At1080", kHighBulk, kCaptureNv12, 1920},
                                         PictureCase{"Mjpg720", kHighBulk, kCaptureMjpg, 1280},
                                         PictureCase{"Mjpg1080", kHighBulk, kCaptureMjpg, 1920},
                                         PictureCase{"SuperSpeedYuyv1080", kSuperBulk, kCaptureYuyv, 1920},
                                         PictureCase{"SuperSpeedNv12At1080", kSuperBulk, kCaptureNv12, 1920},
                                         PictureCase{"SuperSpeedMjpg720", kSuperBulk, kCaptureMjpg, 1280},
                                         PictureCase{"IsochronousYuyv720", kHighIsochronous, kCaptureYuyv, 1280},
                                         PictureCase{"IsochronousNv12At720", kHighIsochronous, kCaptureNv12, 1280},
                                         PictureCase{"IsochronousMjpg1080", kHighIsochronous, kCaptureMjpg, 1920}),
                         [](const auto& picture) { return picture.param.name; });

// Some pixels (as offsets) in the middle of one colour: no other one within a JPEG block or a pair of subsampled
// chroma.
std::vector<size_t> flatPixels(const std::vector<uint8_t>& bgra, int width, int height) {
  constexpr int kReachX = 16;
  constexpr int kReachY = 8;
  const auto pixels = reinterpret_cast<const uint32_t*>(bgra.data());
  const auto isFlat = [&](int x, int y) {
    const uint32_t colour = pixels[y * width + x];
    for (int row = y - kReachY; row <= y + kReachY; ++row) {
      const uint32_t* begin = pixels + row * width + x - kReachX;
      if (std::any_of(begin, begin + 2 * kReachX + 1, [&](uint32_t other) { return other != colour; })) return false;
    }
    return true;
  };
  std::vector<size_t> flat;
  constexpr int kStep = 3;
  for (int y = kReachY; y < height - kReachY; y += kStep) {
    for (int x = kReachX; x < width - kReachX; x += kStep) {
      if (isFlat(x, y)) flat.push_back(static_cast<size_t>(y * width + x) * 4);
    }
  }
  return flat;
}

class VideoColours : public VideoTest, public testing::WithParamInterface<FourCharCode> {
 protected:
  static constexpr int kWidth = 1920;
  static constexpr int kHeight = 1080;

  // Clicks leave discs of 24 pixels, of a colour for each button. Eight of them, overlapping, make a bar.
  void paintBar(int left, int top, uint8_t button) {
    constexpr int kStep = 6;  // pixels
    for (int i = 0; i < 8; ++i) {
      const int x = (left + i * kStep) * kTargetFullScale / kWidth;
      const int y = top * kTargetFullScale / kHeight;
      device_->target().pointerAbsolute(x, y, button, 0);
      device_->target().pointerAbsolute(x, y, 0, 0);
    }
    device_->target().pointerAbsolute(kTargetFullScale, kTargetFullScale, 0, 0);
  }
};

// The device says which matrix its pixels are made with; with the other one red would be 14 levels off.
TEST_P(VideoColours, AreTheTargetsOwn) {
  const int tolerance = GetParam() == kCaptureMjpg ? 8 : 3;  // levels, of 255
  ASSERT_NO_FATAL_FAILURE(plug());
  paintBar(450, 420, kTargetLeftButton);
  paintBar(750, 420, kTargetMiddleButton);
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, GetParam(), kWidth)));
  ASSERT_TRUE(capture.start());
  ASSERT_TRUE(capture.reader().waitForFrames(1));
  const PixelBufferRef picture = capture.reader().newest();
  const std::vector<uint8_t> drawn = device_->target().picture(kWidth, kHeight);
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  size_t red = 0;
  size_t blue = 0;
  int worst = 0;
  // The upper half has no frame number.
  for (const size_t pixel : flatPixels(drawn, kWidth, kHeight / 2)) {
    const size_t row = pixel / (size_t{kWidth} * 4);
    const uint8_t* seen = picture->baseAddress() + row * picture->bytesPerRow() + pixel % (size_t{kWidth} * 4);
    const uint8_t* wanted = &drawn[pixel];
    red += wanted[2] > wanted[0] + 120 ? 1 : 0;
    blue += wanted[0] > wanted[2] + 120 ? 1 : 0;
    for (int i = 0; i < 3; ++i) worst = std::max(worst, std::abs(seen[i] - wanted[i]));
  }
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  EXPECT_LE(worst, tolerance);
  EXPECT_GT(red, 5U);
  EXPECT_GT(blue, 5U);
}

INSTANTIATE_TEST_SUITE_P(Each, VideoColours, testing::Values(kCaptureYuyv, kCaptureNv12, kCaptureMjpg),
                         [](const auto& format) {
                           return format.param == kCaptureYuyv   ? "Yuyv"
                                  : format.param == kCaptureNv12 ? "Nv12"
                                                                 : "Mjpg";
                         });

TEST_F(VideoTest, DriverNamesTheMatrixThatThePixelsAreMadeWith) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const std::string file = "/dev/shm/format.txt";
  ASSERT_EQ(std::system(("v4l2-ctl -d " + findMirn()->nodeName() + " --get-fmt-video > " + file).c_str()), 0);
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  EXPECT_NE(text.str().find("ITU-R 601"), std::string::npos) << text.str();
}

TEST_F(VideoTest, QualitySwitchesWhileStreaming) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, 1920)));
  ASSERT_TRUE(capture.start());
  for (const int width : {1280, 1920, 1280}) {
    ASSERT_TRUE(capture.reader().waitForFrames(1));
    ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, width)));
    capture.reader().takeFrames();
    ASSERT_TRUE(capture.reader().waitForFrames(2));
    for (const SeenFrame& frame : capture.reader().takeFrames()) EXPECT_EQ(frame.width, static_cast<size_t>(width));
  }
  EXPECT_EQ(capture.reader().unreadable(), 0);
}

TEST_F(VideoTest, AnotherProgramCannotChangeALockedFormat) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  const std::string other = "v4l2-ctl -d " + camera->nodeName() + " --set-fmt-video=width=1280,height=720,pixelformat=";
  EXPECT_EQ(std::system((other + "YUYV").c_str()), 0) << "nobody has locked it yet";
  {
    Capture capture(camera);
    ASSERT_TRUE(camera->lockForConfiguration());
    EXPECT_NE(std::system((other + "YUYV").c_str()), 0);
    ASSERT_TRUE(camera->setActiveFormat(findFormat(*camera, kCaptureNv12, 1920)));
    ASSERT_TRUE(capture.start());
    ASSERT_TRUE(capture.reader().waitForFrames(1));
    EXPECT_NE(std::system((other + "MJPG").c_str()), 0);
    capture.reader().takeFrames();
    ASSERT_TRUE(capture.reader().waitForFrames(1));
    EXPECT_EQ(capture.reader().takeFrames().front().width, 1920U);
    camera->unlockForConfiguration();
  }
  EXPECT_EQ(std::system((other + "MJPG").c_str()), 0) << "the lock went with the session";
}

class VideoUnplugging : public VideoTest, public testing::WithParamInterface<VideoTransfer> {};

TEST_P(VideoUnplugging, EndsTheSessionAndTheNextPluggingWorks) {
  ASSERT_NO_FATAL_FAILURE(plug({UsbSpeed::kHigh, GetParam()}));
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(waitFor([] { return findMirn() != nullptr; }));
    const auto camera = findMirn();
    Capture capture(camera);
    ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, 1280)));
    ASSERT_TRUE(capture.start());
    ASSERT_TRUE(capture.reader().waitForFrames(2));
    device_->unplug();
    EXPECT_TRUE(waitFor([&] { return !capture.session().isRunning(); }));
    EXPECT_NE(capture.session().statistics().stopCode, 0);
    device_->plug();
  }
}

INSTANTIATE_TEST_SUITE_P(Each, VideoUnplugging, testing::Values(VideoTransfer::kBulk, VideoTransfer::kIsochronous),
                         [](const auto& transfer) {
                           return transfer.param == VideoTransfer::kBulk ? "Bulk" : "Isochronous";
                         });

TEST_F(VideoTest, UnpluggingEndsTheWaitForAFrameThatDoesNotCome) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, 1280)));
  device_->stopPictures();
  ASSERT_TRUE(capture.start());
  EXPECT_TRUE(capture.session().isRunning());
  device_->unplug();
  EXPECT_TRUE(waitFor([&] { return !capture.session().isRunning(); }));
  EXPECT_NE(capture.session().statistics().stopCode, 0);
  EXPECT_EQ(capture.reader().takeFrames().size(), 0U);
}

TEST_F(VideoTest, KeyPressShowsInThePicture) {
  ASSERT_NO_FATAL_FAILURE(plug());
  ASSERT_TRUE(waitFor(hidThere));
  hard_key_mouse layer(g_vid, g_pid);
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureYuyv, 1280)));
  ASSERT_TRUE(capture.start());
  const TargetInputState released = device_->target().inputState();
  TargetInputState pressed = released;
  pressed.keys[0] = 0x04;  // a
  ASSERT_NE(pressed.digest(), released.digest());
  ASSERT_TRUE(capture.reader().waitForInput(released.digest()));
  EXPECT_EQ(layer.send_keyboard({.keys = {pressed.keys[0]}}), 0);
  EXPECT_TRUE(capture.reader().waitForInput(pressed.digest()));
  capture.reader().takeFrames();
  EXPECT_EQ(layer.send_keyboard({}), 0);
  EXPECT_TRUE(capture.reader().waitForInput(released.digest()));
  EXPECT_EQ(device_->target().text(), "a");
}

}  // namespace
}  // namespace mirn
