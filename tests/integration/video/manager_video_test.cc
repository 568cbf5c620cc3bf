// The manager's video half, rule by rule, on a capture system whose every step a test controls.

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_capture.h"
#include "tests/support/video/fake_registry.h"
#include "tests/support/video/log_capture.h"
#include "tests/support/video/manual_queue.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

using test::LogCapture;
using test::makeFormat;

class ManagerVideoTest : public testing::Test {
 protected:
  ManagerVideoTest() { gNormalColor = true; }
  ~ManagerVideoTest() override {
    manager_.reset();
    std::vector<int64_t> ids;
    liveTextureIds(ids);
    for (const int64_t id : ids) {
      destroyTexture(id);
    }
    gNormalColor = true;
  }

  bool quality(const std::string& word) { return manager_->setVideoQuality(&word); }
  std::string active() { return device_->activeFormat() ? describe(*device_->activeFormat()) : ""; }
  static std::string described(FourCharCode format, int32_t width, int32_t height, uint32_t fps = 30) {
    return describe(makeFormat(format, width, height, fps));
  }

  test::LogCapture log_;
  test::ManualQueue queue_;
  test::FakeCaptureSystem system_;
  std::shared_ptr<test::FakeCaptureDevice> device_ = system_.add("Nuvra Mirn");
  std::shared_ptr<test::FakeTextureRegistry> registry_ = std::make_shared<test::FakeTextureRegistry>();
  std::unique_ptr<MirnManager> manager_ = MirnManager::init();
};

TEST_F(ManagerVideoTest, ListsAndLogsEveryVideoDeviceInOrder) {
  system_.add("Webcam", test::usualFormats(), "fake-2");
  system_.add("Microphone")->video = false;
  EXPECT_EQ(manager_->getDeviceList(), (std::vector<std::string>{"Nuvra Mirn", "Webcam"}));
  EXPECT_EQ(LogCapture::lines(), (std::vector<std::string>{"devicename: Nuvra Mirn, deviceid: fake-1",
                                                           "devicename: Webcam, deviceid: fake-2"}));
}

TEST_F(ManagerVideoTest, WithoutTheDeviceNothingOpens) {
  system_.list.clear();
  system_.add("nuvra mirn");
  system_.add("Nuvra Mirn ");
  EXPECT_FALSE(manager_->open());
  EXPECT_FALSE(quality("720P"));
  manager_->bestColor();
  EXPECT_TRUE(gNormalColor);
  EXPECT_TRUE(LogCapture::lines().empty());
}

TEST_F(ManagerVideoTest, OpensTheFirstOfThatNameAndLogsItWithItsFormats) {
  system_.add("Nuvra Mirn", test::usualFormats(), "second");
  ASSERT_TRUE(manager_->open());
  EXPECT_EQ(manager_->captureDevice(), device_);
  EXPECT_TRUE(device_->streaming);
  ASSERT_GE(LogCapture::lines().size(), 2U);
  EXPECT_EQ(LogCapture::lines()[0], "devicename: Nuvra Mirn, deviceid: fake-1");
  EXPECT_EQ(LogCapture::lines()[1].rfind("formats (1280x720 'yuvs'", 0), 0U);
}

TEST_F(ManagerVideoTest, OpenStartsInThePresetAndLeavesTheSize) {
  ASSERT_TRUE(manager_->open());
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
  EXPECT_EQ(manager_->getSize().width, 0.0);
  EXPECT_EQ(manager_->getSize().height, 0.0);
}

TEST_F(ManagerVideoTest, OpenActivatesNoneOfItsOwnFormats) {
  device_->setFormats({makeFormat(kCaptureMjpg, 1920, 1080, 30), makeFormat(kCaptureYuyv, 1920, 1080, 30),
                       makeFormat(kCaptureMjpg, 2560, 1440, 30)});
  ASSERT_TRUE(manager_->open());
  EXPECT_EQ(active(), described(kCaptureMjpg, 2560, 1440)) << "the preset's choice";
}

