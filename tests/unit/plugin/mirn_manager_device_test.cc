// The manager's device half, rule by rule, over a virtual Mirn whose HID calls a test can make fail in any way.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "device/hard_km_proxy.h"
#include "platform/mirn_identity.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_manager.h"
#include "tests/support/video/fake_registry.h"
#include "tests/support/video/log_capture.h"
#include "tests/unit/embedding/fake_messenger.h"
#include "tests/unit/plugin/throwing_hid.h"
#include "tests/unit/usb/process_counts.h"
#include "tests/unit/usb/quick_clock.h"
#include "tests/unit/usb/usb_registry_double.h"
#include "video/mirn_texture.h"
#include "virtual/virtual_setup.h"

namespace mirn {
namespace {

using test::g_open_throws;
using test::g_write_throws;
using test::LogCapture;
using test::Throw;

int g_inits = 0;
int g_opens = 0;
bool g_opened_beside_another = false;

HidFunctions scriptedFunctions() {
  HidFunctions functions = test::throwingHidFunctions();
  functions.init = [] { return g_inits++, 0; };
  functions.open = [](unsigned short vendor, unsigned short product, const wchar_t* serial) {
    ++g_opens;
    g_opened_beside_another = g_opened_beside_another || VirtualHid::instance().openHandles() > 0;
    return test::throwingHidFunctions().open(vendor, product, serial);
  };
  return functions;
}

class ManagerDeviceTest : public testing::Test {
 protected:
  ManagerDeviceTest() {
    setup_.install();
    setHidFunctions(&functions_);
    g_inits = g_opens = 0;
    g_opened_beside_another = false;
    g_open_throws = g_write_throws = Throw::kNothing;
    createManager();
  }
  ~ManagerDeviceTest() override {
    letTheManagerGo();
    setHidFunctions(nullptr);
  }

  void letTheManagerGo() {
    if (mirn_ == nullptr) return;
    manager().close();
    manager().releaseProxy();
    releaseManager();
    g_bDeviceExist = g_bInitUSBListener = false;
  }

  static MirnManager& manager() { return *mirn_; }

