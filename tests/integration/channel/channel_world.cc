#include "tests/integration/channel/channel_world.h"

#include <gtest/gtest.h>

#include "host/main_loop.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"

namespace mirn::test {
namespace {

constexpr uint64_t kBusKey = 1;

// Lives as long as the process: the USB monitor watches it until the manager goes.
VirtualUsbRegistry& registry() {
  static auto* const registry = new VirtualUsbRegistry;
  return *registry;
}

}  // namespace

VirtualMirnSettings quickMirn() {
  VirtualMirnSettings settings;
  settings.latency = {};
  settings.jitter = {};
  settings.warm_up_latency = {};
  return settings;
}

VirtualCaptureSettings quickCamera() {
  VirtualCaptureSettings settings;
  settings.warm_up = {};
  settings.jitter = {};
  return settings;
}

ChannelWorld::ChannelWorld(const WorldOptions& options)
    : setup_(1, options.mirn, options.camera), engine_(std::make_unique<Engine>()) {
  setup_.install();
  hostInstallUsbRegistry(&registry());
  if (options.plugged) {
    registry().arrived(kBusKey, {g_vid, g_pid});
  } else {
    setup_.unplug();
  }
  if (options.second_plugin) {
    registerFlutterMirnPlugin(engine_->makeRegistrar());
  } else {
    registerFlutterMirnPluginCApi(engine_->makeRegistrar());
  }
}

ChannelWorld::~ChannelWorld() {
  if (engine_ != nullptr) engine_->deliver("flutter_mirn", encodeMethodCall("release", Value()));
  hostReleaseProxy();
  engine_.reset();
  drainLoop();
}

std::string ChannelWorld::replyToBytes(const std::vector<uint8_t>& message) {
  const ChannelReply reply = engine_->deliver("flutter_mirn", message);
  switch (reply.kind) {
    case ChannelReply::Kind::kReply:
      return hexOf(reply.bytes);
    case ChannelReply::Kind::kNotImplemented:
      return "not-implemented";
    case ChannelReply::Kind::kNoReply:
      return "no-reply";
    case ChannelReply::Kind::kPending:
      return "pending";
  }
  return "?";
}

std::string ChannelWorld::reply(std::string_view method, const Value& arguments) {
  return replyToBytes(encodeMethodCall(method, arguments));
}

Value ChannelWorld::value(std::string_view method, const Value& arguments) {
  const ChannelReply reply = engine_->deliver("flutter_mirn", encodeMethodCall(method, arguments));
  Envelope envelope;
  EXPECT_EQ(reply.kind, ChannelReply::Kind::kReply) << method;
  EXPECT_EQ(decodeEnvelope(reply.bytes, &envelope), CodecError::kNone) << method;
  EXPECT_EQ(envelope.kind, Envelope::Kind::kSuccess) << method;
  return envelope.result;
}

bool ChannelWorld::eventually(const std::function<bool()>& done) {
  return runLoopUntil(done, kPatience);
}

void ChannelWorld::unplug() {
  setup_.unplug();
  registry().gone(kBusKey);
}

void ChannelWorld::replug() {
  setup_.replug();
  registry().arrived(kBusKey, {g_vid, g_pid});
}

std::string hexOf(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const uint8_t byte : bytes) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 15];
  }
  return hex;
}

std::string success(const Value& value) {
  return hexOf(encodeSuccess(value));
}

std::string argumentsError() {
  return hexOf(encodeError("INVALID_ARGUMENT", "arguments must be dictionary", Value()));
}

}  // namespace mirn::test