TEST_F(ManagerVideoTest, QualityPicksTheFormatOfSizeAndColour) {
  ASSERT_TRUE(manager_->open());
  EXPECT_TRUE(quality("720P"));
  EXPECT_EQ(active(), described(kCaptureMjpg, 1280, 720));
  EXPECT_EQ(manager_->getSize().width, 1280.0);
  EXPECT_EQ(manager_->getSize().height, 720.0);
  EXPECT_TRUE(quality("1080P"));
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
  EXPECT_EQ(manager_->getSize().width, 1920.0);
  EXPECT_EQ(manager_->getSize().height, 1080.0);
  EXPECT_EQ(device_->configurationLocks(), 0);
}

TEST_F(ManagerVideoTest, ColourSwitchesWithinTheSizeAndIsKeptForTheNext) {
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  manager_->bestColor();
  EXPECT_FALSE(gNormalColor);
  EXPECT_EQ(active(), described(kCaptureYuyv, 1920, 1080));
  quality("720P");
  EXPECT_EQ(active(), described(kCaptureYuyv, 1280, 720));
  manager_->normalColor();
  EXPECT_TRUE(gNormalColor);
  EXPECT_EQ(active(), described(kCaptureMjpg, 1280, 720));
  EXPECT_EQ(device_->configurationLocks(), 0);
}

TEST_F(ManagerVideoTest, ColourBeforeAnyQualityChangesTheFlagAlone) {
  ASSERT_TRUE(manager_->open());
  gNormalColor = false;
  const std::string before = active();
  manager_->normalColor();
  EXPECT_TRUE(gNormalColor);
  EXPECT_EQ(active(), before);
  quality("1080P");
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
}

TEST_F(ManagerVideoTest, AnyOtherQualityWordIsRefusedAndLeavesTheLockHeld) {
  ASSERT_TRUE(manager_->open());
  int held = 0;
  for (const char* word : {"720p", "1080p", "", "720P ", "4K", "1080"}) {
    EXPECT_FALSE(quality(word)) << word;
    EXPECT_EQ(device_->configurationLocks(), ++held) << word;
  }
  EXPECT_FALSE(manager_->setVideoQuality(nullptr));
  EXPECT_EQ(device_->configurationLocks(), ++held);
  // Our own lock is no obstacle for us.
  EXPECT_TRUE(quality("720P"));
  EXPECT_EQ(device_->configurationLocks(), held);
  EXPECT_FALSE(quality("1080p"));
  EXPECT_EQ(manager_->getSize().width, 1280.0) << "a refused word leaves the size";
}

TEST_F(ManagerVideoTest, AFormatSwitchWithoutMemoryLeavesTheOldFormatRunning) {
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  device_->applyThrows = true;
  quality("720P");
  manager_->bestColor();
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
  EXPECT_TRUE(device_->streaming);
  EXPECT_EQ(device_->configurationLocks(), 0);
  ASSERT_FALSE(LogCapture::lines().empty());
  EXPECT_NE(LogCapture::lines().back().find("std::bad_alloc"), std::string::npos) << LogCapture::lines().back();
  device_->applyThrows = false;
  EXPECT_TRUE(quality("720P"));
  EXPECT_EQ(active(), described(kCaptureYuyv, 1280, 720)) << "the colour was chosen, though the camera couldn't follow";
}

TEST_F(ManagerVideoTest, WithoutTheLockNothingChanges) {
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  device_->lockError = EBUSY;
  EXPECT_FALSE(quality("720P"));
  manager_->bestColor();
  EXPECT_TRUE(gNormalColor);
  EXPECT_EQ(manager_->getSize().width, 1920.0);
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
}

TEST_F(ManagerVideoTest, AnEmptySlotChangesTheSizeAndAnswersTrueButTheFormatStays) {
  device_->setFormats({makeFormat(kCaptureMjpg, 1920, 1080, 30)});
  ASSERT_TRUE(manager_->open());
  EXPECT_TRUE(quality("720P"));
  EXPECT_EQ(manager_->getSize().width, 1280.0);
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
  manager_->bestColor();
  EXPECT_FALSE(gNormalColor);
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080));
}

