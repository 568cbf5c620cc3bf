#include "standin/standin_engine.h"

#include <mutex>
#include <optional>
#include <utility>

#include "standin/standin_core.h"

namespace mirn {
namespace {

GBytes* toGBytes(const MessageBytes& bytes) {
  return g_bytes_new(bytes.data(), bytes.size());
}

MessageBytes fromGBytes(GBytes* bytes) {
  if (bytes == nullptr) {
    return {};
  }
  gsize size = 0;
  const auto* data = static_cast<const uint8_t*>(g_bytes_get_data(bytes, &size));
  return {data, data + size};
}

}  // namespace
}  // namespace mirn

using mirn::MessageBytes;
using mirn::StandinCore;
using mirn::WeakCore;

// ---- the handle of one message ----

struct StandinHandle {
  FlBinaryMessengerResponseHandle parent_instance;
  WeakCore* core;
  mirn::StandinEngine::Reply* reply;
  bool responded;
};
struct StandinHandleClass {
  FlBinaryMessengerResponseHandleClass parent_class;
};
G_DEFINE_TYPE(StandinHandle, standin_handle, fl_binary_messenger_response_handle_get_type())

static void standin_handle_finalize(GObject* object) {
  auto* self = reinterpret_cast<StandinHandle*>(object);
  const std::shared_ptr<StandinCore> core = self->core->lock();
  if (!self->responded && core != nullptr && core->running) {
    g_critical("FlBinaryMessengerResponseHandle was not responded to");
    ++core->unanswered;
    core->post([reply = *self->reply] { reply(std::nullopt); });
  }
  delete self->core;
  delete self->reply;
  G_OBJECT_CLASS(standin_handle_parent_class)->finalize(object);
}
static void standin_handle_class_init(StandinHandleClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = standin_handle_finalize;
}
static void standin_handle_init(StandinHandle* self) {
  self->core = new WeakCore;
  self->reply = new mirn::StandinEngine::Reply;
  self->responded = false;
}

// ---- the messenger ----

struct StandinMessenger {
  GObject parent_instance;
  WeakCore* core;
};
struct StandinMessengerClass {
  GObjectClass parent_class;
};

static void setHandler(FlBinaryMessenger* messenger, const gchar* channel, FlBinaryMessengerMessageHandler function,
                       gpointer user_data, GDestroyNotify destroy) {
  const std::shared_ptr<StandinCore> core = reinterpret_cast<StandinMessenger*>(messenger)->core->lock();
  if (core == nullptr || !core->running) {
    if (function != nullptr) {
      g_warning("Attempted to set message handler on a messenger without an engine");
    }
    if (destroy != nullptr) {
      destroy(user_data);
    }
    return;
  }
  StandinCore::Handler old;
  const auto found = core->handlers.find(channel);
  if (found != core->handlers.end()) {
    old = found->second;
    core->handlers.erase(found);
  }
  if (function != nullptr) {
    core->handlers[channel] = {function, user_data, destroy};
  }
  if (old.destroy != nullptr) {
    old.destroy(old.user_data);
  }
}

static gboolean sendResponse(FlBinaryMessenger* messenger, FlBinaryMessengerResponseHandle* handle, GBytes* response,
                             GError** /*error*/) {
  auto* self = reinterpret_cast<StandinHandle*>(handle);
  const std::shared_ptr<StandinCore> core = reinterpret_cast<StandinMessenger*>(messenger)->core->lock();
  if (core == nullptr || !core->running) {
    return TRUE;
  }
  g_return_val_if_fail(!self->responded, FALSE);  // without setting the error, as the real one
  self->responded = true;
  ++core->responses;
  core->post([reply = *self->reply, bytes = mirn::fromGBytes(response)] { reply(bytes); });
  return TRUE;
}

