#include "plugin/mirn_global.h"

#include <utility>

#include "deps/pellum/thread_annotations.h"
#include "plugin/mirn_manager.h"
#include "video/mirn_texture.h"

namespace mirn {
namespace {

// Between the sending thread's reports and the release at exit. Constant-initialised and trivially destroyed: it works
// before and after every static object.
constinit Mutex g_manager_lock;

// On the thread that has made the manager: the platform thread.
constinit thread_local bool t_owns_manager = false;

}  // namespace

constinit MirnManager* mirn_ = nullptr;

void createManager() {
  if (mirn_ != nullptr) return;
  setFreeMirnManager(&releaseManager);
  MirnManager* manager = MirnManager::init().release();
  t_owns_manager = true;
  MutexGuard guard(g_manager_lock);
  mirn_ = manager;
}

void reportProgress(int32_t current, int32_t total) {
  MutexGuard guard(g_manager_lock);
  if (mirn_ != nullptr) mirn_->setProcess(current, total);
}

void releaseManager() {
  // exit() was called on another thread, and nothing stops the platform thread meanwhile: it may be inside a command.
  // The manager stays as it is until the process has ended.
  if (!t_owns_manager) return;
  MirnManager* manager = nullptr;
  {
    MutexGuard guard(g_manager_lock);
    manager = std::exchange(mirn_, nullptr);
  }
  delete manager;
}

}  // namespace mirn
