// What the monitor does with the iterators of its two notifications, and when.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/usb/process_counts.h"
#include "tests/unit/usb/quick_clock.h"
#include "tests/unit/usb/usb_registry_double.h"
#include "usb/usb_monitor.h"

namespace mirn {
namespace {

class IteratorWatch : public UsbRegistryDouble {
 public:
  UsbService iteratorNext(UsbIterator iterator) override {
    const UsbService service = UsbRegistryDouble::iteratorNext(iterator);
    if (service == 0) ++drained;
    return service;
  }
  void release(UsbHandle handle) override {
    const int before = counts().iterators_back;
    UsbRegistryDouble::release(handle);
    if (counts().iterators_back > before) released.emplace_back(handle, counts().ports);
  }

  std::atomic<int> drained{0};
  std::vector<std::pair<UsbHandle, int>> released;  // iterators, and how many ports were alive
};

class UsbIteratorsTest : public testing::Test {
 protected:
  // A deferred stop ends by itself, also behind its monitor's back.
  void TearDown() override { EXPECT_TRUE(threadsFallTo(threads_before_)); }

  const int threads_before_ = runningThreads();
  IteratorWatch registry_;
  ScopedUsbRegistry scoped_registry_{registry_};
  ScopedQuickClock scoped_clock_;
};

TEST_F(UsbIteratorsTest, BothNotificationsAreArmedBeforeTheLoopRuns) {
  std::promise<int> before_loop;
  registry_.at_step = [&](const std::string& step) {
    if (step == "run") before_loop.set_value(registry_.drained);
  };
  USBMonitor monitor;
  monitor.StartMonitoring();
  EXPECT_EQ(before_loop.get_future().get(), 2) << "an iterator that was not drained tells nothing more";
}

TEST_F(UsbIteratorsTest, StoppingGivesThePortBackFirstThenArrivalsThenRemovals) {
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  monitor.StopMonitoring();
  ASSERT_EQ(registry_.released.size(), 2U);
  EXPECT_EQ(registry_.released[0].second, 0);
  EXPECT_LT(registry_.released[0].first, registry_.released[1].first) << "in the order in which they came";
}

}  // namespace
}  // namespace mirn
