// Whatever a command throws ends at the plug-in: a line in the log, and the answer that the command gives without a
// device.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/capture.h"
#include "platform/mirn_identity.h"
#include "plugin/flutter_mirn_plugin.h"
#include "plugin/flutter_mirn_plugin_c_api.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_manager.h"
#include "tests/support/no_more_threads.h"
#include "tests/support/video/log_capture.h"
#include "tests/unit/embedding/fake_messenger.h"
#include "tests/unit/plugin/throwing_hid.h"
#include "usb/usb_monitor.h"
#include "virtual/virtual_setup.h"

namespace mirn::test {
namespace {

class ThrowingCapture final : public CaptureSystem {
 public:
  explicit ThrowingCapture(Throw what) : what_(what) {}
  std::vector<std::shared_ptr<CaptureDevice>> devices() override {
    throwAs(what_);
    return {};
  }

 private:
  const Throw what_;
};

// A Mirn that can't be opened; only the manager's first look at it is harmless.
class ThrowingCamera final : public CaptureDevice, public CaptureSystem {
 public:
  std::string localizedName() const override { return kMirnProductName; }
  std::string uniqueID() const override { return "throwing"; }
  std::string topologyPath() const override { return ""; }
  std::string nodeName() const override { return "throwing"; }
  bool isConnected() const override { throw std::bad_alloc(); }
  std::vector<CaptureFormatRef> formats() override { return {}; }
  std::vector<std::shared_ptr<CaptureDevice>> devices() override { return {shared_from_this()}; }

 protected:
  bool openNode(CaptureError* /*error*/) override { return false; }
  void closeNode() override {}
  bool acquireConfiguration(CaptureError* /*error*/) override { return false; }
  void releaseConfiguration() override {}
  bool applyFormat(const CaptureFormat& /*format*/, CaptureError* /*error*/) override { return false; }
  bool startStream(CaptureError* /*error*/) override { return false; }
  void stopStream() override {}
};

class ThrowingTextures final : public TextureRegistry {
 public:
  int64_t registerTexture(std::shared_ptr<ExternalTexture> /*texture*/) override { throw std::bad_alloc(); }
  void textureFrameAvailable(int64_t /*id*/) override {}
  void unregisterTexture(int64_t /*id*/) override {}
};

class CommandFailureTest : public testing::Test {
 protected:
  CommandFailureTest() {
    setup_.install();
    setHidFunctions(&functions_);
    FlutterMirnPluginCApi::registerWithRegistrar(registrar_);
  }
  ~CommandFailureTest() override {
    g_open_throws = g_write_throws = Throw::kNothing;
    mirn_->close();
    mirn_->releaseProxy();
    releaseManager();
    g_bDeviceExist = g_bInitUSBListener = false;
    setHidFunctions(nullptr);
  }

  // The reply as text, and that there is one line about it.
  void expectFailure(const char* method, const Value& arguments, const Value& answer, const std::string& reason) {
    SCOPED_TRACE(method);
    testing::internal::CaptureStdout();
    const FakeMessenger::Outcome outcome = messenger_.deliver(kMirnChannel, encodeMethodCall(method, arguments));
    const std::string log = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(outcome.reply.has_value());
    EXPECT_EQ(*outcome.reply, encodeSuccess(answer));
    EXPECT_NE(log.find(method + (" failed: " + reason)), std::string::npos) << log;
  }

  const HidFunctions functions_ = throwingHidFunctions();
  VirtualSetup setup_;
  LogCapture log_;
  FakeMessenger messenger_;
  PluginRegistrar registrar_{messenger_, std::make_shared<ThrowingTextures>()};
};

Value map(const char* key, Value value) {
  return ValueMap{{Value(std::string(key)), std::move(value)}};
}

TEST_F(CommandFailureTest, EachAnswersAsWithoutADevice) {
  ASSERT_TRUE(mirn_->initKmProxy());
  g_write_throws = Throw::kException;
  expectFailure("setLedStatus", map("ledStatus", int32_t{1}), Value(), "made to fail");
  expectFailure("setMirnDevInfo", map("name", std::string("x")), int32_t{0}, "made to fail");
  g_write_throws = Throw::kNothing;
  expectFailure("createTexture", Value(), int64_t{0}, "std::bad_alloc");
  g_open_throws = Throw::kNumber;
  expectFailure("initKmProxy", Value(), false, "not a standard exception");
  expectFailure("getMirnDevInfo", Value(), ValueList{}, "not a standard exception");
}

TEST_F(CommandFailureTest, ACameraThatThrowsIsOneThatCannotBeLocked) {
  ASSERT_TRUE(mirn_->initKmProxy());
  const auto camera = std::make_shared<ThrowingCamera>();
  setCaptureSystem(camera.get());
  EXPECT_FALSE(mirn_->open());
  expectFailure("reqUpgradeFirmware", map("path", std::string("/nowhere")), int32_t{-4}, "std::bad_alloc");
  expectFailure("setVideoQuality", map("quality", std::string("720P")), false, "std::bad_alloc");
  expectFailure("bestColor", Value(), Value(), "std::bad_alloc");
  mirn_->close();
  setCaptureSystem(nullptr);
}

TEST_F(CommandFailureTest, ACaptureSystemThatThrowsIsACaptureSystemWithoutDevices) {
  for (const Throw what : {Throw::kException, Throw::kNumber}) {
    ThrowingCapture capture(what);
    setCaptureSystem(&capture);
    const std::string reason = what == Throw::kException ? "made to fail" : "not a standard exception";
    expectFailure("getDeviceList", Value(), ValueList{}, reason);
    expectFailure("open", Value(), false, reason);
  }
  setCaptureSystem(nullptr);
}

TEST_F(CommandFailureTest, TheSecondPluginAnswersLikewise) {
  FlutterMirnPlugin::registerWithRegistrar(registrar_);
  ThrowingCapture capture(Throw::kException);
  setCaptureSystem(&capture);
  expectFailure("getDeviceList", Value(), ValueList{}, "made to fail");
  expectFailure("open", ValueList{Value(int32_t{0})}, false, "made to fail");
  setCaptureSystem(nullptr);
}

TEST_F(CommandFailureTest, WithoutAThreadForThePictureOpenAnswersFalse) {
  const NoMoreThreads none;
  const FakeMessenger::Outcome outcome = messenger_.deliver(kMirnChannel, encodeMethodCall("open", Value()));
  ASSERT_TRUE(outcome.reply.has_value());
  EXPECT_EQ(*outcome.reply, encodeSuccess(false));
  EXPECT_EQ(lastCaptureError().code, EAGAIN);
}

}  // namespace
}  // namespace mirn::test
