// A gate that threads of a test pass one by one, or all of them once it stands open.
#pragma once

#include "deps/pellum/thread_annotations.h"

namespace mirn {

class Gate {
 public:
  void letPass(int threads = 1) {
    {
      const MutexGuard lock(mutex_);
      passes_ += threads;
    }
    changed_.notify_all();
  }
  void standOpen() {
    {
      const MutexGuard lock(mutex_);
      open_ = true;
    }
    changed_.notify_all();
  }
  void pass() {
    const MutexGuard lock(mutex_);
    while (!open_ && passes_ == 0) {
      changed_.wait(mutex_);
    }
    if (passes_ > 0) {
      --passes_;
    }
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  int passes_ MIRN_GUARDED_BY(mutex_) = 0;
  bool open_ MIRN_GUARDED_BY(mutex_) = false;
};

}  // namespace mirn
