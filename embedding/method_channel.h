// Method calls over one named channel of a messenger, with the standard method codec.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "embedding/binary_messenger.h"
#include "embedding/standard_codec.h"
#include "embedding/value.h"

namespace mirn {

// The answer to one method call: given at most once; letting it go unanswered is legal. Moves. Bound to the platform
// thread. Small replies are encoded without allocating.
class MethodResult {
 public:
  explicit MethodResult(BinaryReply reply) : reply_(std::move(reply)) {}

  void success();  // without a value
  void success(const Value& value);
  void successBool(bool value);
  void successInt32(int32_t value);
  void successInt64(int64_t value);
  // A reply that the caller encodes: the success byte and then the value.
  void successEncoded(const MessageWriter& envelope);
  // Without details.
  void error(std::string_view code, std::string_view message);
  void notImplemented();

  bool pending() const { return reply_.pending(); }

 private:
  void send(Bytes envelope);

  BinaryReply reply_;
};

// Called on the platform thread; `call` borrows the message and is valid until the handler returns.
using MethodCallHandler = std::function<void(const MethodCallView& call, MethodResult result)>;

// Bound to the platform thread. The messenger must outlive it. Destroying the channel object leaves the handler in
// place, as engines do; clearMethodCallHandler takes it away.
class MethodChannel {
 public:
  MethodChannel(BinaryMessenger& messenger, std::string name);
  virtual ~MethodChannel();  // not inline: a host may hold a channel and have none of this room's code
  MethodChannel(const MethodChannel&) = delete;
  MethodChannel& operator=(const MethodChannel&) = delete;

  const std::string& name() const { return name_; }

  // A message that is no method call gets the empty reply and one line in the log, and never reaches `handler`.
  virtual void setMethodCallHandler(MethodCallHandler handler);
  // Only takes away what this object has set.
  virtual void clearMethodCallHandler();

  // Towards the application, without waiting for an answer.
  virtual void invokeMethod(std::string_view method, const Value& arguments);

 private:
  BinaryMessenger& messenger_;
  std::string name_;
  std::shared_ptr<BinaryMessageHandler> handler_;
};

}  // namespace mirn