  template <typename Record>
  size_t received() {
    size_t count = 0;
    for (const VirtualReceived& each : setup_.mirn().receivedAfter(0)) {
      count += std::holds_alternative<Record>(each.record) ? 1 : 0;
    }
    return count;
  }
  // The sending thread has got that far.
  template <typename Record>
  bool receives(size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (received<Record>() < count && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    return received<Record>() == count;
  }
  void inject(const char* text) {
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
    setup_.mirn().setFaultPlan(plan);
  }
  template <typename Action>
  static std::string printedBy(Action action) {
    testing::internal::CaptureStdout();
    action();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }

  const HidFunctions functions_ = scriptedFunctions();
  VirtualSetup setup_;
};

TEST_F(ManagerDeviceTest, MakingItInitialisesHidOnceAndOpensNothing) {
  EXPECT_EQ(g_inits, 1);
  EXPECT_EQ(g_opens, 0);
  EXPECT_EQ(manager().kmproxy(), nullptr);
  createManager();
  EXPECT_EQ(g_inits, 1) << "there is one manager";
  manager().initKmProxy();
  EXPECT_EQ(g_inits, 1);
  EXPECT_EQ(g_opens, 1);
}

TEST_F(ManagerDeviceTest, WithoutAProxyEveryOperationGivesItsMissingValue) {
  setup_.unplug();
  EXPECT_EQ(manager().setMirnDevInfo("n"), -1);
  EXPECT_EQ(manager().reqUpgradeFirmware("/nowhere"), -4);
  EXPECT_TRUE(manager().getUpgradeProgress().empty());
  EXPECT_EQ(g_opens, 0);
  EXPECT_FALSE(manager().initKmProxy());
  const int attempt = std::exchange(g_opens, 0);
  EXPECT_TRUE(manager().getMirnDevInfo().empty());
  EXPECT_EQ(g_opens, attempt) << "one attempt to open it";
}

TEST_F(ManagerDeviceTest, ANewProxyComesWhenTheOldOneHasGone) {
  EXPECT_TRUE(manager().initkmproxy());
  EXPECT_TRUE(manager().initkmproxy());
  EXPECT_TRUE(manager().initKmProxy());
  EXPECT_FALSE(g_opened_beside_another);
  EXPECT_EQ(setup_.hid().openHandles(), 1U);
}

TEST_F(ManagerDeviceTest, AnExceptionWhileTheProxyIsMadeIsPrinted) {
  ASSERT_TRUE(manager().initKmProxy());
  g_open_throws = Throw::kException;
  EXPECT_EQ(printedBy([] { EXPECT_FALSE(manager().initKmProxy()); }),
            "create HARDVMProxy failed, error: made to fail\n");
  EXPECT_EQ(manager().kmproxy(), nullptr) << "the old one went first";
  g_open_throws = Throw::kNothing;
  g_write_throws = Throw::kException;
  EXPECT_EQ(printedBy([] { EXPECT_FALSE(manager().initkmproxy()); }),
            "create HARDVMProxy failed, error: made to fail\n");
  EXPECT_EQ(setup_.hid().openHandles(), 0U);
  g_write_throws = Throw::kNothing;
  EXPECT_TRUE(manager().initkmproxy());
}

TEST_F(ManagerDeviceTest, WhatIsNoStandardExceptionPassesThrough) {
  g_open_throws = Throw::kNumber;
  EXPECT_THROW(manager().initKmProxy(), int);
  EXPECT_EQ(manager().kmproxy(), nullptr);
}

TEST_F(ManagerDeviceTest, AnExceptionWhileTheInformationIsReadIsLoggedAndTheListIsEmpty) {
  ASSERT_TRUE(manager().initKmProxy());
  LogCapture log;
  g_write_throws = Throw::kException;
  EXPECT_EQ(printedBy([] { EXPECT_TRUE(manager().getMirnDevInfo().empty()); }), "");
  g_write_throws = Throw::kNumber;
  EXPECT_EQ(printedBy([] { EXPECT_TRUE(manager().getMirnDevInfo().empty()); }), "");
  EXPECT_EQ(LogCapture::lines(),
            (std::vector<std::string>{"GetDevInfo exception: made to fail", "GetDevInfo unknown exception"}));
  g_write_throws = Throw::kNothing;
  EXPECT_EQ(manager().getMirnDevInfo().size(), 4U) << "the proxy is kept";
}

TEST_F(ManagerDeviceTest, InformationThatCannotBeReadIsToldAndTheProxyIsKept) {
  ASSERT_TRUE(manager().initKmProxy());
  const HardKMProxy* const proxy = manager().kmproxy();
  inject("corrupt@1/c9");
  EXPECT_EQ(printedBy([] { EXPECT_TRUE(manager().getMirnDevInfo().empty()); }), "get dev info failed 2\n");
  EXPECT_EQ(manager().kmproxy(), proxy);
  EXPECT_EQ(manager().getMirnDevInfo().size(), 4U);
  EXPECT_EQ(g_opens, 1);
}

// ---- the plug-in's engine and textures

TEST_F(ManagerDeviceTest, AnEngineThatGoesTakesNothingAlong) {
  const auto registry = std::make_shared<test::FakeTextureRegistry>();
  test::FakeMessenger messenger;
  int64_t id = 0;
  {
    PluginRegistrar registrar(messenger, registry);
    FlutterMirnPluginCApi::registerWithRegistrar(registrar);
    id = FlutterMirnPluginCApi::initWithTextures(registry)->createTexture();
    ASSERT_TRUE(manager().initKmProxy());
    ASSERT_TRUE(manager().open());
  }
  EXPECT_NE(manager().kmproxy(), nullptr);
  ASSERT_NE(manager().captureSession(), nullptr);
  EXPECT_TRUE(manager().captureSession()->isRunning());
  std::vector<int64_t> ids;
  liveTextureIds(ids);
  EXPECT_EQ(ids, std::vector<int64_t>{id});
  destroyTexture(id);
}

class RefusingRegistry final : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> texture) override {
    refused = texture;
    return 0;
  }
  void textureFrameAvailable(int64_t /*id*/) override { ADD_FAILURE() << "nothing was registered"; }
  void unregisterTexture(int64_t /*id*/) override { ADD_FAILURE() << "nothing was registered"; }

