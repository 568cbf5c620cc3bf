// The udev registry, and the monitor on top of it, on mocked devices: sysfs and the kernel's event socket are those of
// a testbed that this process runs in (main() below starts it again with the mock library in front).
#include "platform/linux/udev_usb_registry.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/platform_linux/udev_testbed.h"
#include "tests/unit/usb/process_counts.h"
#include "tests/unit/usb/quick_clock.h"
#include "usb/usb_monitor.h"
#include "usb/usb_scan.h"

namespace mirn {
namespace {

#ifdef MIRN_SANITIZED
constexpr int kFlaps = 200;
constexpr int kQuickRounds = 100;
constexpr int kRealRounds = 5;
#else
constexpr int kFlaps = 1000;
constexpr int kQuickRounds = 1000;
constexpr int kRealRounds = 50;
#endif

class UdevRegistryTest : public testing::Test {
 protected:
  // An event that the monitor is known to see: when it has come, everything before it has.
  void barrier(const USBMonitor& monitor, bool exist) {
    EXPECT_TRUE(comesTrue([&] { return monitor.GetDeviceExist() == exist; })) << "expected " << exist;
  }

  size_t liveHandles() { return static_cast<UdevUsbRegistry&>(defaultUsbRegistry()).liveHandles(); }

  Testbed testbed_;
};

TEST_F(UdevRegistryTest, ScanFindsTheDeviceByItsIdentifiers) {
  EXPECT_FALSE(UsbDeviceAttached());
  testbed_.plug("1-1", 0x0bda, 0x0129);
  testbed_.plugInterface("1-2:1.0");
  testbed_.plugWithoutIdentifiers("1-3");
  EXPECT_FALSE(UsbDeviceAttached());
  testbed_.plugMirn("1-4");
  EXPECT_TRUE(UsbDeviceAttached());
  testbed_.unplug("1-4");
  EXPECT_FALSE(UsbDeviceAttached());
  EXPECT_EQ(liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, IdentifiersComeFromSysfsWhereThereIsNoProductProperty) {
  testbed_.plugWithAttributesOnly("1-1");
  EXPECT_TRUE(UsbDeviceAttached());
}

TEST_F(UdevRegistryTest, OnlyWholeDevicesAreListed) {
  testbed_.plugInterface("1-1:1.0");
  testbed_.plugMirn("1-1");
  UsbRegistry& registry = defaultUsbRegistry();
  UsbIterator iterator = 0;
  ASSERT_EQ(registry.getMatchingServices(registry.createMatching(kUsbDeviceClass), &iterator), 0);
  const UsbService service = registry.iteratorNext(iterator);
  ASSERT_NE(service, 0U);
  const auto properties = registry.createProperties(service);
  ASSERT_NE(properties, nullptr);
  UsbValue value;
  EXPECT_TRUE(properties->valueIfPresent(kUsbVendorKey, &value));
  EXPECT_EQ(std::get<int64_t>(value), g_vid);
  EXPECT_TRUE(properties->valueIfPresent(kUsbProductKey, &value));
  EXPECT_EQ(std::get<int64_t>(value), g_pid);
  EXPECT_FALSE(properties->valueIfPresent("serial", &value));
  EXPECT_EQ(registry.iteratorNext(iterator), 0U);
  EXPECT_EQ(registry.createProperties(iterator), nullptr) << "an iterator is no entry";
  EXPECT_EQ(registry.iteratorNext(service), 0U) << "an entry is no iterator";
  registry.release(service);
  EXPECT_EQ(registry.createProperties(service), nullptr);
  registry.release(iterator);
  EXPECT_EQ(registry.iteratorNext(iterator), 0U);
  EXPECT_EQ(liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, NoOtherClassCanBeMatched) {
  EXPECT_EQ(defaultUsbRegistry().createMatching("IOHIDDevice"), nullptr);
  EXPECT_EQ(defaultUsbRegistry().createMatching(nullptr), nullptr);
  UsbIterator iterator = 7;
  EXPECT_NE(defaultUsbRegistry().getMatchingServices(nullptr, &iterator), 0);
  EXPECT_EQ(iterator, 7U);
}

TEST_F(UdevRegistryTest, DevicePresentAtTheStartIsSeen) {
  testbed_.plug("1-1", 0x0bda, 0x0129);
  testbed_.plugMirn("1-2");
  USBMonitor monitor;
  monitor.StartMonitoring();
  barrier(monitor, true);
}

TEST_F(UdevRegistryTest, AddAndRemoveAreSeen) {
  const ScopedQuickClock quick;
  USBMonitor monitor;
  monitor.StartMonitoring();
  for (int round = 0; round < 20; ++round) {
    testbed_.plugMirn("1-1");
    barrier(monitor, true);
    testbed_.unplug("1-1");
    barrier(monitor, false);
  }
  monitor.StopMonitoring();
  EXPECT_EQ(liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, BindUnbindAndChangeDoNotCount) {
  testbed_.plug("1-1", g_vid, 1);
  UdevUsbRegistry registry;
  PortDiary diary(registry);
  for (const char* action : {"bind", "unbind", "change", "move", "online", "offline"}) testbed_.event("1-1", action);
  testbed_.unplug("1-1");
  EXPECT_EQ(diary.upTo("-1"), "-1");
}

TEST_F(UdevRegistryTest, LostEventsAreMadeGoodFromSysfs) {
  testbed_.plug("1-1", g_vid, 1);
  testbed_.plug("1-2", g_vid, 2);
  UdevUsbRegistry registry;
  PortDiary diary(registry);
  testbed_.plug("1-3", g_vid, 3);
  EXPECT_EQ(diary.upTo("+3"), "+3");
  // Two go without a word; what still waits in the socket is told first.
  testbed_.vanish("1-1");
  testbed_.vanish("1-3");
  testbed_.plug("1-4", g_vid, 4);
  diary.port().eventsWereLost();
  EXPECT_EQ(diary.upTo("-3"), "+4-1-3") << "the device that was there all along is no news";
  // And from then on as before.
  testbed_.unplug("1-2");
  EXPECT_EQ(diary.upTo("-2"), "-2");
}

// Unplugged and something else plugged in, while nothing was heard: the same place, another device.
TEST_F(UdevRegistryTest, AnotherDeviceOnTheSamePortIsARemovalToo) {
  testbed_.plug("1-1", g_vid, 1);
  testbed_.plug("1-2", g_vid, 2);
  UdevUsbRegistry registry;
  PortDiary diary(registry);
  testbed_.exchange("1-1", g_vid, 3);
  diary.port().eventsWereLost();
  testbed_.event("1-2", "change");
  EXPECT_EQ(diary.upTo("+3"), "-1+3") << "removals before arrivals, and nothing about the device that is still there";
}

TEST_F(UdevRegistryTest, RemovingOneOfTwoClearsTheFlag) {
  const ScopedQuickClock quick;
  testbed_.plugMirn("1-1");
  testbed_.plugMirn("1-2");
  USBMonitor monitor;
  monitor.StartMonitoring();
  barrier(monitor, true);
  testbed_.unplug("1-1");
  barrier(monitor, false);
  testbed_.plugMirn("1-1");
  barrier(monitor, true);
}

TEST_F(UdevRegistryTest, DevicesWithoutOrWithLargeIdentifiersNeverCount) {
  const ScopedQuickClock quick;
  USBMonitor monitor;
  monitor.StartMonitoring();
  testbed_.plugWithoutIdentifiers("1-1");
  testbed_.plug("1-2", g_vid | 0x8000U, g_pid);
  testbed_.plug("1-3", 0xffff, 0xffff);
  testbed_.plugInterface("1-4:1.0");
  testbed_.plugMirn("1-5");
  barrier(monitor, true);
  testbed_.unplug("1-5");
  barrier(monitor, false);
  monitor.SetDeviceExist(true);
  testbed_.unplug("1-1");
  testbed_.unplug("1-2");
  testbed_.unplug("1-3");
  testbed_.unplug("1-4:1.0");
  testbed_.plugMirn("1-6");
  testbed_.event("1-6", "remove");
  barrier(monitor, false);
}

TEST_F(UdevRegistryTest, RemovalBetweenTheWalkAndTheLoopIsNotLost) {
  const ScopedQuickClock quick;
  testbed_.plugMirn("1-1");
  UdevUsbRegistry registry;
  const auto port = registry.createNotificationPort();
  ASSERT_NE(port, nullptr);
  const auto loop = registry.currentRunLoop();
  loop->addSource(*port->runLoopSource());
  struct Refcon {
    UdevUsbRegistry& registry;
    UsbRunLoop& loop;
    std::string order;
  } refcon{registry, *loop, ""};
  UsbIterator added = 0;
  UsbIterator removed = 0;
  ASSERT_EQ(registry.addMatchingNotification(
                *port, UsbNotification::kMatched, registry.createMatching(kUsbDeviceClass),
                [](void* self, UsbIterator iterator) {
                  auto* context = static_cast<Refcon*>(self);
                  context->order += "+";
                  while (const UsbService service = context->registry.iteratorNext(iterator))
                    context->registry.release(service);
                  context->loop.stop();
                },
                &refcon, &added),
            0);
  testbed_.unplug("1-1");
  testbed_.plugMirn("1-2");
  ASSERT_EQ(registry.addMatchingNotification(
                *port, UsbNotification::kTerminate, registry.createMatching(kUsbDeviceClass),
                [](void* self, UsbIterator iterator) {
                  auto* context = static_cast<Refcon*>(self);
                  context->order += "-";
                  while (const UsbService service = context->registry.iteratorNext(iterator))
                    context->registry.release(service);
                },
                &refcon, &removed),
            0);
  loop->run();
  EXPECT_EQ(refcon.order, "-+");
  registry.release(added);
  registry.release(removed);
  EXPECT_EQ(registry.liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, StopBeforeRunIsNotLost) {
  UdevUsbRegistry registry;
  const auto loop = registry.currentRunLoop();
  loop->stop();
  loop->run();
}

// The testbed's socket holds about ten events and then refuses more, so no more than nine are ever on their way: a
// burst may be waited for one event early at worst.
constexpr int kBurst = 5;

TEST_F(UdevRegistryTest, LastEventWinsWhileFlapping) {
  const ScopedQuickClock quick;
  USBMonitor monitor;
  monitor.StartMonitoring();
  testbed_.plugMirn("1-1");
  barrier(monitor, true);
  bool exist = true;
  for (int event = 0; event < 2 * kFlaps; ++event) {
    exist = !exist;
    testbed_.event("1-1", exist ? "add" : "remove");
    if (event % kBurst == 0) barrier(monitor, exist);
  }
  barrier(monitor, exist);
  testbed_.event("1-1", "remove");
  barrier(monitor, false);
  testbed_.event("1-1", "add");
  barrier(monitor, true);
  monitor.StopMonitoring();
  EXPECT_TRUE(monitor.GetDeviceExist());
  EXPECT_EQ(liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, LastEventWinsAlsoWhileTheMonitorStarts) {
  const ScopedQuickClock quick;
  for (int round = 0; round < 50; ++round) {
    const bool ends_attached = round % 2 != 0;
    USBMonitor monitor;
    std::thread flapper([&] {
      testbed_.plugMirn("1-1");
      testbed_.unplug("1-1");
      testbed_.plugMirn("1-1");
      if (!ends_attached) testbed_.unplug("1-1");
    });
    monitor.StartMonitoring();
    flapper.join();
    barrier(monitor, ends_attached);
    // A flag that is right by chance in mid-flight would fall back now: the second device's event comes last.
    testbed_.plugMirn("1-2");
    barrier(monitor, true);
    testbed_.unplug("1-2");
    barrier(monitor, false);
    monitor.StopMonitoring();
    // The mock library forgets a listener that has gone when it sends the next event. If it still knew it when the next
    // one comes, it could take the new one's opening for a fault of the test and end the process.
    if (!ends_attached) testbed_.plugMirn("1-1");
    testbed_.unplug("1-1");
  }
  EXPECT_EQ(liveHandles(), 0U);
}

void startAndStop(int rounds) {
  const int threads = runningThreads();
  USBMonitor monitor;
  monitor.StartMonitoring();  // the first start may load what stays open
  monitor.StopMonitoring();
  const int descriptors = openDescriptors();
  for (int round = 0; round < rounds; ++round) {
    ASSERT_TRUE(monitor.StartMonitoring());
    monitor.StopMonitoring();
    // The detached stopping thread may hold the loop, and so its wake-up descriptor, a moment longer than the join.
    ASSERT_TRUE(descriptorsFallTo(descriptors));
  }
  EXPECT_TRUE(threadsFallTo(threads)) << runningThreads() << " threads run, " << threads << " before";
}

TEST_F(UdevRegistryTest, StartAndStopLeaveNothingWithRealWaits) {
  testbed_.plugMirn("1-1");
  startAndStop(kRealRounds);
  EXPECT_EQ(liveHandles(), 0U);
}

TEST_F(UdevRegistryTest, StartAndStopLeaveNothingWithoutWaits) {
  const ScopedQuickClock quick;
  testbed_.plugMirn("1-1");
  startAndStop(kQuickRounds);
  EXPECT_EQ(liveHandles(), 0U);
}

}  // namespace
}  // namespace mirn

#if defined(MIRN_SANITIZED_THREAD)
// The testbed and GLib aren't instrumented: what they do on their own worker threads can't be judged.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {  // NOLINT
  return "ignore_noninstrumented_modules=1";
}
#endif

int main(int argc, char** argv) {
  // The loader itself says so on standard error when the library is missing; the testbed then ends the program.
  if (std::getenv("MIRN_UMOCKDEV_STARTED") == nullptr) {
    setenv("MIRN_UMOCKDEV_STARTED", "1", 1);
    setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
    // The address sanitizer wants to be first; the mock library replaces only calls that it doesn't mind.
    const char* options = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0").c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    return 1;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
