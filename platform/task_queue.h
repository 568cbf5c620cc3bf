#pragma once

// What the main queue and the work queues have in common: something that runs tasks later, on threads of its own.

#include <functional>
#include <memory>
#include <utility>

namespace mirn {

/// A piece of work. An object that is posted again and again (once per frame) costs no allocation.
class QueueTask {
 public:
  virtual ~QueueTask() = default;
  virtual void run() = 0;
};

namespace detail {
class FunctionTask : public QueueTask {
 public:
  explicit FunctionTask(std::function<void()> function) : function_(std::move(function)) {}
  void run() override { function_(); }

 private:
  std::function<void()> function_;
};
}  // namespace detail

inline std::shared_ptr<QueueTask> makeTask(std::function<void()> function) {
  return std::make_shared<detail::FunctionTask>(std::move(function));
}

/// Thread-safe.
class TaskQueue {
 public:
  virtual ~TaskQueue() = default;

  /// Runs `task` later on a thread of the queue. The queue keeps its reference until the task has run. False when there
  /// is no thread that could ever run it: nothing is kept then, and a later post may succeed.
  virtual bool post(std::shared_ptr<QueueTask> task) = 0;

  bool post(std::function<void()> function) { return post(makeTask(std::move(function))); }
};

}  // namespace mirn
