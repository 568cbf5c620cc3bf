#include "host/host_messenger.h"

#include <cstdio>
#include <exception>
#include <utility>

#include "platform/main_queue.h"

namespace mirn {
namespace {

// Tells one outcome and is gone.
class ReplySink final : public BinaryReplySink {
 public:
  explicit ReplySink(Engine::ReplyCallback done) : done_(std::move(done)) {}

  void answered(std::span<const uint8_t> reply) override {
    const auto kind = reply.empty() ? ChannelReply::Kind::kNotImplemented : ChannelReply::Kind::kReply;
    finish({kind, std::vector<uint8_t>(reply.begin(), reply.end())});
  }
  void dropped() override { finish({ChannelReply::Kind::kNoReply, {}}); }

 private:
  void finish(ChannelReply reply) {
    const Engine::ReplyCallback done = std::move(done_);
    delete this;
    done(std::move(reply));
  }

  Engine::ReplyCallback done_;
};

// The reply that the handler held is dropped by then, and told so.
void handlerThrew(const std::string& channel, const char* reason) {
  std::fprintf(stderr, "host: the handler of \"%s\" failed: %s\n", channel.c_str(), reason);
}

}  // namespace

void Engine::Messenger::setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) {
  if (!closed_) {
    std::swap(handlers_[std::string(channel)], handler);  // the old one goes after the table is whole again
  }
}

void Engine::Messenger::clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) {
  const auto found = handlers_.find(std::string(channel));
  if (found == handlers_.end() || found->second.get() != handler) {
    return;
  }
  const std::shared_ptr<BinaryMessageHandler> leaving = std::move(found->second);
  handlers_.erase(found);
}

std::shared_ptr<BinaryMessageHandler> Engine::Messenger::handlerOf(const std::string& channel) const {
  const auto found = handlers_.find(channel);
  return found == handlers_.end() ? nullptr : found->second;
}

void Engine::Messenger::handOver(const std::string& channel, std::span<const uint8_t> message,
                                 const ReplyCallback& reply) {
  const std::shared_ptr<BinaryMessageHandler> handler = handlerOf(channel);
  if (handler == nullptr) {
    reply({ChannelReply::Kind::kNotImplemented, {}});
    return;
  }
  const bool nested = std::exchange(in_handler_, true);  // a handler may run the loop
  try {
    handler->onMessage(message, BinaryReply(new ReplySink(reply)));
  } catch (const std::exception& failure) {
    handlerThrew(channel, failure.what());
  } catch (...) {
    handlerThrew(channel, "not a standard exception");
  }
  in_handler_ = nested;
}

ChannelReply Engine::Messenger::deliver(std::string_view channel, std::span<const uint8_t> message) {
  if (in_handler_) {
    std::fprintf(stderr, "host: a message to \"%s\" was sent from inside a handler and is not delivered\n",
                 std::string(channel).c_str());
    return {};
  }
  auto outcome = std::make_shared<ChannelReply>(ChannelReply{ChannelReply::Kind::kPending, {}});
  handOver(std::string(channel), message, [outcome](ChannelReply reply) { *outcome = std::move(reply); });
  return *outcome;
}

void Engine::Messenger::post(std::string_view channel, std::vector<uint8_t> message, ReplyCallback reply) {
  postTask([this, name = std::string(channel), bytes = std::move(message), done = std::move(reply)] {
    handOver(name, bytes, [self = weak_from_this(), done](ChannelReply outcome) {
      const std::shared_ptr<Messenger> engine = self.lock();
      if (engine != nullptr && done != nullptr) {
        engine->postTask([done, outcome = std::move(outcome)] { done(outcome); });
      }
    });
  });
}

void Engine::Messenger::send(std::string_view channel, std::span<const uint8_t> message,
                             std::function<void(std::span<const uint8_t>)> reply) {
  postTask([this, name = std::string(channel), bytes = std::vector<uint8_t>(message.begin(), message.end()),
            done = std::move(reply)] {
    const auto found = application_.find(name);
    if (found != application_.end()) {
      const ApplicationHandler handler = found->second;
      handler(
          bytes, done != nullptr ? done : [](std::span<const uint8_t>) {});
    } else if (done != nullptr) {
      done({});
    }
  });
}

void Engine::Messenger::setApplicationHandler(std::string_view channel, ApplicationHandler handler) {
  if (handler != nullptr) {
    application_[std::string(channel)] = std::move(handler);
  } else {
    application_.erase(std::string(channel));
  }
}

void Engine::Messenger::postTask(std::function<void()> task) {
  mainQueue().post([self = shared_from_this(), task = std::move(task)] { self->runTask(task); });
}

void Engine::Messenger::runTask(const std::function<void()>& task) const {
  if (!closed_) {
    task();
  }
}

void Engine::Messenger::close() {
  closed_ = true;
  const auto handlers = std::exchange(handlers_, {});
  application_.clear();
}

}  // namespace mirn
