// The bytes' way between an engine and the library: named channels, one handler each, one reply for each message.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace mirn {

// The engine's end of one message that waits for its answer. Exactly one of the two calls is made, once; the sink may
// delete itself in it. Both come on the thread on which the BinaryReply is answered or dropped: here always the
// platform thread.
class BinaryReplySink {
 public:
  // `reply` is borrowed for the call. No bytes at all = not implemented.
  virtual void answered(std::span<const uint8_t> reply) = 0;
  // The handler let the reply go without answering. Legal: three commands never answer.
  virtual void dropped() = 0;

 protected:
  ~BinaryReplySink() = default;
};

// The right to answer one message, at most once. Moves; whoever holds it last and does not answer drops it.
class BinaryReply {
 public:
  BinaryReply() = default;
  explicit BinaryReply(BinaryReplySink* sink) : sink_(sink) {}
  BinaryReply(BinaryReply&& other) noexcept : sink_(std::exchange(other.sink_, nullptr)) {}
  BinaryReply& operator=(BinaryReply&& other) noexcept {
    if (this != &other) {
      drop();
      sink_ = std::exchange(other.sink_, nullptr);
    }
    return *this;
  }
  BinaryReply(const BinaryReply&) = delete;
  BinaryReply& operator=(const BinaryReply&) = delete;
  ~BinaryReply() { drop(); }

  // True when this was the answer; false when the message was answered before (or moved away): nothing is sent then.
  bool answer(std::span<const uint8_t> reply) {
    BinaryReplySink* sink = std::exchange(sink_, nullptr);
    if (sink == nullptr) return false;
    sink->answered(reply);
    return true;
  }

  bool pending() const { return sink_ != nullptr; }

 private:
  void drop() {
    if (BinaryReplySink* sink = std::exchange(sink_, nullptr)) sink->dropped();
  }

  BinaryReplySink* sink_ = nullptr;
};

// Takes the messages of one channel. Called on the platform thread.
class BinaryMessageHandler {
 public:
  virtual ~BinaryMessageHandler() = default;
  // `message` is borrowed for the call. What it throws ends at the engine's adapter: a line of text, and the reply
  // counts as dropped where it had not been given.
  virtual void onMessage(std::span<const uint8_t> message, BinaryReply reply) = 0;
};

// Bound to the platform thread. An engine answers a message on a channel without a handler with the empty reply.
class BinaryMessenger {
 public:
  virtual ~BinaryMessenger() = default;

  // Towards the application. `reply` may be empty; it gets the application's answer (no bytes = not implemented).
  virtual void send(std::string_view channel, std::span<const uint8_t> message,
                    std::function<void(std::span<const uint8_t>)> reply) = 0;

  // From now on `handler` serves the channel; the one before is let go. A handler that is running when it is replaced
  // stays alive until it returns.
  virtual void setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) = 0;

  // Takes the handler away, but only if it is `handler` that serves the channel: a plug-in that leaves does not silence
  // the one that came after it on the same name.
  virtual void clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) = 0;
};

}  // namespace mirn