TEST_F(ManagerVideoTest, OfSeveralMatchesTheLastWins) {
  device_->setFormats({makeFormat(kCaptureMjpg, 1920, 1080, 60), makeFormat(kCaptureNv12, 1920, 1080, 5),
                       makeFormat(kCaptureMjpg, 640, 480, 120)});
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080, 60));
}

TEST_F(ManagerVideoTest, SlotsAreRefreshedByTheNextOpenAndKeptWhereNothingMatches) {
  ASSERT_TRUE(manager_->open());
  manager_->close();
  device_->setFormats({makeFormat(kCaptureMjpg, 1920, 1080, 60)});
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  EXPECT_EQ(active(), described(kCaptureMjpg, 1920, 1080, 60));
  // The slot of 720P still holds the former list's format.
  EXPECT_TRUE(quality("720P"));
  EXPECT_EQ(active(), described(kCaptureMjpg, 1280, 720, 30));
}

TEST_F(ManagerVideoTest, CloseLetsTheDeviceGoAndKeepsSizeAndColour) {
  ASSERT_TRUE(manager_->open());
  quality("1080P");
  manager_->bestColor();
  const std::weak_ptr<CaptureSession> session = manager_->captureSession();
  manager_->close();
  EXPECT_TRUE(session.expired());
  EXPECT_FALSE(manager_->captureDevice());
  EXPECT_FALSE(device_->streaming);
  EXPECT_EQ(device_->opens, device_->closes);
  EXPECT_EQ(manager_->getSize().width, 1920.0);
  EXPECT_FALSE(gNormalColor);
  EXPECT_FALSE(quality("720P"));
  manager_->normalColor();
  EXPECT_FALSE(gNormalColor);
  manager_->close();
  EXPECT_TRUE(manager_->open());
  EXPECT_FALSE(gNormalColor) << "nor does the next opening change the colour";
}

TEST_F(ManagerVideoTest, CloseStopsASessionThatSomebodyElseHolds) {
  ASSERT_TRUE(manager_->open());
  const auto held = manager_->captureSession();
  manager_->close();
  EXPECT_FALSE(held->isRunning());
  EXPECT_FALSE(device_->streaming);
}

TEST_F(ManagerVideoTest, OpenWhileOpenBuildsANewSession) {
  ASSERT_TRUE(manager_->open());
  const auto former = manager_->captureSession();
  ASSERT_TRUE(manager_->open());
  EXPECT_NE(manager_->captureSession(), former);
  EXPECT_FALSE(former->isRunning());
  EXPECT_TRUE(manager_->captureSession()->isRunning());
  EXPECT_TRUE(device_->streaming);
}

TEST_F(ManagerVideoTest, EveryStepThatFailsMakesOpenFail) {
  device_->openError = EACCES;
  EXPECT_FALSE(manager_->open());
  EXPECT_EQ(manager_->captureDevice(), device_) << "it is held all the same";
  EXPECT_EQ(lastCaptureError().code, EACCES);
  EXPECT_TRUE(LogCapture::has("fake:fake-1"));
  device_->openError = 0;
  system_.failSession = true;
  EXPECT_FALSE(manager_->open());
  system_.failSession = false;
  system_.failOutput = true;
  EXPECT_FALSE(manager_->open());
  EXPECT_FALSE(device_->streaming);
  system_.failOutput = false;
  device_->startError = EBUSY;
  EXPECT_FALSE(manager_->open());
  EXPECT_EQ(lastCaptureError().code, EBUSY);
  device_->startError = 0;
  EXPECT_TRUE(manager_->open());
  EXPECT_FALSE(lastCaptureError());
}

TEST_F(ManagerVideoTest, AnOpeningThatFindsNoDeviceGoesOnWithTheOneHeld) {
  ASSERT_TRUE(manager_->open());
  system_.list.clear();
  EXPECT_TRUE(manager_->open());
  EXPECT_EQ(manager_->captureDevice(), device_);
  EXPECT_TRUE(quality("720P"));
  manager_->close();
  EXPECT_FALSE(manager_->open());
}

