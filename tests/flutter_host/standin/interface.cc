// The interface types and the functions that go through their tables.
#include <flutter_linux/flutter_linux.h>

G_DEFINE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, G_TYPE_OBJECT)
G_DEFINE_TYPE(FlBinaryMessengerResponseHandle, fl_binary_messenger_response_handle, G_TYPE_OBJECT)
G_DEFINE_INTERFACE(FlTexture, fl_texture, G_TYPE_OBJECT)
G_DEFINE_INTERFACE(FlTextureRegistrar, fl_texture_registrar, G_TYPE_OBJECT)
G_DEFINE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, G_TYPE_OBJECT)
G_DEFINE_INTERFACE(FlPluginRegistry, fl_plugin_registry, G_TYPE_OBJECT)

static void fl_binary_messenger_default_init(FlBinaryMessengerInterface* /*iface*/) {}
static void fl_binary_messenger_response_handle_class_init(FlBinaryMessengerResponseHandleClass* /*klass*/) {}
static void fl_binary_messenger_response_handle_init(FlBinaryMessengerResponseHandle* /*self*/) {}
static void fl_texture_default_init(FlTextureInterface* /*iface*/) {}
static void fl_texture_registrar_default_init(FlTextureRegistrarInterface* /*iface*/) {}
static void fl_plugin_registrar_default_init(FlPluginRegistrarInterface* /*iface*/) {}
static void fl_plugin_registry_default_init(FlPluginRegistryInterface* /*iface*/) {}

void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler, gpointer user_data,
                                                        GDestroyNotify destroy_notify) {
  g_return_if_fail(FL_IS_BINARY_MESSENGER(messenger));
  g_return_if_fail(channel != nullptr);
  FL_BINARY_MESSENGER_GET_IFACE(messenger)->set_message_handler_on_channel(messenger, channel, handler, user_data,
                                                                           destroy_notify);
}

gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* response_handle, GBytes* response,
                                           GError** error) {
  g_return_val_if_fail(FL_IS_BINARY_MESSENGER(messenger), FALSE);
  g_return_val_if_fail(FL_IS_BINARY_MESSENGER_RESPONSE_HANDLE(response_handle), FALSE);
  return FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_response(messenger, response_handle, response, error);
}

void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                                         GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(FL_IS_BINARY_MESSENGER(messenger));
  FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_on_channel(messenger, channel, message, cancellable, callback,
                                                            user_data);
}

GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger* messenger, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(FL_IS_BINARY_MESSENGER(messenger), nullptr);
  return FL_BINARY_MESSENGER_GET_IFACE(messenger)->send_on_channel_finish(messenger, result, error);
}

int64_t fl_texture_get_id(FlTexture* texture) {
  g_return_val_if_fail(FL_IS_TEXTURE(texture), -1);
  return FL_TEXTURE_GET_IFACE(texture)->get_id(texture);
}

gboolean fl_texture_registrar_register_texture(FlTextureRegistrar* registrar, FlTexture* texture) {
  g_return_val_if_fail(FL_IS_TEXTURE_REGISTRAR(registrar) && FL_IS_TEXTURE(texture), FALSE);
  return FL_TEXTURE_REGISTRAR_GET_IFACE(registrar)->register_texture(registrar, texture);
}

gboolean fl_texture_registrar_mark_texture_frame_available(FlTextureRegistrar* registrar, FlTexture* texture) {
  g_return_val_if_fail(FL_IS_TEXTURE_REGISTRAR(registrar) && FL_IS_TEXTURE(texture), FALSE);
  return FL_TEXTURE_REGISTRAR_GET_IFACE(registrar)->mark_texture_frame_available(registrar, texture);
}

gboolean fl_texture_registrar_unregister_texture(FlTextureRegistrar* registrar, FlTexture* texture) {
  g_return_val_if_fail(FL_IS_TEXTURE_REGISTRAR(registrar) && FL_IS_TEXTURE(texture), FALSE);
  return FL_TEXTURE_REGISTRAR_GET_IFACE(registrar)->unregister_texture(registrar, texture);
}

FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar) {
  g_return_val_if_fail(FL_IS_PLUGIN_REGISTRAR(registrar), nullptr);
  return FL_PLUGIN_REGISTRAR_GET_IFACE(registrar)->get_messenger(registrar);
}

FlTextureRegistrar* fl_plugin_registrar_get_texture_registrar(FlPluginRegistrar* registrar) {
  g_return_val_if_fail(FL_IS_PLUGIN_REGISTRAR(registrar), nullptr);
  return FL_PLUGIN_REGISTRAR_GET_IFACE(registrar)->get_texture_registrar(registrar);
}

FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry, const gchar* name) {
  g_return_val_if_fail(FL_IS_PLUGIN_REGISTRY(registry), nullptr);
  return FL_PLUGIN_REGISTRY_GET_IFACE(registry)->get_registrar_for_plugin(registry, name);
}

/* ---- the pixel-buffer texture's base class ---- */

typedef struct {
  int64_t id;
} FlPixelBufferTexturePrivate;

static void texture_iface_init(FlTextureInterface* iface);

G_DEFINE_TYPE_WITH_CODE(FlPixelBufferTexture, fl_pixel_buffer_texture, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(fl_texture_get_type(), texture_iface_init)
                            G_ADD_PRIVATE(FlPixelBufferTexture))

static FlPixelBufferTexturePrivate* privateOf(FlTexture* texture) {
  return static_cast<FlPixelBufferTexturePrivate*>(
      fl_pixel_buffer_texture_get_instance_private(FL_PIXEL_BUFFER_TEXTURE(texture)));
}

static void texture_iface_init(FlTextureInterface* iface) {
  iface->set_id = [](FlTexture* texture, int64_t id) { privateOf(texture)->id = id; };
  iface->get_id = [](FlTexture* texture) -> int64_t { return privateOf(texture)->id; };
}

static void fl_pixel_buffer_texture_class_init(FlPixelBufferTextureClass* /*klass*/) {}
static void fl_pixel_buffer_texture_init(FlPixelBufferTexture* self) {
  privateOf(FL_TEXTURE(self))->id = 0;
}
