// One plug-in of the library on one engine.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <functional>
#include <memory>

#include "embedding/plugin_registrar.h"
#include "linux/fl_messenger.h"
#include "linux/fl_textures.h"

namespace mirn {

// Keeps what a plug-in needs of its engine: the registrar is gone as soon as the application has registered its
// plug-ins, so messenger and texture registrar are kept by references of their own. Bound to the platform thread.
class Registration {
 public:
  // `ended` is called once when the engine, at its end, or another plug-in on the same channel takes the handler away;
  // the object may be destroyed in it. Not during begin().
  Registration(FlPluginRegistrar* registrar, std::function<void()> ended);
  ~Registration();
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  // Calls one of the library's entry points. False when the engine was gone already: then `ended` is never called.
  bool begin(void (*entry_point)(PluginRegistrar& registrar));

 private:
  void abandoned();

  std::function<void()> ended_;
  bool begun_ = false;
  bool abandoned_ = false;
  FlMessengerAdapter messenger_;
  std::shared_ptr<FlTexturesAdapter> textures_;
  PluginRegistrar registrar_;
};

}  // namespace mirn
