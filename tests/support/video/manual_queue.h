#pragma once

// A main queue that runs its tasks when a test says so, on the test's thread.

#include <cstddef>
#include <memory>
#include <utility>

#include "deps/pellum/thread_annotations.h"
#include "platform/main_queue.h"
#include "platform/ring_queue.h"

namespace mirn::test {

class ManualQueue final : public MainQueue {
 public:
  ManualQueue() { setMainQueue(this); }
  ~ManualQueue() override { setMainQueue(nullptr); }

  bool post(std::shared_ptr<QueueTask> task) override {
    MutexGuard guard(lock_);
    tasks_.push(std::move(task));
    return true;
  }
  bool isCurrent() const override { return true; }

  /// Runs what is waiting now; returns how many tasks that were.
  size_t runAll() {
    size_t ran = 0;
    for (size_t turn = size(); turn > 0; --turn, ++ran) {
      std::shared_ptr<QueueTask> task;
      {
        MutexGuard guard(lock_);
        task = tasks_.pop();
      }
      task->run();
    }
    return ran;
  }
  size_t size() {
    MutexGuard guard(lock_);
    return tasks_.size();
  }

 private:
  Mutex lock_;
  RingQueue<std::shared_ptr<QueueTask>> tasks_ MIRN_GUARDED_BY(lock_);
};

}  // namespace mirn::test
