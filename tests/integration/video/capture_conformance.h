#pragma once

// What every capture system must do: one suite for the virtual source, and for V4L2 on a real kernel. Include it in one
// source file of a test program and instantiate CaptureConformanceTest with functions that set a world up:
//
//   INSTANTIATE_TEST_SUITE_P(Virtual, CaptureConformanceTest, testing::Values(&makeVirtualWorld));
//
// Frames are taken on a work queue; no main loop is needed.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/capture.h"
#include "platform/work_queue.h"

namespace mirn::test {

/// One world with one Mirn in it. Destroyed at the end of each test.
class CaptureWorld {
 public:
  virtual ~CaptureWorld() = default;
  virtual CaptureSystem& system() = 0;
  virtual std::string deviceName() { return "Nuvra Mirn"; }
  /// Longest wait for something that must happen: start-up without frames, slow emulation.
  virtual std::chrono::seconds patience() { return std::chrono::seconds(20); }
  virtual void unplug() = 0;
  /// Returns when the device can be found again.
  virtual void replug() = 0;
};

using MakeCaptureWorld = std::unique_ptr<CaptureWorld> (*)();

/// Takes frames on a work queue and lets a test wait for them.
class FrameWaiter : public SampleBufferDelegate {
 public:
  void captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sample,
                     const CaptureConnection& /*connection*/) override {
    MutexGuard guard(lock_);
    ++count_;
    newest_ = sample;
    sizes_.emplace_back(sample.imageBuffer->width(), sample.imageBuffer->height());
    arrived_.notify_all();
  }

  /// False when `more` frames from now on didn't come within `patience`.
  bool waitForMore(uint64_t more, std::chrono::nanoseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    MutexGuard guard(lock_);
    const uint64_t wanted = count_ + more;
    while (count_ < wanted) {
      if (arrived_.wait_until(lock_, deadline) == std::cv_status::timeout && count_ < wanted) {
        return false;
      }
    }
    return true;
  }
  uint64_t count() {
    MutexGuard guard(lock_);
    return count_;
  }
  SampleBuffer newest() {
    MutexGuard guard(lock_);
    return newest_;
  }
  void forget() {
    MutexGuard guard(lock_);
    sizes_.clear();
    newest_ = {};
  }
  std::vector<std::pair<size_t, size_t>> sizes() {
    MutexGuard guard(lock_);
    return sizes_;
  }

 private:
  Mutex lock_;
  std::condition_variable_any arrived_;
  uint64_t count_ MIRN_GUARDED_BY(lock_) = 0;
  SampleBuffer newest_ MIRN_GUARDED_BY(lock_);
  std::vector<std::pair<size_t, size_t>> sizes_ MIRN_GUARDED_BY(lock_);
};

class CaptureConformanceTest : public testing::TestWithParam<MakeCaptureWorld> {
 protected:
  /// A session with its delegate; destroyed in the right order.
  struct Session {
    FrameWaiter frames;
    WorkQueue queue{"conformance"};
    std::shared_ptr<CaptureVideoOutput> output = std::make_shared<CaptureVideoOutput>();
    CaptureSession session;
    ~Session() {
      session.stopRunning();
      output->setSampleBufferDelegate(nullptr, nullptr);
    }
  };

  std::shared_ptr<CaptureDevice> find() {
    for (const auto& device : world_->system().devicesWithMediaType(MediaType::kVideo)) {
      if (device->localizedName() == world_->deviceName()) {
        return device;
      }
    }
    return nullptr;
  }

  /// Null when the device can't be opened or started; `error` says why.
  std::unique_ptr<Session> open(const std::shared_ptr<CaptureDevice>& device, const CaptureFormatRef& format,
                                CaptureError* error = nullptr) {
    auto made = std::make_unique<Session>();
    auto input = world_->system().createDeviceInput(device, error);
    if (!input) {
      return nullptr;
    }
    made->session.addInput(std::move(input));
    made->output->setSampleBufferDelegate(&made->frames, &made->queue);
    made->session.addOutput(made->output);
    if (format && !choose(device, format, error)) {
      return nullptr;
    }
    return made->session.startRunning(error) ? std::move(made) : nullptr;
  }

