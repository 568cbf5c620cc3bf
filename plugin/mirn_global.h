// The one manager of the process, and its end.
#pragma once

#include <cstdint>

namespace mirn {

class MirnManager;

// Null before the first plug-in and after the clean-up at process exit. Written on the platform thread alone, and read
// there; other threads go through reportProgress. It is a root for leak checkers where the clean-up leaves it.
extern MirnManager* mirn_;

// Makes the manager unless there is one, and gives its release to FreeMirnManager of the texture bridge: at exit the
// manager goes first, then the registry map, the texture map and their mutex.
void createManager();

// Clears mirn_ and destroys the manager. Called at process exit, on the thread that called exit(); where that is not
// the platform thread, which may be in the middle of a command, nothing happens.
void releaseManager();

// MirnManager::setProcess of the manager, if there still is one. Thread-safe.
void reportProgress(int32_t current, int32_t total);

}  // namespace mirn