TEST_F(ManagerVideoTest, AfterUnpluggingTheOldDeviceIsKeptUntilANewOneComes) {
  ASSERT_TRUE(manager_->open());
  device_->connected = false;
  device_->stopByItself(ENODEV);
  system_.list.clear();
  EXPECT_FALSE(manager_->captureSession()->isRunning());
  EXPECT_FALSE(quality("720P"));
  device_->openError = ENODEV;
  device_->startError = ENODEV;
  EXPECT_FALSE(manager_->open());
  auto replugged = system_.add("Nuvra Mirn", test::usualFormats(), "again");
  EXPECT_TRUE(manager_->open());
  EXPECT_EQ(manager_->captureDevice(), replugged);
  EXPECT_TRUE(replugged->streaming);
}

// ---- frames

TEST_F(ManagerVideoTest, EveryTextureGetsEveryFrameInAscendingOrder) {
  for (const int64_t id : {int64_t{11}, int64_t{3}, int64_t{7}}) {
    insertTexture(id, MirnTexture::init(), registry_);
  }
  manager_->bindTexture(7);  // stored, filters nothing
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  EXPECT_TRUE(registry_->events().empty());
  queue_.runAll();
  EXPECT_EQ(registry_->events(), (std::vector<std::string>{"frame 3", "frame 7", "frame 11"}));
}

TEST_F(ManagerVideoTest, ATextureMadeBetweenTwoFramesGetsTheSecond) {
  insertTexture(1, MirnTexture::init(), registry_);
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  queue_.runAll();
  insertTexture(2, MirnTexture::init(), registry_);
  device_->push(64, 36);
  queue_.runAll();
  EXPECT_EQ(registry_->events(), (std::vector<std::string>{"frame 1", "frame 1", "frame 2"}));
}

TEST_F(ManagerVideoTest, TexturesStayAfterCloseAndKeepTheLastFrame) {
  const auto texture = MirnTexture::init();
  insertTexture(1, texture, registry_);
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  queue_.runAll();
  manager_->close();
  EXPECT_TRUE(texture->copyPixelBuffer());
  device_->push(64, 36);
  queue_.runAll();
  EXPECT_EQ(registry_->events().size(), 1U);
}

TEST_F(ManagerVideoTest, AFrameStillInTheQueueAtCloseIsNotDelivered) {
  insertTexture(1, MirnTexture::init(), registry_);
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  manager_->close();
  queue_.runAll();
  EXPECT_TRUE(registry_->events().empty());
}

TEST_F(ManagerVideoTest, AfterAQualityChangeNoFrameOfTheOldSizeComes) {
  const auto texture = MirnTexture::init();
  insertTexture(1, texture, registry_);
  ASSERT_TRUE(manager_->open());
  device_->push(1920, 1080);
  quality("720P");
  queue_.runAll();
  EXPECT_TRUE(registry_->events().empty());
  device_->push(1280, 720);
  queue_.runAll();
  EXPECT_EQ(texture->copyPixelBuffer()->width(), 1280U);
}

TEST_F(ManagerVideoTest, ASampleWithoutAPictureKeepsTheFrameBefore) {
  const auto texture = MirnTexture::init();
  insertTexture(1, texture, registry_);
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  queue_.runAll();
  CaptureVideoOutput output;
  manager_->captureOutput(output, {}, {});
  EXPECT_TRUE(texture->copyPixelBuffer());
  EXPECT_EQ(registry_->frames(1), 2) << "the engine is told all the same";
}

TEST_F(ManagerVideoTest, TheManagerMayGoWhileFramesAreComing) {
  ASSERT_TRUE(manager_->open());
  device_->push(64, 36);
  manager_.reset();
  queue_.runAll();
  EXPECT_FALSE(device_->streaming);
}

}  // namespace
}  // namespace mirn
