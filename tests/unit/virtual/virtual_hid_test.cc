#include "virtual/virtual_hid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/clock.h"
#include "tests/unit/virtual/mirn_driver.h"
#include "virtual/virtual_clock.h"

namespace mirn {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

class VirtualHidTest : public ::testing::Test {
 protected:
  static Bytes request(uint8_t command, const Bytes& payload = {}) {
    Bytes report = MirnDriver::frame(command, payload);
    report.insert(report.begin(), 0);
    return report;
  }

  hid_device* open(unsigned short vendor = g_vid, const wchar_t* serial = nullptr) {
    return hid_.open(vendor, g_pid, serial);
  }
  int write(hid_device* device, const Bytes& report) { return hid_.write(device, report.data(), report.size()); }
  int read(hid_device* device, int milliseconds) {
    return hid_.read_timeout(device, buffer_.data(), buffer_.size(), milliseconds);
  }

  ScopedVirtualClock clock_;
  std::shared_ptr<VirtualMirn> first_ =
      std::make_shared<VirtualMirn>(VirtualMirnSettings{.serial = "one", .topology = "virtual-1"});
  std::shared_ptr<VirtualMirn> second_ =
      std::make_shared<VirtualMirn>(VirtualMirnSettings{.serial = "two", .topology = "virtual-2"});
  ScopedVirtualHid scoped_{{first_, second_}};
  const HidFunctions& hid_ = hidFunctions();
  std::array<uint8_t, 65> buffer_{};
};

TEST_F(VirtualHidTest, IsInstalledForItsScopeOnly) {
  EXPECT_EQ(&hidFunctions(), &VirtualHid::functions());
  { const ScopedVirtualHid other({}); }
  EXPECT_EQ(&hidFunctions(), &defaultHidFunctions());
}

TEST_F(VirtualHidTest, InitIsCounted) {
  const uint64_t before = VirtualHid::instance().initCalls();
  EXPECT_EQ(hid_.init(), 0);
  EXPECT_EQ(VirtualHid::instance().initCalls(), before + 1);
}

TEST_F(VirtualHidTest, OpensTheFirstThatFits) {
  hid_device* const any = open();
  EXPECT_EQ(hid_.topology(any), "virtual-1");
  hid_device* const two = open(g_vid, L"two");
  EXPECT_EQ(hid_.topology(two), "virtual-2");
  EXPECT_EQ(open(g_vid, L"three"), nullptr);
  EXPECT_EQ(open(g_vid, L"tw"), nullptr);
  EXPECT_EQ(open(0x4242), nullptr);
  EXPECT_EQ(hid_.open(g_vid, 0x4242, nullptr), nullptr);
  first_->unplug();
  hid_device* const next = open();
  EXPECT_EQ(hid_.topology(next), "virtual-2");
  EXPECT_EQ(VirtualHid::instance().openHandles(), 3U);
  for (hid_device* const device : {any, two, next}) {
    hid_.close(device);
  }
  EXPECT_EQ(VirtualHid::instance().openHandles(), 0U);
}

TEST_F(VirtualHidTest, AnExchange) {
  hid_device* const device = open();
  const Bytes report = request(9);
  EXPECT_EQ(write(device, report), static_cast<int>(report.size()));
  const auto start = clock().now();
  EXPECT_EQ(read(device, 1000), 64);
  EXPECT_EQ(buffer_[0], 0xAA);
  EXPECT_GT(clock().now(), start) << "the answer took its time";
  EXPECT_LT(clock().now(), start + 10ms);
  EXPECT_EQ(first_->counters().stray_bytes, 0U) << "the report number stays behind";
  hid_.close(device);
}

TEST_F(VirtualHidTest, ATimeOutReturnsZeroAtItsEnd) {
  hid_device* const device = open();
  const auto start = clock().now();
  EXPECT_EQ(read(device, 250), 0);
  EXPECT_EQ(clock().now() - start, 250ms);
  EXPECT_EQ(read(device, 0), 0);
  EXPECT_EQ(clock().now() - start, 250ms);
  hid_.close(device);
}

TEST_F(VirtualHidTest, AnAnswerThatIsDueLaterIsReadLater) {
  first_->setLatency(300ms, 0ms);
  hid_device* const device = open();
  write(device, request(9));
  EXPECT_EQ(read(device, 100), 0);
  EXPECT_EQ(read(device, 100), 0);
  EXPECT_EQ(read(device, 200), 64);
  hid_.close(device);
}

TEST_F(VirtualHidTest, ReadingForEverWaitsForTheAnswer) {
  hid_device* const device = open();
  write(device, request(9));
  EXPECT_EQ(read(device, -1), 64);
  hid_.close(device);
}

TEST_F(VirtualHidTest, AShortBufferGetsTheReportsBeginning) {
  hid_device* const device = open();
  write(device, request(9));
  EXPECT_EQ(hid_.read_timeout(device, buffer_.data(), 3, 100), 3);
  EXPECT_EQ(buffer_[3], 0);
  hid_.close(device);
}

TEST_F(VirtualHidTest, EveryHandleGetsEveryReport) {
  hid_device* const a = open();
  hid_device* const b = open();
  write(b, request(9));
  for (hid_device* const device : {a, b}) {
    EXPECT_EQ(read(device, 100), 64);
    EXPECT_EQ(read(device, 100), 0);
    hid_.close(device);
  }
}

// The device answers when it answers, whoever listens then.
TEST_F(VirtualHidTest, ALateAnswerReachesAHandleThatIsOpenByThen) {
  first_->setLatency(300ms, 0ms);
  hid_device* const a = open();
  write(a, request(9));
  EXPECT_EQ(read(a, 100), 0);
  hid_.close(a);
  hid_device* const b = open();
  EXPECT_EQ(read(b, 100), 0);
  EXPECT_EQ(read(b, 200), 64) << "the answer to the one before";
  EXPECT_EQ(read(b, 1000), 0);
  hid_.close(b);
}

// As the kernel does when nobody had the device open.
TEST_F(VirtualHidTest, TheFirstOpeningDropsWhatComesWithin50Milliseconds) {
  for (int warm_up = 0; warm_up < 3; ++warm_up) {  // the first three answers take longer
    first_->hostWrite(MirnDriver::frame(9, {}), clock().now());
  }
  clock_.get().sleepFor(1s);
  for (const auto& [latency, expected] : {std::pair(50ms, 0), std::pair(51ms, 64)}) {
    first_->setLatency(latency, 0ms);
    hid_device* const a = open();
    write(a, request(9));
    hid_device* const beside = open();
    EXPECT_EQ(read(beside, 100), 64) << "not the first";
    write(a, request(9));
    hid_.close(a);
    hid_.close(beside);
    hid_device* const b = open();
    EXPECT_EQ(read(b, 100), expected) << latency.count();
    hid_.close(b);
  }
}

TEST_F(VirtualHidTest, AHandleStartsEmptyOnceTheAnswerWasThere) {
  first_->setLatency(300ms, 0ms);
  hid_device* const a = open();
  write(a, request(9));
  clock_.get().sleepFor(400ms);
  hid_device* const b = open();
  EXPECT_EQ(read(b, 1000), 0);
  EXPECT_EQ(read(a, 0), 64);
  hid_.close(a);
  hid_.close(b);
}

TEST_F(VirtualHidTest, WhatWasToComeIsGoneWithThePlugging) {
  first_->setLatency(300ms, 0ms);
  hid_device* const a = open();
  write(a, request(9));
  first_->unplug();
  first_->plug();
  hid_device* const b = open();
  EXPECT_EQ(read(b, 1000), 0);
  hid_.close(a);
  hid_.close(b);
}

TEST_F(VirtualHidTest, AHandleDoesNotGetWhatTheDeviceSaidBefore) {
  first_->hostWrite(MirnDriver::frame(9, {}), clock().now());
  clock_.get().sleepFor(1s);
  hid_device* const device = open();
  EXPECT_EQ(read(device, 100), 0);
  hid_.close(device);
}

TEST_F(VirtualHidTest, AHandleKeeps63UnreadReportsAndDropsTheNewest) {
  hid_device* const device = open();
  for (int i = 0; i < 100; ++i) {
    write(device, request(5, {static_cast<uint8_t>(i)}));
    write(device, request(6, {0}));
  }
  clock_.get().sleepFor(1s);  // all of them are there
  int unread = 0;
  Bytes led;
  while (read(device, 100) == 64) {
    if (++unread % 2 == 0) {
      led.push_back(buffer_[8]);
    }
  }
  EXPECT_EQ(unread, 63);
  EXPECT_EQ(led.front(), 0);
  EXPECT_EQ(led.back(), 30);
  hid_.close(device);
}

TEST_F(VirtualHidTest, AnUnpluggedHandleIsDeadForEver) {
  hid_device* const device = open();
  write(device, request(9));
  first_->unplug();
  EXPECT_EQ(read(device, 1000), -1);
  EXPECT_EQ(write(device, request(9)), -1);
  first_->plug();
  EXPECT_EQ(read(device, 1000), -1);
  EXPECT_EQ(write(device, request(9)), -1);
  hid_device* const fresh = open();
  EXPECT_EQ(write(fresh, request(9)), static_cast<int>(request(9).size()));
  EXPECT_EQ(read(fresh, 1000), 64);
  hid_.close(device);
  hid_.close(fresh);
}

TEST_F(VirtualHidTest, FaultsOfTheLinkShowAsResults) {
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("write-error@1 read-error@2 unplug@4", &plan, &error));
  first_->setFaultPlan(plan);
  hid_device* const device = open();
  EXPECT_EQ(write(device, request(9)), -1);
  EXPECT_GT(write(device, request(9)), 0);
  EXPECT_EQ(read(device, 100), -1);
  EXPECT_GT(write(device, request(9)), 0);
  EXPECT_EQ(read(device, 100), 64);
  EXPECT_EQ(write(device, request(9)), -1);
  EXPECT_EQ(read(device, 100), -1);
  hid_.close(device);
}