static void sendOnChannel(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                          GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data) {
  const std::shared_ptr<StandinCore> core = reinterpret_cast<StandinMessenger*>(messenger)->core->lock();
  if (core == nullptr || !core->running) {
    return;  // silently: the callback is not called either
  }
  GTask* task = callback != nullptr ? g_task_new(messenger, cancellable, callback, user_data) : nullptr;
  core->post([weak = WeakCore(core), name = std::string(channel), bytes = mirn::fromGBytes(message), task] {
    const std::shared_ptr<StandinCore> engine = weak.lock();
    MessageBytes answer;
    if (engine != nullptr && engine->dart.count(name) != 0) {
      answer = engine->dart[name](bytes);
    }
    if (task != nullptr) {
      g_task_return_pointer(task, mirn::toGBytes(answer), reinterpret_cast<GDestroyNotify>(g_bytes_unref));
      g_object_unref(task);
    }
  });
}

static GBytes* sendOnChannelFinish(FlBinaryMessenger* /*messenger*/, GAsyncResult* result, GError** error) {
  return static_cast<GBytes*>(g_task_propagate_pointer(G_TASK(result), error));
}

static void standin_messenger_iface_init(FlBinaryMessengerInterface* iface) {
  iface->set_message_handler_on_channel = setHandler;
  iface->send_response = sendResponse;
  iface->send_on_channel = sendOnChannel;
  iface->send_on_channel_finish = sendOnChannelFinish;
}
G_DEFINE_TYPE_WITH_CODE(StandinMessenger, standin_messenger, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_binary_messenger_get_type(), standin_messenger_iface_init))
static void standin_messenger_finalize(GObject* object) {
  delete reinterpret_cast<StandinMessenger*>(object)->core;
  G_OBJECT_CLASS(standin_messenger_parent_class)->finalize(object);
}
static void standin_messenger_class_init(StandinMessengerClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = standin_messenger_finalize;
}
static void standin_messenger_init(StandinMessenger* self) {
  self->core = new WeakCore;
}

// ---- the texture registrar ----

struct StandinTextures {
  GObject parent_instance;
  WeakCore* core;
};
struct StandinTexturesClass {
  GObjectClass parent_class;
};

// Null before the engine has started, and after its end.
static std::shared_ptr<StandinCore> runningCore(FlTextureRegistrar* registrar) {
  std::shared_ptr<StandinCore> core = reinterpret_cast<StandinTextures*>(registrar)->core->lock();
  return core != nullptr && core->started && core->running ? core : nullptr;
}

// The id is the object's address.
static gboolean registerTexture(FlTextureRegistrar* registrar, FlTexture* texture) {
  const std::shared_ptr<StandinCore> core = runningCore(registrar);
  if (core == nullptr || !FL_IS_PIXEL_BUFFER_TEXTURE(texture)) {
    return FALSE;
  }
  const auto id = static_cast<int64_t>(reinterpret_cast<intptr_t>(texture));
  FL_TEXTURE_GET_IFACE(texture)->set_id(texture, id);
  const std::lock_guard guard(core->mutex);
  core->textures[id] = {static_cast<FlTexture*>(g_object_ref(texture)), false};
  return TRUE;
}

static gboolean markTexture(FlTextureRegistrar* registrar, FlTexture* texture) {
  const std::shared_ptr<StandinCore> core = runningCore(registrar);
  if (core == nullptr) {
    return FALSE;
  }
  const std::lock_guard guard(core->mutex);
  const auto found = core->textures.find(fl_texture_get_id(texture));
  if (found != core->textures.end()) {
    found->second.cached = false;
  }
  return TRUE;  // also for one that isn't registered
}

static gboolean unregisterTexture(FlTextureRegistrar* registrar, FlTexture* texture) {
  const std::shared_ptr<StandinCore> core = runningCore(registrar);
  if (core == nullptr) {
    return FALSE;
  }
  FlTexture* leaving = nullptr;
  {
    const std::lock_guard guard(core->mutex);
    const auto found = core->textures.find(fl_texture_get_id(texture));
    if (found == core->textures.end()) {
      g_warning("Unregistering a texture twice");
      return FALSE;
    }
    leaving = found->second.object;
    core->textures.erase(found);
  }
  g_object_unref(leaving);  // at once, on this thread, whatever the raster thread is doing
  return TRUE;
}

