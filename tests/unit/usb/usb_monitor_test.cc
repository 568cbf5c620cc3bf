#include "usb/usb_monitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "platform/mirn_identity.h"
#include "tests/support/no_more_threads.h"
#include "tests/unit/usb/process_counts.h"
#include "tests/unit/usb/quick_clock.h"
#include "tests/unit/usb/usb_registry_double.h"

namespace mirn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::NoMoreThreads;

const FakeUsbDevice kMirn = fakeDevice(g_vid, g_pid);
const FakeUsbDevice kOther = fakeDevice(0x0bda, 0x0129);

class UsbMonitorTest : public testing::Test {
 protected:
  void SetUp() override { quickClock().sleeps.store(0); }
  // A deferred stop ends by itself, also behind its monitor's back.
  void TearDown() override { EXPECT_TRUE(threadsFallTo(threads_before_)); }

  // Runs `action` and returns what it wrote to the two standard streams.
  template <typename Action>
  std::pair<std::string, std::string> streamsOf(Action action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    return {testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }

  const int threads_before_ = runningThreads();
  UsbRegistryDouble registry_;
  ScopedUsbRegistry scoped_registry_{registry_};
  ScopedQuickClock scoped_clock_;
};

TEST_F(UsbMonitorTest, FlagStartsFalseAndIsTheOwnersToSeed) {
  USBMonitor monitor;
  EXPECT_FALSE(monitor.GetDeviceExist());
  monitor.SetDeviceExist(true);
  EXPECT_TRUE(monitor.GetDeviceExist());
}

TEST_F(UsbMonitorTest, ProcessFlagsStartFalse) {
  EXPECT_FALSE(g_bDeviceExist);
  EXPECT_FALSE(g_bInitUSBListener);
}

TEST_F(UsbMonitorTest, DeviceAttachedAtStartIsSeenBeforeTheLoopRuns) {
  registry_.attachQuietly(kOther);
  registry_.attachQuietly(kMirn);
  registry_.attachQuietly(kOther);
  USBMonitor monitor;
  std::promise<bool> before_loop;
  registry_.at_step = [&](const std::string& step) {
    if (step == "run") before_loop.set_value(monitor.GetDeviceExist());
  };
  EXPECT_TRUE(monitor.StartMonitoring());
  EXPECT_TRUE(before_loop.get_future().get());
  monitor.StopMonitoring();
  EXPECT_TRUE(monitor.GetDeviceExist());
  EXPECT_EQ(registry_.counts().services_out, 3);
  EXPECT_TRUE(registry_.allGivenBack());
}

TEST_F(UsbMonitorTest, MatchesByClassOnly) {
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  EXPECT_EQ(registry_.classes(), (std::vector<std::string>{"IOUSBDevice", "IOUSBDevice"}));
}

TEST_F(UsbMonitorTest, ArrivalSetsAndRemovalClears) {
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  EXPECT_FALSE(monitor.GetDeviceExist());
  registry_.arrive(kMirn);
  registry_.settle();
  EXPECT_TRUE(monitor.GetDeviceExist());
  registry_.depart(kMirn);
  registry_.settle();
  EXPECT_FALSE(monitor.GetDeviceExist());
}

TEST_F(UsbMonitorTest, SeedStaysTrueUntilARemovalOfAMatchingDevice) {
  USBMonitor monitor;
  monitor.SetDeviceExist(true);
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  EXPECT_TRUE(monitor.GetDeviceExist()) << "the walk over the attached devices never stores false";
  registry_.depart(kOther);
  registry_.settle();
  EXPECT_TRUE(monitor.GetDeviceExist());
  registry_.depart(kMirn);
  registry_.settle();
  EXPECT_FALSE(monitor.GetDeviceExist());
}

TEST_F(UsbMonitorTest, RemovingOneOfTwoDevicesClearsTheFlag) {
  registry_.attachQuietly(kMirn);
  registry_.attachQuietly(kMirn);
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  EXPECT_TRUE(monitor.GetDeviceExist());
  registry_.depart(kMirn);
  registry_.settle();
  EXPECT_FALSE(monitor.GetDeviceExist());
}

TEST_F(UsbMonitorTest, OtherDevicesNeverChangeTheFlagAndAreGivenBack) {
  USBMonitor monitor;
  monitor.SetDeviceExist(true);
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  const FakeUsbDevice half[] = {fakeDevice(g_vid, g_pid + 1), fakeDevice(g_vid + 1, g_pid), kOther};
  for (const FakeUsbDevice& device : half) {
    registry_.depart(device);
    registry_.settle();
    EXPECT_TRUE(monitor.GetDeviceExist());
  }
  monitor.SetDeviceExist(false);
  for (const FakeUsbDevice& device : half) {
    registry_.arrive(device);
    registry_.settle();
    EXPECT_FALSE(monitor.GetDeviceExist());
  }
  monitor.StopMonitoring();
  EXPECT_EQ(registry_.counts().services_out, 6);
  EXPECT_TRUE(registry_.allGivenBack());
}

TEST_F(UsbMonitorTest, DevicesThatCannotBeReadNeitherSetNorClear) {
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  FakeUsbDevice unreadable = kMirn;
  unreadable.readable = false;
  const FakeUsbDevice strange[] = {
      unreadable,
      {std::nullopt, UsbValue(int64_t{g_pid})},
      {UsbValue(int64_t{g_vid}), std::nullopt},
      {UsbValue(std::string("1209")), UsbValue(int64_t{g_pid})},
      {UsbValue(int64_t{g_vid}), UsbValue(std::string("1"))},
      fakeDevice(0x8000, g_pid),
      fakeDevice(g_vid, 0xffff),
      fakeDevice(g_vid + 0x10000, g_pid),
  };
  for (const bool flag : {false, true}) {
    for (const FakeUsbDevice& device : strange) {
      monitor.SetDeviceExist(flag);
      flag ? registry_.depart(device) : registry_.arrive(device);
      registry_.settle();
      EXPECT_EQ(monitor.GetDeviceExist(), flag);
    }
  }
  monitor.StopMonitoring();
  EXPECT_TRUE(registry_.allGivenBack());
}

TEST_F(UsbMonitorTest, TheWholeIteratorIsDrainedAfterAMatch) {
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  monitor.SetDeviceExist(true);
  registry_.departAll({kMirn, kOther, kMirn, kOther, kOther});
  registry_.settle();
  EXPECT_FALSE(monitor.GetDeviceExist());
  EXPECT_EQ(registry_.counts().services_out, 5);
  EXPECT_EQ(registry_.counts().property_reads, 5) << "no early exit: every entry is looked at";
}

TEST_F(UsbMonitorTest, CallbacksWithoutAMonitorLeaveTheIteratorAlone) {
  const UsbIterator iterator = registry_.iteratorOf({kMirn, kOther});
  DeviceAddedCallback(nullptr, iterator);
  DeviceRemovedCallback(nullptr, iterator);
  EXPECT_EQ(registry_.pending(iterator), 2U);
  EXPECT_EQ(registry_.counts().services_out, 0);
}

TEST_F(UsbMonitorTest, StartAndStopSayWhatTheyDid) {
  USBMonitor monitor;
  const auto [out, err] = streamsOf([&] {
    monitor.StartMonitoring();
    registry_.waitUntilRunning();
    monitor.StopMonitoring();
  });
  EXPECT_EQ(out, "USB monitoring started successfully\nUSB monitoring stopped\n");
  EXPECT_EQ(err, "");
  EXPECT_TRUE(registry_.allGivenBack());
  EXPECT_EQ(registry_.counts().iterators_out, 2);
}

TEST_F(UsbMonitorTest, StartingTwiceStartsOneThread) {
  USBMonitor monitor;
  EXPECT_TRUE(monitor.StartMonitoring());
  registry_.waitUntilRunning();
  EXPECT_TRUE(monitor.StartMonitoring());
  EXPECT_EQ(quickClock().sleeps.load(), 1) << "the second start waits for nothing";
  EXPECT_EQ(registry_.counts().ports, 1);
}

TEST_F(UsbMonitorTest, StoppingWhatNeverStartedIsSilent) {
  const auto [out, err] = streamsOf([] {
    USBMonitor monitor;
    monitor.StopMonitoring();
  });
  EXPECT_EQ(out + err, "");
  EXPECT_EQ(quickClock().sleeps.load(), 0);
}

TEST_F(UsbMonitorTest, DestructorStops) {
  const auto [out, err] = streamsOf([&] {
    USBMonitor monitor;
    monitor.StartMonitoring();
    registry_.waitUntilRunning();
  });
  EXPECT_NE(out.find("USB monitoring stopped\n"), std::string::npos);
  EXPECT_TRUE(registry_.allGivenBack());
}

TEST_F(UsbMonitorTest, FlagSurvivesStopAndRestart) {
  USBMonitor monitor;
  for (int round = 0; round < 3; ++round) {
    monitor.StartMonitoring();
    registry_.waitUntilRunning();
    EXPECT_EQ(monitor.GetDeviceExist(), round != 0);
    registry_.arrive(kMirn);
    registry_.settle();
    monitor.StopMonitoring();
    EXPECT_TRUE(monitor.GetDeviceExist());
  }
  EXPECT_TRUE(registry_.allGivenBack());
}

TEST_F(UsbMonitorTest, RemovalBetweenTheWalkAndItsRegistrationIsNotReportedByThisRegistry) {
  registry_.attachQuietly(kMirn);
  USBMonitor monitor;
  registry_.at_step = [&](const std::string& step) {
    if (step == "addTerminate") registry_.depart(kMirn);
  };
  monitor.StartMonitoring();
  registry_.waitUntilRunning();
  registry_.settle();
  EXPECT_TRUE(monitor.GetDeviceExist());
}

// ---- every failure of the set-up ----

struct SetUpFailure {
  const char* name;
  void (*arrange)(UsbRegistryDouble& registry);
  const char* line;
  bool flag;           // after a Mirn was attached at the start
  int held_ports;      // before the stop
  int held_iterators;  // before the stop
};

class UsbMonitorFailureTest : public UsbMonitorTest, public testing::WithParamInterface<SetUpFailure> {};

TEST_P(UsbMonitorFailureTest, IsOneLineAndLeavesNothingBehind) {
  const SetUpFailure& failure = GetParam();
  failure.arrange(registry_);
  registry_.attachQuietly(kMirn);
  const int threads = runningThreads();
  USBMonitor monitor;
  const auto [out, err] = streamsOf([&] {
    EXPECT_TRUE(monitor.StartMonitoring());
    EXPECT_TRUE(threadsFallTo(threads)) << "the thread has ended";
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, std::string(failure.line) + "\n");
  EXPECT_EQ(monitor.GetDeviceExist(), failure.flag);
  const UsbRegistryDouble::Counts held = registry_.counts();
  EXPECT_EQ(held.ports, failure.held_ports);
  EXPECT_EQ(held.iterators_out - held.iterators_back, failure.held_iterators);
  EXPECT_EQ(held.matchings, 0);
  EXPECT_EQ(held.services_out, held.services_back);
  EXPECT_TRUE(monitor.StartMonitoring()) << "still flagged as monitoring: nothing is tried again";
  EXPECT_EQ(registry_.counts().ports, failure.held_ports);

  const auto [stop_out, stop_err] = streamsOf([&] { monitor.StopMonitoring(); });
  EXPECT_EQ(stop_out, "USB monitoring stopped\n");
  EXPECT_EQ(stop_err, "");
  EXPECT_EQ(monitor.GetDeviceExist(), failure.flag);
  EXPECT_TRUE(registry_.allGivenBack());
  EXPECT_TRUE(threadsFallTo(threads));
}

INSTANTIATE_TEST_SUITE_P(
    Steps, UsbMonitorFailureTest,
    testing::Values(SetUpFailure{"FirstMatching", [](UsbRegistryDouble& r) { r.failing_matching = 1; },
                                 "Failed to create matching dictionary", false, 0, 0},
                    SetUpFailure{"Port", [](UsbRegistryDouble& r) { r.fail_port = true; },
                                 "Failed to create notification port", false, 0, 0},
                    SetUpFailure{"Matched", [](UsbRegistryDouble& r) { r.matched_result = -536870206; },
                                 "Failed to add matched notification: -536870206", false, 0, 0},
                    SetUpFailure{"SecondMatching", [](UsbRegistryDouble& r) { r.failing_matching = 2; },
                                 "Failed to create removed matching dictionary", true, 1, 1},
                    SetUpFailure{"Terminate", [](UsbRegistryDouble& r) { r.terminate_result = 5; },
                                 "Failed to add terminated notification: 5", true, 1, 1}),
    [](const auto& failure) { return failure.param.name; });

TEST_F(UsbMonitorTest, WithoutAThreadTheStartSaysSoAndCountsAsOne) {
  USBMonitor monitor;
  monitor.SetDeviceExist(true);
  const auto [out, err] = streamsOf([&] {
    const NoMoreThreads none;
    EXPECT_TRUE(monitor.StartMonitoring());
  });
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "Failed to start the USB monitor thread: Resource temporarily unavailable\n");
  EXPECT_EQ(quickClock().sleeps.load(), 1);
  EXPECT_TRUE(monitor.GetDeviceExist());
  EXPECT_TRUE(monitor.StartMonitoring()) << "still flagged as monitoring: nothing is tried again";
  EXPECT_EQ(registry_.counts().ports, 0);
  const auto [stop_out, stop_err] = streamsOf([&] { monitor.StopMonitoring(); });
  EXPECT_EQ(stop_out, "USB monitoring stopped\n");
  EXPECT_EQ(stop_err, "");
  EXPECT_TRUE(monitor.StartMonitoring());
  registry_.waitUntilRunning();
  monitor.StopMonitoring();
  EXPECT_TRUE(registry_.allGivenBack());
}

// Here the start had no thread either: nothing is left that a stop would have to end.
TEST_F(UsbMonitorTest, WithoutAThreadForTheDeferredStopTheStopThrows) {
  const auto [out, err] = streamsOf([&] {
    USBMonitor monitor;
    const NoMoreThreads none;
    EXPECT_TRUE(monitor.StartMonitoring());
    EXPECT_THROW(monitor.StopMonitoring(), std::system_error);
    monitor.StopMonitoring();  // no longer monitoring: nothing is tried again
  });
  EXPECT_EQ(out, "") << "nothing was stopped";
}

// Both in a process of their own: the monitor thread runs, and nobody can end it any more.
class UsbMonitorDeathTest : public UsbMonitorTest {
 protected:
  UsbMonitorDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void watch() {
    monitor_.emplace();
    monitor_->StartMonitoring();
    registry_.waitUntilRunning();
  }
  void stopWithoutAThread() {
    watch();
    const NoMoreThreads none;
    try {
      monitor_->StopMonitoring();
    } catch (const std::system_error& error) {
      std::fprintf(stderr, "stopping: %s\n", error.what());
      std::_Exit(3);
    }
  }
  void endWithoutAThread() {
    watch();
    const NoMoreThreads none;
    monitor_.reset();
    std::_Exit(4);
  }

