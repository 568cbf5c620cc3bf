// Virtual Mirns on this machine's own kernel, for test programs that run as root in a machine made for it.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "virtual/usb/frame_source.h"
#include "virtual/usb/usb_plug.h"
#include "virtual/virtual_mirn.h"
#include "virtual/virtual_setup.h"

namespace mirn {

// Waits for what the kernel is about to do. False when it did not come in time. Most conditions walk over the bus, and
// an emulated machine that does nothing else takes longer for what is waited for.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::milliseconds patience = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// No virtual Mirn on the bus, whatever its identifiers.
inline bool busIsEmpty() {
  for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices")) {
    std::string product;
    std::getline(std::ifstream(entry.path() / "product") >> std::ws, product);
    if (product == kMirnProductName) return false;
  }
  return true;
}

// The HID interface has its driver: enumeration is over. An unplugging in the middle of it costs the kernel the 5 s of
// a control request that nobody answers.
inline bool deviceIsBound() {
  for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/usb/devices")) {
    std::string product;
    std::getline(std::ifstream(entry.path() / "product") >> std::ws, product);
    const std::filesystem::path hid = entry.path() / (entry.path().filename().string() + ":1.2") / "driver";
    if (product == kMirnProductName && !std::filesystem::exists(hid)) return false;
  }
  return !busIsEmpty();
}

// The HID interface can be opened.
inline bool hidThere() {
  hid_device* device = hidFunctions().open(g_vid, g_pid, nullptr);
  if (device == nullptr) return false;
  hidFunctions().close(device);
  return true;
}

// A case that begins with an empty bus: the kernel takes its time to let the device of the case before go.
class KernelTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(waitFor(busIsEmpty)); }
};

// A target computer's picture, until it sleeps.
class SleepyFrames : public FrameSource {
 public:
  explicit SleepyFrames(std::shared_ptr<VirtualTarget> target) : awake_(std::move(target)) {}
  bool nextFrame(TargetFormat format, int width, int height, std::vector<uint8_t>& bytes) override {
    return !asleep_.load() && awake_.nextFrame(format, width, height, bytes);
  }
  void sleep() { asleep_.store(true); }

 private:
  TargetFrames awake_;
  std::atomic<bool> asleep_{false};
};

// One device with a target computer behind it.
class KernelMirn {
 public:
  explicit KernelMirn(VirtualMirnSettings settings = {}, UsbShape shape = {}, std::optional<int> port = {})
      : mirn_(std::make_shared<VirtualMirn>(std::move(settings))),
        target_(std::make_shared<VirtualTarget>()),
        frames_(std::make_shared<SleepyFrames>(target_)),
        binding_(mirn_, target_),
        plug_({shape, port, VhciHost()}, mirn_, frames_) {}

  void plug() {
    std::string detail;
    const VhciError error = plug_.plug(&detail);
    EXPECT_EQ(error, VhciError::kNone) << detail;
  }
  void unplug() { plug_.unplug(); }

  VirtualMirn& mirn() { return *mirn_; }
  VirtualTarget& target() { return *target_; }
  UsbPlug& usb() { return plug_; }
  // From now on no frame is sent any more, as from a computer that sleeps.
  void stopPictures() { frames_->sleep(); }

 private:
  const std::shared_ptr<VirtualMirn> mirn_;
  const std::shared_ptr<VirtualTarget> target_;
  const std::shared_ptr<SleepyFrames> frames_;
  const VirtualBinding binding_;
  UsbPlug plug_;
};

}  // namespace mirn
