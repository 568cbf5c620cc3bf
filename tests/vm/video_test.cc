// Pictures through the kernel's video driver: each format and size, told apart by the strip of pixels in the picture.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/capture.h"
#include "platform/mirn_identity.h"
#include "platform/work_queue.h"
#include "tests/vm/kernel_mirn.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

struct SeenFrame {
  uint32_t number = 0;
  size_t width = 0;
  size_t height = 0;
};

// Reads the strip of each frame; a frame without a readable one is counted.
class StripReader : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput&, const SampleBuffer& sample, const CaptureConnection&) override {
    PixelBuffer& picture = *sample.imageBuffer;
    picture.lockBaseAddress(kPixelBufferLockReadOnly);
    const std::optional<StripContent> strip = readStripBgra(picture.baseAddress(), static_cast<int>(picture.width()),
                                                            static_cast<int>(picture.height()), picture.bytesPerRow());
    const SeenFrame frame{strip ? strip->frame_number : 0, picture.width(), picture.height()};
    picture.unlockBaseAddress(kPixelBufferLockReadOnly);
    const std::lock_guard guard(mutex_);
    strip ? frames_.push_back(frame) : static_cast<void>(++unreadable_);
    changed_.notify_all();
  }

  // False when they don't come.
  bool waitForFrames(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(50), [&] { return frames_.size() >= count; });
  }
  std::vector<SeenFrame> takeFrames() {
    const std::lock_guard guard(mutex_);
    return std::exchange(frames_, {});
  }
  int unreadable() {
    const std::lock_guard guard(mutex_);
    return unreadable_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<SeenFrame> frames_;
  int unreadable_ = 0;
};

std::shared_ptr<CaptureDevice> findMirn() {
  for (const auto& device : captureSystem().devices()) {
    if (device->localizedName() == kMirnProductName) return device;
  }
  return nullptr;
}

CaptureFormatRef findFormat(CaptureDevice& device, FourCharCode pixels, int width) {
  for (const CaptureFormatRef& format : device.formats()) {
    if (format->pixelFormat == pixels && format->width == width) return format;
  }
  return nullptr;
}

// A session with a strip reader on one device.
class Capture {
 public:
  explicit Capture(std::shared_ptr<CaptureDevice> device) : device_(std::move(device)), queue_("frames") {
    CaptureError error;
    session_ = captureSystem().createSession();
    const auto input = captureSystem().createDeviceInput(device_, &error);
    EXPECT_NE(input, nullptr) << error.localizedDescription();
    output_ = captureSystem().createVideoOutput();
    output_->setVideoSettings(kPixelFormatBGRA);
    output_->setSampleBufferDelegate(&reader_, &queue_);
    if (input != nullptr) session_->addInput(input);
    session_->addOutput(output_);
  }
  ~Capture() {
    session_->stopRunning();
    output_->setSampleBufferDelegate(nullptr, nullptr);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  bool choose(const CaptureFormatRef& format) {
    if (!device_->lockForConfiguration()) return false;
    const bool set = device_->setActiveFormat(format);
    device_->unlockForConfiguration();
    return set;
  }
  bool start() {
    CaptureError error;
    const bool started = session_->startRunning(&error);
    EXPECT_TRUE(started) << error.localizedDescription();
    return started;
  }
  CaptureSession& session() { return *session_; }
  StripReader& reader() { return reader_; }

 private:
  std::shared_ptr<CaptureDevice> device_;
  WorkQueue queue_;
  StripReader reader_;
  std::shared_ptr<CaptureSession> session_;
  std::shared_ptr<CaptureVideoOutput> output_;
};

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
      EXPECT_GT(frames[i].number, frames[i - 1].number);
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
                                         PictureCase{"SuperSpeedMjpg720", kSuperBulk, kCaptureMjpg, 1280},
                                         PictureCase{"IsochronousYuyv720", kHighIsochronous, kCaptureYuyv, 1280},
                                         PictureCase{"IsochronousMjpg1080", kHighIsochronous, kCaptureMjpg, 1920}),
                         [](const auto& picture) { return picture.param.name; });

TEST_F(VideoTest, QualitySwitchesWhileStreaming) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, 1920)));
  ASSERT_TRUE(capture.start());
  for (const int width : {1280, 1920, 1280}) {
    ASSERT_TRUE(capture.reader().waitForFrames(2));
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
  Capture capture(camera);
  ASSERT_TRUE(camera->lockForConfiguration());
  const std::string other = "v4l2-ctl -d " + camera->nodeName() + " --set-fmt-video=width=1280,height=720,pixelformat=";
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

TEST_F(VideoTest, UnpluggingEndsTheSessionAndTheNextPluggingWorks) {
  ASSERT_NO_FATAL_FAILURE(plug());
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(waitFor([] { return findMirn() != nullptr; }));
    const auto camera = findMirn();
    Capture capture(camera);
    ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureMjpg, 1280)));
    ASSERT_TRUE(capture.start());
    ASSERT_TRUE(capture.reader().waitForFrames(2));
    device_->unplug();
    EXPECT_TRUE(waitFor([&] { return !capture.session().isRunning(); })) << "while a frame is being waited for";
    EXPECT_NE(capture.session().statistics().stopCode, 0);
    device_->plug();
  }
}

TEST_F(VideoTest, KeyPressShowsInThePicture) {
  ASSERT_NO_FATAL_FAILURE(plug());
  const auto camera = findMirn();
  Capture capture(camera);
  ASSERT_TRUE(capture.choose(findFormat(*camera, kCaptureYuyv, 1280)));
  ASSERT_TRUE(capture.start());
  ASSERT_TRUE(capture.reader().waitForFrames(1));
  const uint32_t before = capture.reader().takeFrames().back().number;
  device_->target().keyboard(0, std::array<uint8_t, 6>{0x04});
  ASSERT_TRUE(capture.reader().waitForFrames(2));
  EXPECT_GT(capture.reader().takeFrames().back().number, before);
  EXPECT_EQ(device_->target().text(), "a");
}

}  // namespace
}  // namespace mirn
