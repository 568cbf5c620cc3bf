#include "include/flutter_mirn/flutter_mirn_plugin.h"

#include "linux/registration.h"
#include "plugin/registration.h"

struct _FlutterMirnPlugin {
  GObject parent_instance;
  mirn::Registration* registration;
};

G_DEFINE_TYPE(FlutterMirnPlugin, flutter_mirn_plugin, g_object_get_type())

static void flutter_mirn_plugin_dispose(GObject* object) {
  delete g_steal_pointer(&reinterpret_cast<FlutterMirnPlugin*>(object)->registration);
  G_OBJECT_CLASS(flutter_mirn_plugin_parent_class)->dispose(object);
}

static void flutter_mirn_plugin_class_init(FlutterMirnPluginClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = flutter_mirn_plugin_dispose;
}

static void flutter_mirn_plugin_init(FlutterMirnPlugin* self) {
  self->registration = nullptr;
}

void flutter_mirn_plugin_register_with_registrar(FlPluginRegistrar* registrar) {
  auto* self = static_cast<FlutterMirnPlugin*>(g_object_new(flutter_mirn_plugin_get_type(), nullptr));
  // The object belongs to its registration's handler: when the engine takes that away, it goes.
  self->registration = new mirn::Registration(registrar, [self] { g_object_unref(self); });
  if (!self->registration->begin(mirn::registerFlutterMirnPlugin)) {
    g_object_unref(self);
  }
}
