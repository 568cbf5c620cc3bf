#include "linux/registration.h"

#include <utility>

namespace mirn {

Registration::Registration(FlPluginRegistrar* registrar, std::function<void()> ended)
    : ended_(std::move(ended)),
      messenger_(fl_plugin_registrar_get_messenger(registrar), [this] { abandoned(); }),
      textures_(std::make_shared<FlTexturesAdapter>(fl_plugin_registrar_get_texture_registrar(registrar),
                                                    fl_plugin_registrar_get_messenger(registrar))),
      registrar_(messenger_, textures_) {}

Registration::~Registration() {
  abandoned_ = true;
  registrar_.detach();
}

bool Registration::begin(void (*entry_point)(PluginRegistrar& registrar)) {
  entry_point(registrar_);
  begun_ = true;
  return !abandoned_;
}

void Registration::abandoned() {
  if (!std::exchange(abandoned_, true) && begun_) {
    const std::function<void()> ended = std::move(ended_);
    ended();
  }
}

}  // namespace mirn