  static bool choose(const std::shared_ptr<CaptureDevice>& device, const CaptureFormatRef& format,
                     CaptureError* error = nullptr) {
    if (!device->lockForConfiguration(error)) {
      return false;
    }
    const bool chosen = device->setActiveFormat(format, error);
    device->unlockForConfiguration();
    return chosen;
  }

  static CaptureFormatRef formatOf(const std::shared_ptr<CaptureDevice>& device, FourCharCode pixelFormat,
                                   int32_t width) {
    for (const CaptureFormatRef& format : device->formats()) {
      if (format->pixelFormat == pixelFormat && format->width == width) {
        return format;
      }
    }
    return nullptr;
  }

  /// In which a running stream would deliver again and again, whatever its format.
  static std::chrono::nanoseconds severalFrames(const std::shared_ptr<CaptureDevice>& device) {
    double slowest = 30;
    for (const CaptureFormatRef& format : device->formats()) {
      const double rate = format->interval.framesPerSecond();
      slowest = rate > 0 ? std::min(slowest, rate) : slowest;
    }
    return std::chrono::nanoseconds(static_cast<int64_t>(6e9 / slowest));
  }

  template <typename Condition>
  bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + world_->patience();
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      std::this_thread::yield();
    }
    return true;
  }

  std::unique_ptr<CaptureWorld> world_ = GetParam()();
};

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(CaptureConformanceTest);

TEST_P(CaptureConformanceTest, TheDeviceIsListedUnderItsProductNameWithAnIdentifier) {
  const auto device = find();
  ASSERT_TRUE(device) << "no capture device named " << world_->deviceName();
  EXPECT_FALSE(device->uniqueID().empty());
  EXPECT_FALSE(device->nodeName().empty());
  EXPECT_TRUE(device->isConnected());
  EXPECT_TRUE(device->hasMediaType(MediaType::kVideo));
  EXPECT_FALSE(device->hasMediaType(MediaType::kAudio));
  EXPECT_EQ(find(), device) << "the same device is the same object while somebody holds it";
}

TEST_P(CaptureConformanceTest, FormatsAreGroupedAndRiseInRate) {
  const auto device = find();
  ASSERT_TRUE(device);
  const auto formats = device->formats();
  ASSERT_FALSE(formats.empty());
  EXPECT_EQ(formats, device->formats());
  std::vector<CaptureFormat> plain;
  for (const auto& format : formats) {
    EXPECT_EQ(format->mediaSubtype, captureMediaSubtype(format->pixelFormat));
    EXPECT_NE(format->mediaSubtype, 0U);
    plain.push_back(*format);
  }
  const auto sorted = sortedFormats(plain);
  for (size_t i = 0; i < formats.size(); ++i) {
    EXPECT_EQ(describe(*formats[i]), describe(*sorted[i])) << i;
  }
}

TEST_P(CaptureConformanceTest, EveryFormatDeliversOpaquePicturesOfItsSize) {
  const auto device = find();
  ASSERT_TRUE(device);
  for (const auto& format : device->formats()) {
    SCOPED_TRACE(describe(*format));
    CaptureError error;
    auto session = open(device, format, &error);
    ASSERT_TRUE(session) << error.localizedDescription();
    ASSERT_TRUE(session->frames.waitForMore(2, world_->patience()));
    const SampleBuffer sample = session->frames.newest();
    PixelBuffer& picture = *sample.imageBuffer;
    EXPECT_EQ(picture.width(), static_cast<size_t>(format->width));
    EXPECT_EQ(picture.height(), static_cast<size_t>(format->height));
    EXPECT_EQ(picture.format(), kPixelFormatBGRA);
    EXPECT_GT(sample.info.timestampNs, 0);
    picture.lockBaseAddress(kPixelBufferLockReadOnly);
    ASSERT_NE(picture.baseAddress(), nullptr);
    size_t opaque = 0;
    for (size_t y = 0; y < picture.height(); ++y) {
      for (size_t x = 0; x < picture.width(); ++x) {
        opaque += picture.baseAddress()[y * picture.bytesPerRow() + x * 4 + 3] == 255 ? 1 : 0;
      }
    }
    EXPECT_EQ(opaque, picture.width() * picture.height());
    picture.unlockBaseAddress(kPixelBufferLockReadOnly);
    const CaptureStatistics numbers = session->session.statistics();
    EXPECT_EQ(numbers.pixelFormat, format->pixelFormat);
    EXPECT_EQ(numbers.width, format->width);
    EXPECT_TRUE(numbers.running);
    EXPECT_GE(numbers.newestFrameAgeNs, 0);
  }
}

