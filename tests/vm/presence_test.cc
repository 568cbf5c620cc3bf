// Presence on a real kernel: the scan, the monitor and the manager's query, before, at and after plugging. The same
// cases run with and without a udev daemon.
#include <gtest/gtest.h>

#include <string>

#include "platform/mirn_identity.h"
#include "plugin/mirn_manager.h"
#include "tests/unit/usb/process_counts.h"
#include "tests/vm/kernel_mirn.h"
#include "usb/usb_monitor.h"
#include "usb/usb_scan.h"

namespace mirn {
namespace {

VirtualMirnSettings withSerial(const char* serial) {
  VirtualMirnSettings settings;
  settings.serial = serial;
  return settings;
}

class Presence : public KernelTest {};

TEST_F(Presence, ScanBeforeAtAndAfter) {
  KernelMirn device;
  EXPECT_FALSE(UsbDeviceAttached());
  device.plug();
  EXPECT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  device.unplug();
  EXPECT_TRUE(waitFor([] { return !UsbDeviceAttached(); }));
}

TEST_F(Presence, MonitorFollowsEachPlugging) {
  KernelMirn device;
  USBMonitor monitor;
  monitor.StartMonitoring();
  EXPECT_FALSE(monitor.GetDeviceExist());
  for (int round = 0; round < 3; ++round) {
    device.plug();
    EXPECT_TRUE(waitFor([&] { return monitor.GetDeviceExist(); }));
    EXPECT_TRUE(waitFor(deviceIsBound));
    device.unplug();
    EXPECT_TRUE(waitFor([&] { return !monitor.GetDeviceExist(); }));
  }
}

TEST_F(Presence, MonitorSeesWhatIsThereAlready) {
  KernelMirn device;
  device.plug();
  ASSERT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  USBMonitor monitor;
  monitor.StartMonitoring();
  EXPECT_TRUE(waitFor([&] { return monitor.GetDeviceExist(); }));
  device.unplug();
  EXPECT_TRUE(waitFor([&] { return !monitor.GetDeviceExist(); }));
}

TEST_F(Presence, RemovingOneOfTwoClearsTheFlagThoughTheOtherIsThere) {
  KernelMirn first(withSerial("first"));
  KernelMirn second(withSerial("second"));
  first.plug();
  second.plug();
  ASSERT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  USBMonitor monitor;
  monitor.StartMonitoring();
  ASSERT_TRUE(waitFor([&] { return monitor.GetDeviceExist(); }));
  second.unplug();
  EXPECT_TRUE(waitFor([&] { return !monitor.GetDeviceExist(); }));
  EXPECT_TRUE(UsbDeviceAttached());
}

TEST_F(Presence, AnotherDeviceIsNotAMirn) {
  VirtualMirnSettings settings;
  settings.product_id = g_pid + 1;
  KernelMirn other(settings);
  KernelMirn device;
  USBMonitor monitor;
  monitor.StartMonitoring();
  other.plug();
  device.plug();
  EXPECT_TRUE(waitFor([&] { return monitor.GetDeviceExist(); }));
  EXPECT_TRUE(waitFor(deviceIsBound));
  device.unplug();
  EXPECT_TRUE(waitFor([&] { return !monitor.GetDeviceExist(); }));
  // The other one's removal comes before the Mirn's own arrival: with it the flag would have fallen already.
  monitor.SetDeviceExist(true);
  other.unplug();
  device.plug();
  EXPECT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  EXPECT_TRUE(monitor.GetDeviceExist());
  device.unplug();
  EXPECT_TRUE(waitFor([&] { return !monitor.GetDeviceExist(); }));
}

TEST_F(Presence, ManagerScansOnceAndThenFollowsTheMonitor) {
  KernelMirn device;
  const auto manager = MirnManager::init();
  EXPECT_FALSE(manager->checkDeviceExist());
  device.plug();
  EXPECT_TRUE(waitFor([&] { return manager->checkDeviceExist(); }));
  EXPECT_FALSE(g_bInitUSBListener);
  EXPECT_TRUE(manager->getDeviceExist());
  EXPECT_TRUE(g_bInitUSBListener);
  EXPECT_TRUE(g_bDeviceExist);
  device.unplug();
  EXPECT_TRUE(waitFor([&] { return !manager->getDeviceExist(); }));
  EXPECT_FALSE(g_bDeviceExist);
  device.plug();
  EXPECT_TRUE(waitFor([&] { return manager->getDeviceExist(); }));
}

TEST_F(Presence, StoppedMonitorLeavesNothing) {
  {
    USBMonitor first;
    first.StartMonitoring();
  }
  const int threads = runningThreads();
  const int descriptors = openDescriptors();
  for (int round = 0; round < 4; ++round) {
    USBMonitor monitor;
    monitor.StartMonitoring();
    monitor.StopMonitoring();
  }
  EXPECT_TRUE(threadsFallTo(threads));
  EXPECT_LE(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace mirn
