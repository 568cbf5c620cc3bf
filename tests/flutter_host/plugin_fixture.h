// The plug-in, loaded through its registration function into an engine of the stand-in, over a virtual Mirn.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "app/linux/flutter/generated_plugin_registrant.h"
#include "apps/common/virtual_usb_registry.h"
#include "embedding/standard_codec.h"
#include "host/channel_client.h"
#include "host/main_loop.h"
#include "platform/mirn_identity.h"
#include "plugin/mirn_host.h"
#include "standin/standin_engine.h"
#include "virtual/virtual_setup.h"

namespace mirn {

inline constexpr std::chrono::seconds kPatience{20};

// The bus of all tests. Lives as long as the process: the plug-in's monitor watches it until its manager goes.
inline VirtualUsbRegistry& virtualBus() {
  static auto* const bus = new VirtualUsbRegistry;
  return *bus;
}

class FlutterPluginTest : public ::testing::Test {
 protected:
  FlutterPluginTest() : setup_(1, {}, byHand()), engine_(std::make_unique<StandinEngine>()) {
    watchGlibLog();
    setup_.install();
    // The plug-in has its own copy of what says which back ends are in force.
    EXPECT_TRUE(hostInstallHidFunctions(&VirtualHid::functions()));
    EXPECT_TRUE(hostInstallCaptureSystem(&setup_.capture()));
    // Once: later it is in use, and refused.
    static const bool bus = hostInstallUsbRegistry(&virtualBus());
    EXPECT_TRUE(bus);
    virtualBus().arrived(kBusKey, {g_vid, g_pid});
    fl_register_plugins(engine_->registry());
  }

  ~FlutterPluginTest() override {
    if (engine_ == nullptr) {
      startEngine();
    }
    call("release");
    hostReleaseProxy();
    engine_.reset();
    EXPECT_TRUE(hostInstallCaptureSystem(nullptr));
    EXPECT_TRUE(hostInstallHidFunctions(nullptr));
    EXPECT_EQ(glibCriticals(), 0U);
  }

  void startEngine() {
    engine_ = std::make_unique<StandinEngine>();
    fl_register_plugins(engine_->registry());
  }

  // Sends a message and runs the loop until it is answered. The last resort of a test that fails: kNoReply.
  CallOutcome send(MessageBytes message, const std::string& channel = "flutter_mirn") {
    std::optional<ChannelReply> answer;
    engine_->send(channel, std::move(message), [&answer](const std::optional<MessageBytes>& reply) {
      using Kind = ChannelReply::Kind;
      answer = ChannelReply{!reply ? Kind::kNoReply : (reply->empty() ? Kind::kNotImplemented : Kind::kReply),
                            reply.value_or(MessageBytes())};
    });
    EXPECT_TRUE(runLoopUntil([&answer] { return answer.has_value(); }, kPatience));
    return answer ? decodeOutcome(*answer) : CallOutcome();
  }
  CallOutcome call(std::string_view method, const Value& arguments = {}) {
    return send(encodeMethodCall(method, arguments));
  }
  CallOutcome call(std::string_view method, ChannelClient::Arguments arguments) {
    return call(method, ChannelClient::map(arguments));
  }

  void unplug() {
    setup_.unplug();
    virtualBus().gone(kBusKey);
  }
  void replug() {
    virtualBus().arrived(kBusKey, {g_vid, g_pid});
    setup_.replug();
  }
  // Whether "isVidPidExist" comes to say so, and the plug-in's monitor, a thread of its own, hears of what comes next.
  bool presenceBecomes(bool there) {
    return runLoopUntil([&] { return call("isVidPidExist").value == Value(there) && virtualBus().watchers() == 2; },
                        kPatience);
  }

  // One captured frame, delivered to every texture.
  void playFrame() {
    const uint64_t before = hostSessionStatistics().framesDelivered;
    ASSERT_TRUE(setup_.camera().step());
    ASSERT_TRUE(runLoopUntil([&] { return hostSessionStatistics().framesDelivered > before; }, kPatience));
  }

  StandinEngine& engine() { return *engine_; }

  VirtualSetup setup_;
  std::unique_ptr<StandinEngine> engine_;

 private:
  static constexpr uint64_t kBusKey = 1;

  static VirtualCaptureSettings byHand() {
    VirtualCaptureSettings settings;
    settings.frames_per_second = 0;
    return settings;
  }
};

inline void expectNull(const CallOutcome& outcome) {
  EXPECT_EQ(outcome.kind, CallOutcome::Kind::kSuccess);
  EXPECT_TRUE(outcome.value.isNull());
}

inline void expectNoDictionary(const CallOutcome& outcome) {
  EXPECT_EQ(outcome.kind, CallOutcome::Kind::kError);
  EXPECT_EQ(outcome.code, "INVALID_ARGUMENT");
  EXPECT_EQ(outcome.message, "arguments must be dictionary");
  EXPECT_TRUE(outcome.details.isNull());
}

}  // namespace mirn