TEST_P(CaptureConformanceTest, AfterAChangeOfFormatNoOldFrameArrives) {
  const auto device = find();
  ASSERT_TRUE(device);
  const auto formats = device->formats();
  const auto small = *std::min_element(formats.begin(), formats.end(),
                                       [](const auto& a, const auto& b) { return a->width < b->width; });
  const auto large = *std::max_element(formats.begin(), formats.end(),
                                       [](const auto& a, const auto& b) { return a->width < b->width; });
  ASSERT_NE(small->width, large->width);
  auto session = open(device, small);
  ASSERT_TRUE(session);
  for (int round = 0; round < 3; ++round) {
    for (const auto& format : {large, small}) {
      ASSERT_TRUE(session->frames.waitForMore(1, world_->patience()));
      ASSERT_TRUE(choose(device, format));
      session->frames.forget();
      ASSERT_TRUE(session->frames.waitForMore(2, world_->patience()));
      for (const auto& size : session->frames.sizes()) {
        EXPECT_EQ(size.first, static_cast<size_t>(format->width));
        EXPECT_EQ(size.second, static_cast<size_t>(format->height));
      }
    }
  }
}

TEST_P(CaptureConformanceTest, NothingArrivesAfterStopAndItStartsAgain) {
  const auto device = find();
  ASSERT_TRUE(device);
  auto session = open(device, nullptr);
  ASSERT_TRUE(session);
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(session->frames.waitForMore(1, world_->patience()));
    session->session.stopRunning();
    EXPECT_FALSE(session->session.isRunning());
    EXPECT_FALSE(session->frames.waitForMore(1, severalFrames(device))) << "a frame came after the stop";
    ASSERT_TRUE(session->session.startRunning());
  }
}

TEST_P(CaptureConformanceTest, ANewerSessionTakesOver) {
  const auto device = find();
  ASSERT_TRUE(device);
  auto older = open(device, nullptr);
  ASSERT_TRUE(older);
  ASSERT_TRUE(older->frames.waitForMore(1, world_->patience()));
  CaptureError error;
  auto newer = open(device, nullptr, &error);
  ASSERT_TRUE(newer) << error.localizedDescription();
  EXPECT_FALSE(older->session.isRunning());
  const uint64_t count = older->frames.count();
  EXPECT_TRUE(newer->frames.waitForMore(2, world_->patience()));
  EXPECT_EQ(older->frames.count(), count);
  older.reset();
  EXPECT_TRUE(newer->frames.waitForMore(1, world_->patience()));
}

TEST_P(CaptureConformanceTest, OpensAgainAfterEveryClose) {
  for (int round = 0; round < 4; ++round) {
    const auto device = find();
    ASSERT_TRUE(device);
    CaptureError error;
    auto session = open(device, nullptr, &error);
    ASSERT_TRUE(session) << error.localizedDescription();
    ASSERT_TRUE(session->frames.waitForMore(1, world_->patience()));
  }
}