static void standin_textures_iface_init(FlTextureRegistrarInterface* iface) {
  iface->register_texture = registerTexture;
  iface->mark_texture_frame_available = markTexture;
  iface->unregister_texture = unregisterTexture;
}
G_DEFINE_TYPE_WITH_CODE(StandinTextures, standin_textures, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_texture_registrar_get_type(), standin_textures_iface_init))
static void standin_textures_finalize(GObject* object) {
  delete reinterpret_cast<StandinTextures*>(object)->core;
  G_OBJECT_CLASS(standin_textures_parent_class)->finalize(object);
}
static void standin_textures_class_init(StandinTexturesClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = standin_textures_finalize;
}
static void standin_textures_init(StandinTextures* self) {
  self->core = new WeakCore;
}

// ---- registrar and registry ----

struct StandinRegistrar {
  GObject parent_instance;
  FlBinaryMessenger* messenger;
  FlTextureRegistrar* textures;
};
struct StandinRegistrarClass {
  GObjectClass parent_class;
};
static void standin_registrar_iface_init(FlPluginRegistrarInterface* iface) {
  iface->get_messenger = [](FlPluginRegistrar* self) { return reinterpret_cast<StandinRegistrar*>(self)->messenger; };
  iface->get_texture_registrar = [](FlPluginRegistrar* self) {
    return reinterpret_cast<StandinRegistrar*>(self)->textures;
  };
}
G_DEFINE_TYPE_WITH_CODE(StandinRegistrar, standin_registrar, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registrar_get_type(), standin_registrar_iface_init))
static void standin_registrar_finalize(GObject* object) {
  auto* self = reinterpret_cast<StandinRegistrar*>(object);
  g_object_unref(self->messenger);
  g_object_unref(self->textures);
  G_OBJECT_CLASS(standin_registrar_parent_class)->finalize(object);
}
static void standin_registrar_class_init(StandinRegistrarClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = standin_registrar_finalize;
}
static void standin_registrar_init(StandinRegistrar* self) {
  self->messenger = nullptr;
  self->textures = nullptr;
}

struct StandinRegistry {
  GObject parent_instance;
  WeakCore* core;
};
struct StandinRegistryClass {
  GObjectClass parent_class;
};
static void standin_registry_iface_init(FlPluginRegistryInterface* iface) {
  // Each call makes a new registrar; the name is ignored.
  iface->get_registrar_for_plugin = [](FlPluginRegistry* self, const gchar* /*name*/) -> FlPluginRegistrar* {
    const std::shared_ptr<StandinCore> core = reinterpret_cast<StandinRegistry*>(self)->core->lock();
    g_return_val_if_fail(core != nullptr, nullptr);
    auto* registrar = static_cast<StandinRegistrar*>(g_object_new(standin_registrar_get_type(), nullptr));
    registrar->messenger = static_cast<FlBinaryMessenger*>(g_object_ref(core->messenger));
    registrar->textures = static_cast<FlTextureRegistrar*>(g_object_ref(core->texture_registrar));
    return reinterpret_cast<FlPluginRegistrar*>(registrar);
  };
}
G_DEFINE_TYPE_WITH_CODE(StandinRegistry, standin_registry, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_plugin_registry_get_type(), standin_registry_iface_init))
static void standin_registry_finalize(GObject* object) {
  delete reinterpret_cast<StandinRegistry*>(object)->core;
  G_OBJECT_CLASS(standin_registry_parent_class)->finalize(object);
}
static void standin_registry_class_init(StandinRegistryClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = standin_registry_finalize;
}
static void standin_registry_init(StandinRegistry* self) {
  self->core = new WeakCore;
}

