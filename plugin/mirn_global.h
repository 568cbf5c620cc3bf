// The one manager of the process, and its end.
#pragma once

#include <cstdint>

namespace mirn {

class MirnManager;

// Null before the first plug-in and after the clean-up at process exit. Written on the platform thread alone, and read
// there; other threads go through reportProgress.
extern MirnManager* mirn_;

// Makes the manager unless there is one. The object that releases it at exit is made with it, so after every static
// object of the library, whatever file it stands in: at exit the manager goes first, then the registry map, the texture
// map and their mutex.
void createManager();

// MirnManager::setProcess of the manager, if there still is one. Thread-safe.
void reportProgress(int32_t current, int32_t total);

// Releases the manager when it is destroyed; its only duty.
class FreeMirnManager {
 public:
  FreeMirnManager() = default;
  ~FreeMirnManager();
  FreeMirnManager(const FreeMirnManager&) = delete;
  FreeMirnManager& operator=(const FreeMirnManager&) = delete;
};

}  // namespace mirn
