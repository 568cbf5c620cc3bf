/* A stand-in for the part of the Flutter Linux embedding's interface that the plug-in uses: the same names, signatures
 * and rules, so that linux/ can be compiled and driven where the Flutter SDK can't be installed. Written for these
 * tests; what the engine does behind these calls is played by standin/standin_engine.h. */
#ifndef MIRN_TESTS_FLUTTER_LINUX_STANDIN_H_
#define MIRN_TESTS_FLUTTER_LINUX_STANDIN_H_

#include <gio/gio.h>
#include <glib-object.h>
#include <gtk/gtk.h>
#include <stdbool.h>
#include <stdint.h>

G_BEGIN_DECLS

/* ---- binary messenger ---- */

G_DECLARE_INTERFACE(FlBinaryMessenger, fl_binary_messenger, FL, BINARY_MESSENGER, GObject)

G_DECLARE_DERIVABLE_TYPE(FlBinaryMessengerResponseHandle, fl_binary_messenger_response_handle, FL,
                         BINARY_MESSENGER_RESPONSE_HANDLE, GObject)

struct _FlBinaryMessengerResponseHandleClass {
  GObjectClass parent_class;
};

typedef void (*FlBinaryMessengerMessageHandler)(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                                                FlBinaryMessengerResponseHandle* response_handle, gpointer user_data);

struct _FlBinaryMessengerInterface {
  GTypeInterface parent_iface;

  void (*set_message_handler_on_channel)(FlBinaryMessenger* messenger, const gchar* channel,
                                         FlBinaryMessengerMessageHandler handler, gpointer user_data,
                                         GDestroyNotify destroy_notify);
  gboolean (*send_response)(FlBinaryMessenger* messenger, FlBinaryMessengerResponseHandle* response_handle,
                            GBytes* response, GError** error);
  void (*send_on_channel)(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                          GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data);
  GBytes* (*send_on_channel_finish)(FlBinaryMessenger* messenger, GAsyncResult* result, GError** error);
};

void fl_binary_messenger_set_message_handler_on_channel(FlBinaryMessenger* messenger, const gchar* channel,
                                                        FlBinaryMessengerMessageHandler handler, gpointer user_data,
                                                        GDestroyNotify destroy_notify);
gboolean fl_binary_messenger_send_response(FlBinaryMessenger* messenger,
                                           FlBinaryMessengerResponseHandle* response_handle, GBytes* response,
                                           GError** error);
void fl_binary_messenger_send_on_channel(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                                         GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data);
GBytes* fl_binary_messenger_send_on_channel_finish(FlBinaryMessenger* messenger, GAsyncResult* result, GError** error);

/* ---- textures ---- */

G_DECLARE_INTERFACE(FlTexture, fl_texture, FL, TEXTURE, GObject)

struct _FlTextureInterface {
  GTypeInterface parent_iface;

  void (*set_id)(FlTexture* texture, int64_t id);
  int64_t (*get_id)(FlTexture* texture);
};

int64_t fl_texture_get_id(FlTexture* texture);

G_DECLARE_DERIVABLE_TYPE(FlPixelBufferTexture, fl_pixel_buffer_texture, FL, PIXEL_BUFFER_TEXTURE, GObject)

struct _FlPixelBufferTextureClass {
  GObjectClass parent_class;

  gboolean (*copy_pixels)(FlPixelBufferTexture* texture, const uint8_t** out_buffer, uint32_t* width, uint32_t* height,
                          GError** error);
};

G_DECLARE_INTERFACE(FlTextureRegistrar, fl_texture_registrar, FL, TEXTURE_REGISTRAR, GObject)

struct _FlTextureRegistrarInterface {
  GTypeInterface parent_iface;

  gboolean (*register_texture)(FlTextureRegistrar* registrar, FlTexture* texture);
  gboolean (*mark_texture_frame_available)(FlTextureRegistrar* registrar, FlTexture* texture);
  gboolean (*unregister_texture)(FlTextureRegistrar* registrar, FlTexture* texture);
};

gboolean fl_texture_registrar_register_texture(FlTextureRegistrar* registrar, FlTexture* texture);
gboolean fl_texture_registrar_mark_texture_frame_available(FlTextureRegistrar* registrar, FlTexture* texture);
gboolean fl_texture_registrar_unregister_texture(FlTextureRegistrar* registrar, FlTexture* texture);

/* ---- registrar and registry ---- */

G_DECLARE_INTERFACE(FlPluginRegistrar, fl_plugin_registrar, FL, PLUGIN_REGISTRAR, GObject)

struct _FlPluginRegistrarInterface {
  GTypeInterface parent_iface;

  FlBinaryMessenger* (*get_messenger)(FlPluginRegistrar* registrar);
  FlTextureRegistrar* (*get_texture_registrar)(FlPluginRegistrar* registrar);
};

FlBinaryMessenger* fl_plugin_registrar_get_messenger(FlPluginRegistrar* registrar);
FlTextureRegistrar* fl_plugin_registrar_get_texture_registrar(FlPluginRegistrar* registrar);

G_DECLARE_INTERFACE(FlPluginRegistry, fl_plugin_registry, FL, PLUGIN_REGISTRY, GObject)

struct _FlPluginRegistryInterface {
  GTypeInterface parent_iface;

  FlPluginRegistrar* (*get_registrar_for_plugin)(FlPluginRegistry* registry, const gchar* name);
};

FlPluginRegistrar* fl_plugin_registry_get_registrar_for_plugin(FlPluginRegistry* registry, const gchar* name);

G_END_DECLS

#endif /* MIRN_TESTS_FLUTTER_LINUX_STANDIN_H_ */
