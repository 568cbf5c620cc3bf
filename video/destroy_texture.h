// The one function of the texture bridge that hosts call: no command of the channel takes a texture away.
#pragma once

#include <cstdint>

#include "embedding/export.h"

namespace mirn {

// Unregisters and forgets a texture that "createTexture" has made; its id may be given again afterwards. An unknown id
// is ignored. Any thread; doesn't wait for the main thread. Not from within a call of a texture registry.
MIRN_EXPORT void destroyTexture(int64_t id);

}  // namespace mirn
