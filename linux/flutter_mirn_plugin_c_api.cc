#include "include/flutter_mirn/flutter_mirn_plugin_c_api.h"

#include "linux/registration.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"

struct _FlutterMirnPluginCApi {
  GObject parent_instance;
  mirn::Registration* registration;
};

G_DEFINE_TYPE(FlutterMirnPluginCApi, flutter_mirn_plugin_c_api, g_object_get_type())

static void flutter_mirn_plugin_c_api_dispose(GObject* object) {
  delete g_steal_pointer(&reinterpret_cast<FlutterMirnPluginCApi*>(object)->registration);
  G_OBJECT_CLASS(flutter_mirn_plugin_c_api_parent_class)->dispose(object);
}

static void flutter_mirn_plugin_c_api_class_init(FlutterMirnPluginCApiClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = flutter_mirn_plugin_c_api_dispose;
}

static void flutter_mirn_plugin_c_api_init(FlutterMirnPluginCApi* self) {
  self->registration = nullptr;
}

void flutter_mirn_plugin_c_api_register_with_registrar(FlPluginRegistrar* registrar) {
  auto* self = static_cast<FlutterMirnPluginCApi*>(g_object_new(flutter_mirn_plugin_c_api_get_type(), nullptr));
  // The object belongs to its registration's handler: when the engine takes that away, it goes.
  self->registration = new mirn::Registration(registrar, [self] { g_object_unref(self); });
  if (!self->registration->begin(mirn::registerFlutterMirnPluginCApi)) {
    g_object_unref(self);
  }
}

void flutter_mirn_destroy_texture(int64_t id) {
  mirn::destroyTexture(id);
}
