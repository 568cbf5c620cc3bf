// A messenger that delivers within the call and remembers what came of it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "embedding/binary_messenger.h"

namespace mirn::test {

class FakeMessenger : public BinaryMessenger {
 public:
  struct Outcome final : BinaryReplySink {
    std::optional<std::vector<uint8_t>> reply;
    int answers = 0;
    int drops = 0;

    void answered(std::span<const uint8_t> bytes) override {
      reply.emplace(bytes.begin(), bytes.end());
      ++answers;
    }
    void dropped() override { ++drops; }
  };

  struct Sent {
    std::string channel;
    std::vector<uint8_t> message;
  };

  // A channel without a handler gives the empty reply.
  Outcome deliver(std::string_view channel, std::span<const uint8_t> message) {
    Outcome outcome;
    BinaryReply reply(&outcome);
    const auto found = handlers_.find(std::string(channel));
    if (found == handlers_.end()) {
      reply.answer({});
    } else {
      const std::shared_ptr<BinaryMessageHandler> handler = found->second;
      handler->onMessage(message, std::move(reply));
    }
    return outcome;
  }

  void send(std::string_view channel, std::span<const uint8_t> message,
            std::function<void(std::span<const uint8_t>)> reply) override {
    sent.push_back({std::string(channel), {message.begin(), message.end()}});
    if (reply) reply({});
  }

  void setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) override {
    handlers_[std::string(channel)] = std::move(handler);
  }

  void clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) override {
    const auto found = handlers_.find(std::string(channel));
    if (found != handlers_.end() && found->second.get() == handler) handlers_.erase(found);
  }

  bool serves(std::string_view channel) const { return handlers_.contains(std::string(channel)); }

  std::vector<Sent> sent;

 private:
  std::map<std::string, std::shared_ptr<BinaryMessageHandler>> handlers_;
};

}  // namespace mirn::test