  std::weak_ptr<ExternalTexture> refused;
};

TEST_F(ManagerDeviceTest, ATextureThatTheEngineRefusesIsNotKept) {
  const auto registry = std::make_shared<RefusingRegistry>();
  EXPECT_EQ(FlutterMirnPluginCApi::initWithTextures(registry)->createTexture(), 0);
  EXPECT_TRUE(registry->refused.expired());
  std::vector<int64_t> ids;
  liveTextureIds(ids);
  EXPECT_TRUE(ids.empty());
  updateTexture(0, PixelBuffer::create(4, 4, kPixelFormatBGRA));
  destroyTexture(0);
}

// ---- firmware

class ManagerFirmwareTest : public ManagerDeviceTest {
 protected:
  ManagerFirmwareTest() : path_(testing::TempDir() + "manager" + std::to_string(getpid()) + ".bin") {
    std::ofstream(path_) << std::string(10, 'i');
    setup_.mirn().setVersion("2.0.0", "");  // one that wants to be greeted before an upgrade
    EXPECT_TRUE(manager().initKmProxy());
    begin_ = setup_.mirn().receivedCount();
  }
  ~ManagerFirmwareTest() override { std::filesystem::remove(path_); }

  const std::string path_;
  uint64_t begin_ = 0;
};

TEST_F(ManagerFirmwareTest, TheDeviceIsGreetedFirstWhateverItAnswers) {
  inject("refuse=9@1");
  EXPECT_EQ(manager().reqUpgradeFirmware(path_), 1);
  EXPECT_TRUE(receives<VirtualFirmwareChunk>(1));
  std::vector<size_t> kinds;
  for (const VirtualReceived& each : setup_.mirn().receivedAfter(begin_)) kinds.push_back(each.record.index());
  EXPECT_EQ(kinds, (std::vector<size_t>{VirtualRecord(VirtualFirmwareGreeting()).index(),
                                        VirtualRecord(VirtualFirmwareChunk()).index()}));
  EXPECT_EQ(manager().reqUpgradeFirmware("/nowhere"), 0) << "greeted before the file is looked at";
  EXPECT_TRUE(receives<VirtualFirmwareGreeting>(2));
}

TEST_F(ManagerFirmwareTest, ACameraThatCantBeLockedStopsItAfterTheGreeting) {
  ASSERT_TRUE(manager().open());
  setup_.camera().unplug();
  EXPECT_EQ(printedBy([this] { EXPECT_EQ(manager().reqUpgradeFirmware(path_), -4); }), "");
  EXPECT_TRUE(receives<VirtualFirmwareGreeting>(1));
  EXPECT_EQ(received<VirtualFirmwareChunk>(), 0U);
}

TEST_F(ManagerFirmwareTest, OnlyWhatWasSentCountsAsProgress) {
  MyCppListenerWrapper& listener = manager().listener();
  EXPECT_EQ(manager().getUpgradeProgress(), (std::vector<int32_t>{0, 0}));
  EXPECT_EQ(printedBy([&] { listener.OnSendUpgradeResult(0, 3, 9); }),
            "mirn upgrade progress, err_no=0, cur_id=3, total=9\r\n");
  EXPECT_EQ(manager().getUpgradeProgress(), (std::vector<int32_t>{3, 9}));
  EXPECT_EQ(printedBy([&] { listener.OnSendUpgradeResult(-1, 4, 9); }),
            "mirn upgrade progress, err_no=-1, cur_id=4, total=9\r\n");
  EXPECT_EQ(printedBy([&] { listener.OnSendUpgradeResult(1, 65535, 9); }),
            "mirn upgrade progress, err_no=1, cur_id=65535, total=9\r\n");
  EXPECT_EQ(manager().getUpgradeProgress(), (std::vector<int32_t>{3, 9}));
  // The others say nothing and change nothing.
  EXPECT_EQ(printedBy([&] {
              listener.OnUpgradeStep(1, 2);
              listener.OnSendMouseResult(-1);
              listener.OnSendKeyboardResult(-1);
              listener.OnSendFirmwareHandSharkeResult(-1);
            }),
            "");
  EXPECT_EQ(manager().getUpgradeProgress(), (std::vector<int32_t>{3, 9}));
  manager().initKmProxy();
  EXPECT_EQ(manager().getUpgradeProgress(), (std::vector<int32_t>{3, 9})) << "never reset";
}

// ---- presence

class ManagerPresenceTest : public ManagerDeviceTest {
 protected:
  ~ManagerPresenceTest() override {
    letTheManagerGo();  // stops the monitor while its registry is in force
    EXPECT_TRUE(threadsFallTo(threads_before_));
  }