TEST_F(VirtualHidTest, HandlesThatDoNotExistAreRefused) {
  hid_device* const device = open();
  hid_.close(device);
  hid_.close(device);
  EXPECT_EQ(write(device, request(9)), -1);
  EXPECT_EQ(read(device, 10), -1);
  EXPECT_EQ(hid_.topology(device), "");
  EXPECT_EQ(write(nullptr, request(9)), -1);
}

TEST_F(VirtualHidTest, AWriteOfNothingIsRefused) {
  hid_device* const device = open();
  EXPECT_EQ(hid_.write(device, buffer_.data(), 0), -1);
  EXPECT_EQ(hid_.write(device, nullptr, 5), -1);
  EXPECT_EQ(hid_.write(device, buffer_.data(), 1), 1) << "a report number alone";
  hid_.close(device);
}

TEST_F(VirtualHidTest, RemovingADeviceUnplugsIt) {
  hid_device* const device = open();
  VirtualHid::instance().remove(first_);
  VirtualHid::instance().remove(first_);
  EXPECT_FALSE(first_->plugged());
  EXPECT_EQ(read(device, 10), -1);
  EXPECT_EQ(VirtualHid::instance().devices().size(), 1U);
  hid_.close(device);
}

// ---- on the machine's clock ----

class VirtualHidRealTime : public ::testing::Test {
 protected:
  std::shared_ptr<VirtualMirn> mirn_ = std::make_shared<VirtualMirn>();
  ScopedVirtualHid scoped_{{mirn_}};
  const HidFunctions& hid_ = hidFunctions();
};

