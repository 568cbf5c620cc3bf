// The messenger of host/engine.h. Not for users of the engine.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "embedding/binary_messenger.h"
#include "host/engine.h"

namespace mirn {

// Bound to the platform thread, except post(). Tasks in the main queue keep it alive after the engine is gone; close()
// makes them come to nothing.
class Engine::Messenger final : public BinaryMessenger, public std::enable_shared_from_this<Engine::Messenger> {
 public:
  // From the plug-in.
  void send(std::string_view channel, std::span<const uint8_t> message,
            std::function<void(std::span<const uint8_t>)> reply) override;
  void setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) override;
  void clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) override;

  // From the application.
  ChannelReply deliver(std::string_view channel, std::span<const uint8_t> message);
  void post(std::string_view channel, std::vector<uint8_t> message, ReplyCallback reply);  // any thread
  void setApplicationHandler(std::string_view channel, ApplicationHandler handler);

  void close();

 private:
  std::shared_ptr<BinaryMessageHandler> handlerOf(const std::string& channel) const;
  void handOver(const std::string& channel, std::span<const uint8_t> message, const ReplyCallback& reply);
  void runTask(const std::function<void()>& task) const;
  void postTask(std::function<void()> task);

  std::map<std::string, std::shared_ptr<BinaryMessageHandler>> handlers_;
  std::map<std::string, ApplicationHandler> application_;
  bool in_handler_ = false;
  bool closed_ = false;
};

}  // namespace mirn
