#ifndef FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_H_
#define FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_H_

#include <flutter_linux/flutter_linux.h>

G_BEGIN_DECLS

#ifndef FLUTTER_PLUGIN_EXPORT
#ifdef FLUTTER_PLUGIN_IMPL
#define FLUTTER_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define FLUTTER_PLUGIN_EXPORT
#endif
#endif

typedef struct _FlutterMirnPlugin FlutterMirnPlugin;
typedef struct {
  GObjectClass parent_class;
} FlutterMirnPluginClass;

/**
 * flutter_mirn_plugin_get_type:
 *
 * Returns: the type of the object that stands for one registration.
 */
FLUTTER_PLUGIN_EXPORT GType flutter_mirn_plugin_get_type();

/**
 * flutter_mirn_plugin_register_with_registrar:
 * @registrar: an #FlPluginRegistrar of the engine that loads the plug-in.
 *
 * Registers the second plug-in (frames as raw bytes) on the channel "flutter_mirn", for hosts that want it: where both
 * are registered, the one registered last gets the calls. Call it on the platform thread.
 */
FLUTTER_PLUGIN_EXPORT void flutter_mirn_plugin_register_with_registrar(FlPluginRegistrar* registrar);

G_END_DECLS

#endif  // FLUTTER_PLUGIN_FLUTTER_MIRN_FLUTTER_MIRN_PLUGIN_H_
