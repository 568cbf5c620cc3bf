#include "linux/fl_textures.h"

#include <utility>

#include "platform/main_queue.h"

namespace mirn {

namespace {

using SharedAdapter = std::shared_ptr<FlTexturesAdapter>;

// Nobody has business on a channel that only watches the engine: not implemented. Unanswered it would be an error.
void refuseMessage(FlBinaryMessenger* messenger, const gchar* /*channel*/, GBytes* /*message*/,
                   FlBinaryMessengerResponseHandle* response_handle, gpointer /*adapter*/) {
  fl_binary_messenger_send_response(messenger, response_handle, nullptr, nullptr);
}

}  // namespace

FlTexturesAdapter::FlTexturesAdapter(FlTextureRegistrar* registrar, FlBinaryMessenger* messenger)
    : registrar_(static_cast<FlTextureRegistrar*>(g_object_ref(registrar))),
      messenger_(static_cast<FlBinaryMessenger*>(g_object_ref(messenger))) {}

// Either the engine has ended, or there never was a texture and only the registration has held this.
FlTexturesAdapter::~FlTexturesAdapter() {
  g_clear_object(&registrar_);
  g_clear_object(&messenger_);
}

int64_t FlTexturesAdapter::registerTexture(std::shared_ptr<ExternalTexture> texture) {
  if (registrar_ == nullptr) {
    return 0;
  }
  releaseRetired();
  TextureObject object(newPixelTexture(texture, watch_));
  if (fl_texture_registrar_register_texture(registrar_, FL_TEXTURE(object.get())) == FALSE) {
    g_warning("flutter_mirn: the engine registers no textures now");
    return 0;
  }
  const int64_t id = fl_texture_get_id(FL_TEXTURE(object.get()));
  {
    const MutexGuard guard(mutex_);
    entries_[id] = Entry{std::move(object), std::move(texture), false};
  }
  watchEngine();
  return id;
}

void FlTexturesAdapter::textureFrameAvailable(int64_t id) {
  if (mainQueue().isCurrent()) {
    markNow(id);
    return;
  }
  {
    const MutexGuard guard(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end() || std::exchange(found->second.mark_posted, true)) {
      return;
    }
  }
  mainQueue().post([self = shared_from_this(), id] { self->markNow(id); });
}

void FlTexturesAdapter::markNow(int64_t id) {
  releaseRetired();
  MirnPixelTexture* object = nullptr;
  {
    const MutexGuard guard(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) {
      return;
    }
    found->second.mark_posted = false;
    object = found->second.object.get();  // only this thread takes entries out
  }
  fl_texture_registrar_mark_texture_frame_available(registrar_, FL_TEXTURE(object));
}

void FlTexturesAdapter::unregisterTexture(int64_t id) {
  if (mainQueue().isCurrent()) {
    unregisterNow(id);
  } else {
    mainQueue().post([self = shared_from_this(), id] { self->unregisterNow(id); });
  }
}

void FlTexturesAdapter::unregisterNow(int64_t id) {
  Entry entry;
  {
    const MutexGuard guard(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) {
      return;
    }
    entry = std::move(found->second);
    entries_.erase(found);
  }
  fl_texture_registrar_unregister_texture(registrar_, FL_TEXTURE(entry.object.get()));
  entry.texture->onTextureUnregistered(entry.texture.get());
  // After the embedding has forgotten it: it begins no new task with it.
  watch_->await(entry.object.get());
  retired_.push_back(std::move(entry.object));
  releaseRetired();
}

void FlTexturesAdapter::releaseRetired() {
  std::erase_if(retired_, [this](const TextureObject& one) { return !watch_->awaits(one.get()); });
}

// The name belongs to this object as long as the handler keeps it alive, so nobody replaces the handler: its destroy
// notify is the engine's end and nothing else.
void FlTexturesAdapter::watchEngine() {
  if (std::exchange(watching_, true)) {
    return;
  }
  g_autofree gchar* channel = g_strdup_printf("flutter_mirn/textures/%p", static_cast<void*>(this));
  fl_binary_messenger_set_message_handler_on_channel(
      messenger_, channel, refuseMessage, new SharedAdapter(shared_from_this()), [](gpointer adapter) {
        const std::unique_ptr<SharedAdapter> self(static_cast<SharedAdapter*>(adapter));
        (*self)->engineEnded();
      });
}

void FlTexturesAdapter::engineEnded() {
  std::map<int64_t, Entry> entries;
  {
    const MutexGuard guard(mutex_);
    entries.swap(entries_);
  }
  for (const auto& [id, entry] : entries) {
    entry.texture->onTextureUnregistered(entry.texture.get());
  }
  retired_.clear();
  g_clear_object(&registrar_);
  g_clear_object(&messenger_);
}

}  // namespace mirn
