// What the udev registry makes of a libudev that fails: this program's own versions of some of its calls stand in front
// of the library's.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libudev.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "tests/unit/platform_linux/udev_testbed.h"
#include "tests/unit/usb/quick_clock.h"
#include "usb/usb_monitor.h"
#include "usb/usb_scan.h"

namespace {

enum class Fails { kNothing, kContext, kMonitor, kFilter, kReceiving, kEnumerator, kScan };
std::atomic<Fails> g_fails{Fails::kNothing};

// The next event doesn't arrive, and this is the reason; 0 = every event arrives.
std::atomic<int> g_event_lost{0};
std::atomic<int> g_received{0};  // calls that have asked for an event
std::atomic<int> g_scans{0};

template <typename Function>
Function* next(Function* /*same*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {
udev* udev_new() {
  return g_fails == Fails::kContext ? nullptr : next(udev_new, "udev_new")();
}
udev_monitor* udev_monitor_new_from_netlink(udev* context, const char* name) {
  if (g_fails == Fails::kMonitor) return nullptr;
  return next(udev_monitor_new_from_netlink, "udev_monitor_new_from_netlink")(context, name);
}
int udev_monitor_filter_add_match_subsystem_devtype(udev_monitor* monitor, const char* subsystem, const char* type) {
  if (g_fails == Fails::kFilter) return -ENOMEM;
  return next(udev_monitor_filter_add_match_subsystem_devtype, "udev_monitor_filter_add_match_subsystem_devtype")(
      monitor, subsystem, type);
}
int udev_monitor_enable_receiving(udev_monitor* monitor) {
  if (g_fails == Fails::kReceiving) return -EPERM;
  return next(udev_monitor_enable_receiving, "udev_monitor_enable_receiving")(monitor);
}
udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
  udev_device* device = next(udev_monitor_receive_device, "udev_monitor_receive_device")(monitor);
  ++g_received;
  if (const int reason = g_event_lost.exchange(0); reason != 0) {
    udev_device_unref(device);
    device = nullptr;
    errno = reason;
  }
  return device;
}
udev_enumerate* udev_enumerate_new(udev* context) {
  return g_fails == Fails::kEnumerator ? nullptr : next(udev_enumerate_new, "udev_enumerate_new")(context);
}
int udev_enumerate_scan_devices(udev_enumerate* enumerate) {
  ++g_scans;
  if (g_fails == Fails::kScan) return -EIO;
  return next(udev_enumerate_scan_devices, "udev_enumerate_scan_devices")(enumerate);
}
}

namespace mirn {
namespace {

class UdevFailureTest : public testing::Test {
 protected:
  ~UdevFailureTest() override {
    g_fails = Fails::kNothing;
    g_event_lost = 0;
  }

  Testbed testbed_;
  UdevUsbRegistry registry_;
};

void ignore(void* /*refcon*/, UsbIterator /*iterator*/) {}

TEST_F(UdevFailureTest, WithoutANetlinkSocketThereIsNoPort) {
  for (const Fails step : {Fails::kContext, Fails::kMonitor, Fails::kFilter, Fails::kReceiving}) {
    g_fails = step;
    EXPECT_EQ(registry_.createNotificationPort(), nullptr) << static_cast<int>(step);
  }
  g_fails = Fails::kNothing;
  EXPECT_NE(registry_.createNotificationPort(), nullptr);
}

TEST_F(UdevFailureTest, ARegistrationThatCannotListMakesNoIterator) {
  const auto port = registry_.createNotificationPort();
  ASSERT_NE(port, nullptr);
  UsbIterator iterator = 7;
  for (const Fails step : {Fails::kEnumerator, Fails::kScan}) {
    g_fails = step;
    EXPECT_EQ(registry_.addMatchingNotification(*port, UsbNotification::kMatched,
                                                registry_.createMatching(kUsbDeviceClass), ignore, nullptr, &iterator),
              -EIO);
    EXPECT_EQ(registry_.getMatchingServices(registry_.createMatching(kUsbDeviceClass), &iterator), -EIO);
  }
  g_fails = Fails::kContext;
  EXPECT_EQ(registry_.getMatchingServices(registry_.createMatching(kUsbDeviceClass), &iterator), -ENOMEM);
  EXPECT_EQ(iterator, 7U);
  EXPECT_EQ(registry_.liveHandles(), 0U);
}

TEST_F(UdevFailureTest, ARegistrationWithoutRequestOrCallbackIsRefused) {
  const auto port = registry_.createNotificationPort();
  ASSERT_NE(port, nullptr);
  UsbIterator iterator = 7;
  EXPECT_EQ(registry_.addMatchingNotification(*port, UsbNotification::kTerminate, nullptr, ignore, nullptr, &iterator),
            -EINVAL);
  EXPECT_EQ(registry_.addMatchingNotification(*port, UsbNotification::kTerminate,
                                              registry_.createMatching(kUsbDeviceClass), nullptr, nullptr, &iterator),
            -EINVAL);
  EXPECT_EQ(iterator, 7U);
  EXPECT_EQ(registry_.liveHandles(), 0U);
}

// A removal needs no list of what is there.
TEST_F(UdevFailureTest, ARegistrationForRemovalsNeedsNoListing) {
  const auto port = registry_.createNotificationPort();
  ASSERT_NE(port, nullptr);
  g_fails = Fails::kScan;
  UsbIterator iterator = 0;
  EXPECT_EQ(registry_.addMatchingNotification(*port, UsbNotification::kTerminate,
                                              registry_.createMatching(kUsbDeviceClass), ignore, nullptr, &iterator),
            0);
  registry_.release(iterator);
}

TEST_F(UdevFailureTest, AMonitorThatCannotListenKeepsTheLastAnswer) {
  const ScopedQuickClock quick;
  testbed_.plugMirn("1-1");
  for (const Fails step : {Fails::kMonitor, Fails::kScan}) {
    g_fails = step;
    USBMonitor monitor;
    monitor.SetDeviceExist(true);
    EXPECT_TRUE(monitor.StartMonitoring());
    monitor.StopMonitoring();
    EXPECT_TRUE(monitor.GetDeviceExist());
  }
  EXPECT_FALSE(UsbDeviceAttached()) << "nothing can be listed";
  g_fails = Fails::kNothing;
  EXPECT_TRUE(UsbDeviceAttached());
}

TEST_F(UdevFailureTest, LostEventsStayLostUntilSysfsCanBeRead) {
  testbed_.plug("1-1", g_vid, 1);
  testbed_.plug("1-2", g_vid, 2);
  PortDiary diary(registry_);
  testbed_.vanish("1-1");
  diary.port().eventsWereLost();
  g_fails = Fails::kScan;
  testbed_.plug("1-3", g_vid, 3);
  EXPECT_EQ(diary.upTo("+3"), "+3");
  g_fails = Fails::kNothing;
  testbed_.plug("1-4", g_vid, 4);
  EXPECT_EQ(diary.upTo("-1"), "+4-1") << "the next event is the next chance";
}

TEST_F(UdevFailureTest, WhatTheKernelHadToDropIsMadeGood) {
  testbed_.plug("1-1", g_vid, 1);
  PortDiary diary(registry_);
  g_event_lost = ENOBUFS;
  testbed_.plug("1-2", g_vid, 2);
  EXPECT_EQ(diary.upTo("+2"), "+2") << "sysfs shows it";
  g_event_lost = ENOBUFS;
  testbed_.unplug("1-1");
  EXPECT_EQ(diary.upTo("-1"), "-1");
}

// A message that is no event, say: nobody was silenced.
TEST_F(UdevFailureTest, NoOtherFailureToReceiveIsALoss) {
  PortDiary diary(registry_);
  const int scans = g_scans;
  unsigned product = 0;
  for (const int reason : {EAGAIN, EINVAL, EIO}) {
    g_event_lost = reason;
    for (int plugs = 0; plugs < 2; ++plugs) {
      ++product;
      testbed_.plug("1-" + std::to_string(product), g_vid, product);
    }
    const std::string second = "+" + std::to_string(product);
    EXPECT_EQ(diary.upTo(second), second) << reason;
  }
  EXPECT_EQ(g_scans, scans);
}

// The flag tells the last event, not who is there: a loss in which the other Mirn had no part changes nothing.
TEST_F(UdevFailureTest, ALossAmongOthersLeavesTheFlagOfTwoMirnsAsItIs) {
  const ScopedQuickClock quick;
  testbed_.plugMirn("1-1");
  testbed_.plugMirn("1-2");
  USBMonitor monitor;
  monitor.StartMonitoring();
  ASSERT_TRUE(comesTrue([&] { return monitor.GetDeviceExist(); }));
  testbed_.unplug("1-1");
  ASSERT_TRUE(comesTrue([&] { return !monitor.GetDeviceExist(); }));
  const int scans = g_scans;
  g_event_lost = ENOBUFS;
  testbed_.plug("1-3", 0x0bda, 0x0129);
  ASSERT_TRUE(comesTrue([&] { return g_scans > scans; })) << "the loss is made good";
  const int received = g_received;
  testbed_.plug("1-4", 0x0bda, 0x0129);
  ASSERT_TRUE(comesTrue([&] { return g_received > received; })) << "and all of that is told by now";
  EXPECT_FALSE(monitor.GetDeviceExist());
}

}  // namespace
}  // namespace mirn
