#include "host/engine.h"

#include <utility>

#include "host/host_messenger.h"
#include "host/host_textures.h"
#include "platform/main_queue.h"

namespace mirn {

Engine::Engine() : registry_(std::make_shared<Registry>()), messenger_(std::make_shared<Messenger>()) {
  mainQueue();  // made here, on the platform thread, and not by the first thread that happens to send
}

Engine::~Engine() {
  for (const auto& registrar : registrars_) {
    registrar->detach();
  }
  registrars_.clear();
  messenger_->close();
  registry_->stop();
}

BinaryMessenger& Engine::messenger() {
  return *messenger_;
}

std::shared_ptr<TextureRegistry> Engine::textures() {
  return registry_;
}

PluginRegistrar& Engine::makeRegistrar() {
  registrars_.push_back(std::make_unique<PluginRegistrar>(*messenger_, registry_));
  return *registrars_.back();
}

ChannelReply Engine::deliver(std::string_view channel, std::span<const uint8_t> message) {
  return messenger_->deliver(channel, message);
}

void Engine::send(std::string_view channel, std::vector<uint8_t> message, ReplyCallback reply) {
  messenger_->post(channel, std::move(message), std::move(reply));
}

void Engine::setApplicationHandler(std::string_view channel, ApplicationHandler handler) {
  messenger_->setApplicationHandler(channel, std::move(handler));
}

void Engine::setFrameListener(FrameListener listener) {
  registry_->setFrameListener(std::move(listener));
}

PixelBufferRef Engine::latestPicture(int64_t id) const {
  return registry_->latestPicture(id);
}

TextureStatistics Engine::textureStatistics(int64_t id) const {
  return registry_->statistics(id);
}

size_t Engine::textureCount() const {
  return registry_->count();
}

void Engine::setRasterRate(int per_second) {
  registry_->setRate(per_second);
}

void Engine::syncRaster() {
  registry_->sync();
}

}  // namespace mirn
