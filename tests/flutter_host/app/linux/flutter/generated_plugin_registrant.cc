// As the tool writes it for an application that uses the plug-in.
#include "generated_plugin_registrant.h"

#include <flutter_mirn/flutter_mirn_plugin_c_api.h>

void fl_register_plugins(FlPluginRegistry* registry) {
  g_autoptr(FlPluginRegistrar) flutter_mirn_registrar =
      fl_plugin_registry_get_registrar_for_plugin(registry, "FlutterMirnPluginCApi");
  flutter_mirn_plugin_c_api_register_with_registrar(flutter_mirn_registrar);
}
