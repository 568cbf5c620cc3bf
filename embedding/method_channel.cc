#include "embedding/method_channel.h"

#include <utility>

#include "deps/pellum/logger/flogger.h"

namespace mirn {
namespace {

constexpr uint8_t kSuccessByte = 0;
constexpr uint8_t kErrorByte = 1;

class CallHandler : public BinaryMessageHandler {
 public:
  CallHandler(std::string channel, MethodCallHandler handler)
      : channel_(std::move(channel)), handler_(std::move(handler)) {}

  void onMessage(Bytes message, BinaryReply reply) override {
    MethodCallView call;
    const CodecError error = viewMethodCall(message, &call);
    if (error == CodecError::kNone) {
      handler_(call, MethodResult(std::move(reply)));
      return;
    }
    const std::string reason(describe(error));
    flogger::GetInitance().write_log(kLogError, "[%s] a message of %zu bytes is no method call: %s", channel_.c_str(),
                                     message.size(), reason.c_str());
    reply.answer({});
  }

 private:
  const std::string channel_;
  const MethodCallHandler handler_;
};

}  // namespace

void MethodResult::send(Bytes envelope) {
  if (reply_.answer(envelope)) return;
  flogger::GetInitance().write_log(kLogError, "[%s] a method call was answered twice; the second answer is dropped",
                                   "MethodResult");
}

void MethodResult::success() {
  constexpr uint8_t kNullEnvelope[] = {kSuccessByte, 0};
  send(kNullEnvelope);
}

void MethodResult::success(const Value& value) {
  MessageWriter writer;
  writer.byte(kSuccessByte);
  writer.value(value);
  send(writer.bytes());
}

void MethodResult::successBool(bool value) {
  MessageWriter writer;
  writer.byte(kSuccessByte);
  writer.boolean(value);
  send(writer.bytes());
}

void MethodResult::successInt32(int32_t value) {
  MessageWriter writer;
  writer.byte(kSuccessByte);
  writer.int32(value);
  send(writer.bytes());
}

void MethodResult::successInt64(int64_t value) {
  MessageWriter writer;
  writer.byte(kSuccessByte);
  writer.int64(value);
  send(writer.bytes());
}

void MethodResult::successEncoded(const MessageWriter& envelope) {
  send(envelope.bytes());
}

void MethodResult::error(std::string_view code, std::string_view message) {
  MessageWriter writer;
  writer.byte(kErrorByte);
  writer.text(code);
  writer.text(message);
  writer.null();
  send(writer.bytes());
}

void MethodResult::notImplemented() {
  send({});
}

MethodChannel::MethodChannel(BinaryMessenger& messenger, std::string name)
    : messenger_(messenger), name_(std::move(name)) {}

MethodChannel::~MethodChannel() = default;

void MethodChannel::setMethodCallHandler(MethodCallHandler handler) {
  handler_ = std::make_shared<CallHandler>(name_, std::move(handler));
  messenger_.setMessageHandler(name_, handler_);
}

void MethodChannel::clearMethodCallHandler() {
  if (handler_ == nullptr) return;
  messenger_.clearMessageHandler(name_, handler_.get());
  handler_.reset();
}

void MethodChannel::invokeMethod(std::string_view method, const Value& arguments) {
  MessageWriter writer;
  writer.text(method);
  writer.value(arguments);
  messenger_.send(name_, writer.bytes(), {});
}

}  // namespace mirn