  std::optional<USBMonitor> monitor_;
};

TEST_F(UsbMonitorDeathTest, TheStopOfARunningMonitorThrowsWithoutAThread) {
  EXPECT_EXIT(stopWithoutAThread(), testing::ExitedWithCode(3), "stopping: Resource temporarily unavailable");
}

TEST_F(UsbMonitorDeathTest, TheEndOfARunningMonitorEndsTheProcessWithoutAThread) {
  EXPECT_EXIT(endWithoutAThread(), testing::KilledBySignal(SIGABRT), "system_error");
}

TEST_F(UsbMonitorTest, AFailedStartCanBeFollowedByAGoodOne) {
  registry_.fail_port = true;
  USBMonitor monitor;
  for (int round = 0; round < 100; ++round) {
    registry_.fail_port = true;
    monitor.StartMonitoring();
    monitor.StopMonitoring();
    // The deferred stop of the failed start may still be on its way; it must not end this one.
    registry_.fail_port = false;
    monitor.StartMonitoring();
    registry_.waitUntilRunning();
    registry_.arrive(kMirn);
    registry_.settle();
    ASSERT_TRUE(monitor.GetDeviceExist());
    registry_.depart(kMirn);
    registry_.settle();
    ASSERT_FALSE(monitor.GetDeviceExist());
    monitor.StopMonitoring();
  }
  EXPECT_TRUE(registry_.allGivenBack());
}

// ---- stop at every point of the set-up ----

class UsbMonitorStopTest : public UsbMonitorTest, public testing::WithParamInterface<const char*> {};

TEST_P(UsbMonitorStopTest, AlwaysEnds) {
  USBMonitor monitor;
  std::promise<void> reached;
  std::promise<void> go_on;
  std::shared_future<void> gate = go_on.get_future().share();
  bool once = false;
  registry_.at_step = [&](const std::string& step) {
    if (step != GetParam() || once) return;
    once = true;
    reached.set_value();
    gate.wait();
  };
  const int threads = runningThreads();
  monitor.StartMonitoring();
  reached.get_future().wait();
  std::thread stopper([&] { monitor.StopMonitoring(); });
  // The deferred stop fires while the monitor thread still stands at the step: only the two of them are left then.
  while (quickClock().sleeps.load() < 2) std::this_thread::yield();
  EXPECT_TRUE(threadsFallTo(threads + 2));
  go_on.set_value();
  stopper.join();
  EXPECT_TRUE(registry_.allGivenBack());
  EXPECT_TRUE(threadsFallTo(threads));
}

INSTANTIATE_TEST_SUITE_P(Steps, UsbMonitorStopTest,
                         testing::Values("currentRunLoop", "createMatching", "createNotificationPort", "addSource",
                                         "addMatched", "addTerminate", "run"),
                         [](const auto& step) { return std::string(step.param); });

// ---- real waits ----

TEST(UsbMonitorTimeTest, StartAndStopTakeAHundredMillisecondsEach) {
  UsbRegistryDouble registry;
  const ScopedUsbRegistry scoped(registry);
  USBMonitor monitor;
  const auto begin = steady_clock::now();
  monitor.StartMonitoring();
  const auto started = steady_clock::now();
  monitor.StopMonitoring();
  const auto stopped = steady_clock::now();
  EXPECT_GE(started - begin, milliseconds(100));
  EXPECT_GE(stopped - started, milliseconds(100));
}

TEST(UsbMonitorTimeTest, StopAfterAFailedSetUpDoesNotWaitForTheDeferral) {
  UsbRegistryDouble registry;
  registry.fail_port = true;
  const ScopedUsbRegistry scoped(registry);
  const int threads = runningThreads();
  USBMonitor monitor;
  monitor.StartMonitoring();
  monitor.StopMonitoring();
  EXPECT_EQ(runningThreads(), threads + 1) << "the deferred stop is still asleep";
  EXPECT_TRUE(threadsFallTo(threads));
}

TEST(UsbMonitorTimeTest, FlagReadsWhileEventsComeIn) {
  UsbRegistryDouble registry;
  const ScopedUsbRegistry scoped(registry);
  const ScopedQuickClock quick;
  USBMonitor monitor;
  monitor.StartMonitoring();
  registry.waitUntilRunning();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done.load()) monitor.GetDeviceExist();
  });
  for (int i = 0; i < 1000; ++i) (i % 2 == 0) ? registry.arrive(kMirn) : registry.depart(kMirn);
  registry.arrive(kMirn);
  registry.settle();
  EXPECT_TRUE(monitor.GetDeviceExist());
  done.store(true);
  reader.join();
  monitor.StopMonitoring();
}

}  // namespace
}  // namespace mirn
