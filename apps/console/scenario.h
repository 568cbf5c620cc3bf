// The main job from beginning to end without a window: opens, switches, types, moves, clicks, reads, upgrades, and
// leaves a picture of what the target shows. Says each step and fails aloud.
#pragma once

#include <string>

#include "apps/common/virtual_world.h"

namespace mirn {

// 0 when every step went well. `output` is the descriptor for its lines. Main thread.
int runScenario(VirtualWorld& world, const std::string& picture_path, int output);

}  // namespace mirn