TEST_P(CaptureConformanceTest, TheConfigurationLockCountsAndGuardsTheFormat) {
  const auto device = find();
  ASSERT_TRUE(device);
  const auto format = device->formats().front();
  EXPECT_FALSE(device->setActiveFormat(format));
  ASSERT_TRUE(device->lockForConfiguration());
  ASSERT_TRUE(device->lockForConfiguration());
  EXPECT_FALSE(device->setActiveFormat(nullptr));
  EXPECT_TRUE(device->setActiveFormat(format));
  device->unlockForConfiguration();
  EXPECT_TRUE(device->setActiveFormat(device->formats().back()));
  device->unlockForConfiguration();
  EXPECT_FALSE(device->setActiveFormat(format));
  EXPECT_EQ(device->activeFormat(), device->formats().back());
}

TEST_P(CaptureConformanceTest, ALockHeldElsewhereInTheProcessIsNoObstacle) {
  const auto device = find();
  ASSERT_TRUE(device);
  ASSERT_TRUE(device->lockForConfiguration());
  auto session = open(device, device->formats().front());
  ASSERT_TRUE(session);
  EXPECT_TRUE(session->frames.waitForMore(1, world_->patience()));
  session.reset();
  device->unlockForConfiguration();
}

TEST_P(CaptureConformanceTest, TheHighPresetGivesTheLargestPicture) {
  const auto device = find();
  ASSERT_TRUE(device);
  Session made;
  made.session.addInput(world_->system().createDeviceInput(device, nullptr));
  made.session.setSessionPreset(CaptureSessionPreset::kHigh);
  made.output->setSampleBufferDelegate(&made.frames, &made.queue);
  made.session.addOutput(made.output);
  ASSERT_TRUE(made.session.startRunning());
  const auto expected = highPresetFormat(device->formats());
  EXPECT_EQ(device->activeFormat(), expected);
  ASSERT_TRUE(made.frames.waitForMore(1, world_->patience()));
  EXPECT_EQ(made.frames.newest().imageBuffer->width(), static_cast<size_t>(expected->width));
}

TEST_P(CaptureConformanceTest, EveryFrameIsAccountedFor) {
  const auto device = find();
  ASSERT_TRUE(device);
  auto session = open(device, nullptr);
  ASSERT_TRUE(session);
  ASSERT_TRUE(session->frames.waitForMore(10, world_->patience()));
  session->session.stopRunning();
  const CaptureStatistics numbers = session->session.statistics();
  EXPECT_EQ(numbers.framesDelivered, session->frames.count());
  EXPECT_GE(numbers.framesCaptured, numbers.framesDelivered);
  EXPECT_EQ(numbers.stopCode, 0);
}

TEST_P(CaptureConformanceTest, PullingItOutInTheMiddleEndsTheSessionAndItOpensAgainAfterwards) {
  for (int round = 0; round < 2; ++round) {
    auto device = find();
    ASSERT_TRUE(device);
    auto session = open(device, nullptr);
    ASSERT_TRUE(session);
    ASSERT_TRUE(session->frames.waitForMore(1, world_->patience()));
    world_->unplug();
    ASSERT_TRUE(eventually([&] { return !session->session.isRunning(); }));
    EXPECT_EQ(session->session.statistics().stopCode, ENODEV);
    EXPECT_FALSE(device->lockForConfiguration());
    EXPECT_EQ(find(), nullptr);
    CaptureError error;
    EXPECT_EQ(world_->system().createDeviceInput(device, &error), nullptr);
    EXPECT_EQ(error.code, ENODEV);
    // The old session is still there while the device comes back, as in an application that hasn't noticed yet.
    world_->replug();
    const auto again = find();
    ASSERT_TRUE(again);
    auto next = open(again, nullptr, &error);
    ASSERT_TRUE(next) << error.localizedDescription();
    EXPECT_TRUE(next->frames.waitForMore(1, world_->patience()));
  }
}

TEST_P(CaptureConformanceTest, SeveralThreadsMayListAtOnce) {
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  threads.reserve(3);
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 10; ++i) {
        found += find() != nullptr ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(found, 30);
}

}  // namespace mirn::test
