// The library's entry points for an engine: each registers one of the two plug-in classes. Both serve the channel
// "flutter_mirn"; where a host registers both, the one registered last gets the calls.
#pragma once

#include <cstdint>

#include "embedding/export.h"

namespace mirn {

class PluginRegistrar;

// The main plug-in: device, video, textures. Call on the platform thread. The registrar keeps the plug-in alive.
MIRN_EXPORT void registerFlutterMirnPluginCApi(PluginRegistrar& registrar);

// The second plug-in: frames as raw bytes. Same rules.
MIRN_EXPORT void registerFlutterMirnPlugin(PluginRegistrar& registrar);

}  // namespace mirn