namespace mirn {

// ---- the engine ----

void StandinCore::dispatch(const std::string& channel, const MessageBytes& message, StandinEngine::Reply reply) {
  if (!running) {
    return;
  }
  const auto found = handlers.find(channel);
  if (found == handlers.end()) {
    post([reply = std::move(reply)] { reply(MessageBytes()); });
    return;
  }
  auto* handle = static_cast<StandinHandle*>(g_object_new(standin_handle_get_type(), nullptr));
  *handle->core = weak_from_this();
  *handle->reply = std::move(reply);
  GBytes* bytes = toGBytes(message);
  const Handler handler = found->second;
  handler.function(messenger, channel.c_str(), bytes, reinterpret_cast<FlBinaryMessengerResponseHandle*>(handle),
                   handler.user_data);
  g_bytes_unref(bytes);
  g_object_unref(handle);
}

StandinEngine::StandinEngine(bool started) : core_(std::make_shared<StandinCore>()) {
  core_->started = started;
  auto* messenger = static_cast<StandinMessenger*>(g_object_new(standin_messenger_get_type(), nullptr));
  auto* textures = static_cast<StandinTextures*>(g_object_new(standin_textures_get_type(), nullptr));
  auto* registry = static_cast<StandinRegistry*>(g_object_new(standin_registry_get_type(), nullptr));
  *messenger->core = *textures->core = *registry->core = core_;
  core_->messenger = reinterpret_cast<FlBinaryMessenger*>(messenger);
  core_->texture_registrar = reinterpret_cast<FlTextureRegistrar*>(textures);
  core_->registry = reinterpret_cast<FlPluginRegistry*>(registry);
  core_->raster = std::thread([core = core_.get()] { core->rasterLoop(); });
}

StandinEngine::~StandinEngine() {
  shutdown();
}

FlPluginRegistry* StandinEngine::registry() {
  return core_->registry;
}

void StandinEngine::start() {
  core_->started = true;
}

void StandinEngine::shutdown() {
  if (!std::exchange(core_->running, false)) {
    return;
  }
  core_->stopRaster();
  core_->shutdownMessenger();
  core_->shutdownTextures();
  g_object_unref(core_->registry);
  g_object_unref(core_->messenger);
  g_object_unref(core_->texture_registrar);
}

void StandinEngine::send(const std::string& channel, MessageBytes message, Reply reply) {
  core_->post([weak = WeakCore(core_), channel, message = std::move(message), reply = std::move(reply)] {
    if (const std::shared_ptr<StandinCore> core = weak.lock()) {
      core->dispatch(channel, message, reply);
    }
  });
}

void StandinEngine::setDartHandler(const std::string& channel, DartHandler handler) {
  core_->dart[channel] = std::move(handler);
}

size_t StandinEngine::handlers() const {
  return core_->handlers.size();
}

std::vector<std::string> StandinEngine::channels() const {
  std::vector<std::string> names;
  for (const auto& [name, handler] : core_->handlers) {
    names.push_back(name);
  }
  return names;
}

size_t StandinEngine::textures() const {
  const std::lock_guard guard(core_->mutex);
  return core_->textures.size();
}

uint64_t StandinEngine::responsesSent() const {
  return core_->responses;
}

uint64_t StandinEngine::unansweredHandles() const {
  return core_->unanswered;
}

void StandinEngine::paintLater(int64_t id, std::function<void(const Painted&)> done) {
  {
    const std::lock_guard guard(core_->mutex);
    core_->raster_tasks.push_back([core = core_.get(), id, done = std::move(done)] { done(core->paintNow(id)); });
  }
  core_->wake.notify_all();
}

Painted StandinEngine::paint(int64_t id) {
  std::mutex mutex;
  std::condition_variable wake;
  std::optional<Painted> result;
  paintLater(id, [&](const Painted& painted) {
    const std::lock_guard guard(mutex);
    result = painted;
    wake.notify_all();
  });
  std::unique_lock lock(mutex);
  wake.wait(lock, [&] { return result.has_value(); });
  return *result;
}

void StandinEngine::setPaintHooks(std::function<void()> looked_up, std::function<void()> returned) {
  core_->looked_up = std::move(looked_up);
  core_->returned = std::move(returned);
}

}  // namespace mirn