  const int threads_before_ = runningThreads();
  UsbRegistryDouble registry_;
  ScopedUsbRegistry scoped_registry_{registry_};
  ScopedQuickClock scoped_clock_;
};

TEST_F(ManagerPresenceTest, TheFirstQueryScansAndStartsTheMonitorAndSaysSo) {
  registry_.attachQuietly(fakeDevice(g_vid, g_pid));
  const std::string printed = printedBy([this] {
    EXPECT_TRUE(manager().getDeviceExist());
    registry_.waitUntilRunning();
  });
  EXPECT_TRUE(g_bInitUSBListener);
  EXPECT_TRUE(g_bDeviceExist);
  EXPECT_NE(printed.find("- Info  -\t[FlutterMirnPluginCApi] [getDeviceExist] InitUSBListener success!\n"),
            std::string::npos)
      << printed;
  EXPECT_EQ(quickClock().sleeps.exchange(0), 1);
  // Later ones read the monitor's flag: no scan, no start, no word.
  const size_t requests = registry_.classes().size();
  EXPECT_EQ(requests, 3U) << "the scan's and the monitor's two";
  registry_.depart(fakeDevice(g_vid, g_pid));
  registry_.settle();
  EXPECT_EQ(printedBy([] { EXPECT_FALSE(manager().getDeviceExist()); }), "");
  EXPECT_FALSE(g_bDeviceExist);
  EXPECT_EQ(registry_.classes().size(), requests);
  EXPECT_EQ(registry_.counts().ports, 1);
}

TEST_F(ManagerPresenceTest, TheScansAnswerIsTheMonitorsFirstOne) {
  registry_.attachQuietly(fakeDevice(g_vid, g_pid));
  registry_.fail_port = true;
  const int threads = runningThreads();
  testing::internal::CaptureStderr();
  EXPECT_TRUE(manager().getDeviceExist());
  EXPECT_TRUE(threadsFallTo(threads));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to create notification port\n");
  EXPECT_TRUE(g_bInitUSBListener) << "a start always counts as one";
  EXPECT_TRUE(manager().getDeviceExist());
}

TEST_F(ManagerPresenceTest, AQueryNeedsNoConnection) {
  EXPECT_FALSE(manager().checkDeviceExist());
  registry_.attachQuietly(fakeDevice(g_vid, g_pid));
  EXPECT_TRUE(manager().checkDeviceExist());
  EXPECT_FALSE(g_bInitUSBListener);
  EXPECT_EQ(g_opens, 0);
}

}  // namespace
}  // namespace mirn
