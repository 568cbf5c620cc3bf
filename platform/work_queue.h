#pragma once

// Concurrent queues over one small thread pool: parallel reads, exclusive writes in order.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "deps/pellum/thread_annotations.h"
#include "platform/task_queue.h"

namespace mirn {

/// A concurrent queue. Thread-safe. What is submitted before a barrier is finished before the barrier runs; what is
/// submitted after it waits for it. Destroying a queue waits for everything submitted to it.
class WorkQueue : public TaskQueue {
 public:
  explicit WorkQueue(std::string label);
  ~WorkQueue() override;
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  const std::string& label() const { return label_; }

  // The two below answer false, and keep nothing, when the system gives no thread and the pool has none yet. Once it
  // has one everything runs, slower at worst.

  /// Runs concurrently with other tasks, on a thread of the pool.
  bool post(std::shared_ptr<QueueTask> task) override;
  using TaskQueue::post;
  /// Runs alone, on a thread of the pool, after everything submitted before.
  bool barrierAsync(std::shared_ptr<QueueTask> task);
  bool barrierAsync(std::function<void()> function);
  /// Runs `function` on the calling thread, in parallel with other reads, after the barriers submitted before.
  /// Not from inside a barrier task of the same queue. A thread of the pool that has to wait runs what it waits for.
  void sync(const std::function<void()>& function);

 private:
  struct State;
  std::string label_;
  std::shared_ptr<State> state_;
};

/// The process's queue for work that a person waits for. It lives as long as the process.
WorkQueue& globalWorkQueue();

}  // namespace mirn
