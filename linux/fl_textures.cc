#include "linux/fl_textures.h"

#include <utility>

#include "platform/main_queue.h"

namespace mirn {

FlTexturesAdapter::FlTexturesAdapter(FlTextureRegistrar* registrar)
    : registrar_(static_cast<FlTextureRegistrar*>(g_object_ref(registrar))) {}

FlTexturesAdapter::~FlTexturesAdapter() {
  g_object_unref(registrar_);
}

int64_t FlTexturesAdapter::registerTexture(std::shared_ptr<ExternalTexture> texture) {
  releaseRetired();
  TextureObject object(newPixelTexture(texture, watch_));
  if (fl_texture_registrar_register_texture(registrar_, FL_TEXTURE(object.get())) == FALSE) {
    g_warning("flutter_mirn: the engine registers no textures now");
    return 0;
  }
  const int64_t id = fl_texture_get_id(FL_TEXTURE(object.get()));
  const MutexGuard guard(mutex_);
  entries_[id] = Entry{std::move(object), std::move(texture), false};
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
  const bool accepted = fl_texture_registrar_unregister_texture(registrar_, FL_TEXTURE(entry.object.get())) != FALSE;
  entry.texture->onTextureUnregistered(entry.texture.get());
  // After the embedding has forgotten it: it begins no new task with it.
  watch_->await(entry.object.get());
  retired_.push_back(std::move(entry.object));
  releaseRetired();
  if (!accepted && !retired_.empty() && engineIsGone(retired_.front().get())) {
    retired_.clear();
  }
}

void FlTexturesAdapter::releaseRetired() {
  std::erase_if(retired_, [this](const TextureObject& one) { return !watch_->awaits(one.get()); });
}

bool FlTexturesAdapter::engineIsGone(MirnPixelTexture* any) {
  // Marking an id that isn't registered is harmless; only a missing engine refuses it.
  return fl_texture_registrar_mark_texture_frame_available(registrar_, FL_TEXTURE(any)) == FALSE;
}

void FlTexturesAdapter::registrationEnded() {
  releaseRetired();
  MirnPixelTexture* any = retired_.empty() ? nullptr : retired_.front().get();
  {
    const MutexGuard guard(mutex_);
    if (any == nullptr && !entries_.empty()) {
      any = entries_.begin()->second.object.get();
    }
  }
  if (any == nullptr || !engineIsGone(any)) {
    return;  // another plug-in took the channel over: the textures go on until somebody destroys them
  }
  std::map<int64_t, Entry> entries;
  {
    const MutexGuard guard(mutex_);
    entries.swap(entries_);
  }
  for (const auto& [id, entry] : entries) {
    entry.texture->onTextureUnregistered(entry.texture.get());
  }
  retired_.clear();
}

}  // namespace mirn