TEST_F(VirtualHidRealTime, AnAnswerWakesAReaderInAnotherThread) {
  hid_device* const device = hid_.open(g_vid, g_pid, nullptr);
  std::atomic<int> result{-2};
  std::thread reader([&] {
    uint8_t buffer[65] = {};
    result = hid_.read_timeout(device, buffer, sizeof(buffer), 60000);
  });
  Bytes report = MirnDriver::frame(9, {});
  report.insert(report.begin(), 0);
  EXPECT_GT(hid_.write(device, report.data(), report.size()), 0);
  reader.join();
  EXPECT_EQ(result, 64);
  hid_.close(device);
}

TEST_F(VirtualHidRealTime, UnpluggingWakesAReaderInAnotherThread) {
  hid_device* const device = hid_.open(g_vid, g_pid, nullptr);
  for (const int milliseconds : {60000, -1}) {
    std::atomic<int> result{-2};
    hid_device* const handle = hid_.open(g_vid, g_pid, nullptr);
    std::thread reader([&] {
      uint8_t buffer[65] = {};
      result = hid_.read_timeout(handle, buffer, sizeof(buffer), milliseconds);
    });
    mirn_->unplug();
    reader.join();
    EXPECT_EQ(result, -1);
    mirn_->plug();
    hid_.close(handle);
  }
  hid_.close(device);
}

}  // namespace
}  // namespace mirn
