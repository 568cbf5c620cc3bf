#ifndef FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_C_API_H_
#define FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_C_API_H_

#include <flutter_linux/flutter_linux.h>

G_BEGIN_DECLS

#ifndef FLUTTER_PLUGIN_EXPORT
#ifdef FLUTTER_PLUGIN_IMPL
#define FLUTTER_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define FLUTTER_PLUGIN_EXPORT
#endif
#endif

typedef struct _FlutterMirnPluginCApi FlutterMirnPluginCApi;
typedef struct {
  GObjectClass parent_class;
} FlutterMirnPluginCApiClass;

/**
 * flutter_mirn_plugin_c_api_get_type:
 *
 * Returns: the type of the object that stands for one registration.
 */
FLUTTER_PLUGIN_EXPORT GType flutter_mirn_plugin_c_api_get_type();

/**
 * flutter_mirn_plugin_c_api_register_with_registrar:
 * @registrar: an #FlPluginRegistrar of the engine that loads the plug-in.
 *
 * Registers the main plug-in (device, video, textures) on the channel "flutter_mirn". The tool's generated registrant
 * calls it. Call it on the platform thread, after the engine has started.
 */
FLUTTER_PLUGIN_EXPORT void flutter_mirn_plugin_c_api_register_with_registrar(FlPluginRegistrar* registrar);

/**
 * flutter_mirn_destroy_texture:
 * @id: what "createTexture" has answered.
 *
 * Unregisters and forgets one texture; an unknown id is ignored. No command of the channel does this: Dart reaches it
 * through dart:ffi. Any thread.
 */
FLUTTER_PLUGIN_EXPORT void flutter_mirn_destroy_texture(int64_t id);

G_END_DECLS

#endif  // FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_C_API_H_
