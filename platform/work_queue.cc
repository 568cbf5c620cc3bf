#include "platform/work_queue.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/ring_queue.h"

namespace mirn {
namespace {

thread_local bool g_onPoolThread = false;

}  // namespace

/// The queue's own order. Which item may run next is decided here alone; running is the pool's.
struct WorkQueue::State : std::enable_shared_from_this<WorkQueue::State> {
  enum class Kind { kConcurrent, kBarrier, kRead };
  struct Item {
    Kind kind = Kind::kConcurrent;
    std::shared_ptr<QueueTask> task;  // null for a read
    bool* admitted = nullptr;         // of a read: set when the caller may go on
  };

  void submit(Item item) MIRN_EXCLUDES(lock);
  void waitForChange() MIRN_REQUIRES(lock);
  void pump() MIRN_REQUIRES(lock);
  void finished(bool barrier) MIRN_EXCLUDES(lock);
  void run(const std::shared_ptr<QueueTask>& task, bool barrier) MIRN_EXCLUDES(lock);
  void waitUntilIdle() MIRN_EXCLUDES(lock);

  Mutex lock;
  std::condition_variable_any changed;
  RingQueue<Item> items MIRN_GUARDED_BY(lock);
  int concurrent MIRN_GUARDED_BY(lock) = 0;
  bool barrier MIRN_GUARDED_BY(lock) = false;
};

namespace {

/// Threads for all queues of the process. They live as long as it does: a task may still be posted while static
/// objects are destroyed.
template <typename State>
class Pool {
 public:
  struct Job {
    std::shared_ptr<State> state;
    std::shared_ptr<QueueTask> task;
    bool barrier = false;
  };

  static Pool& instance() {
    static Pool* const pool = new Pool;
    return *pool;
  }

  void post(Job job) MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    jobs_.push(std::move(job));
    startThread();
    wanted_.notify_one();
  }

  /// Whether what is posted will be run. Threads of the pool never end: once true, always true.
  bool ready() MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    return threads_ > 0 || addThread();
  }

  /// The longest waiting job of `state`, for a thread that waits for that queue. False when there is none.
  bool take(const State* state, Job& job) MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    return jobs_.takeFirst([state](const Job& waiting) { return waiting.state.get() == state; }, job);
  }

  /// A pool thread that waits for a queue lends its place to another thread, so that other queues go on meanwhile.
  void beginWaiting() MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    ++waiting_;
    startThread();
  }
  void endWaiting() MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    --waiting_;
  }

 private:
  void startThread() MIRN_REQUIRES(lock_) {
    const size_t places = std::max(2U, std::thread::hardware_concurrency()) + waiting_;
    if (idle_ < jobs_.size() && threads_ < places) {
      addThread();  // where there is none to be had the others do it all
    }
  }

  bool addThread() MIRN_REQUIRES(lock_) {
    try {
      std::thread([this] { work(); }).detach();
    } catch (const std::system_error&) {
      return false;
    }
    ++threads_;
    ++idle_;
    return true;
  }

  [[noreturn]] void work() MIRN_EXCLUDES(lock_) {
    g_onPoolThread = true;
    for (bool fresh = true;; fresh = false) {
      const Job job = next(fresh);
      job.state->run(job.task, job.barrier);
    }
  }

  Job next(bool fresh) MIRN_EXCLUDES(lock_) {
    MutexGuard guard(lock_);
    if (!fresh) {
      ++idle_;
    }
    while (jobs_.empty()) {
      wanted_.wait(lock_);
    }
    --idle_;
    return jobs_.pop();
  }

  Mutex lock_;
  std::condition_variable_any wanted_;
  RingQueue<Job> jobs_ MIRN_GUARDED_BY(lock_);
  size_t threads_ MIRN_GUARDED_BY(lock_) = 0;
  size_t idle_ MIRN_GUARDED_BY(lock_) = 0;  // with those that have yet to begin
  size_t waiting_ MIRN_GUARDED_BY(lock_) = 0;
};

}  // namespace

void WorkQueue::State::submit(Item item) {
  MutexGuard guard(lock);
  items.push(std::move(item));
  pump();
}

void WorkQueue::State::pump() {
  while (!items.empty() && !barrier) {
    const Kind kind = items.front().kind;
    if (kind == Kind::kBarrier && concurrent > 0) {
      return;
    }
    Item item = items.pop();
    if (kind == Kind::kBarrier) {
      barrier = true;
    } else {
      ++concurrent;
    }
    if (kind == Kind::kRead) {
      *item.admitted = true;
      changed.notify_all();
    } else {
      Pool<State>::instance().post({shared_from_this(), std::move(item.task), kind == Kind::kBarrier});
    }
  }
}

void WorkQueue::State::finished(bool wasBarrier) {
  MutexGuard guard(lock);
  if (wasBarrier) {
    barrier = false;
  } else {
    --concurrent;
  }
  pump();
  changed.notify_all();
}

void WorkQueue::State::run(const std::shared_ptr<QueueTask>& task, bool isBarrier) {
  task->run();
  finished(isBarrier);
}

// A thread of the pool may be the only one that it has: it runs what it waits for. Of its queue alone, since a job of
// another one may in turn wait for the task that this thread is in the middle of.
void WorkQueue::State::waitForChange() {
  Pool<State>::Job job;
  if (g_onPoolThread && Pool<State>::instance().take(this, job)) {
    lock.unlock();
    run(job.task, job.barrier);
    job = {};
    lock.lock();
  } else {
    changed.wait(lock);
  }
}

void WorkQueue::State::waitUntilIdle() {
  MutexGuard guard(lock);
  while (!items.empty() || concurrent > 0 || barrier) {
    waitForChange();
  }
}

WorkQueue::WorkQueue(std::string label) : label_(std::move(label)), state_(std::make_shared<State>()) {}

WorkQueue::~WorkQueue() {
  state_->waitUntilIdle();
}

bool WorkQueue::post(std::shared_ptr<QueueTask> task) {
  if (!Pool<State>::instance().ready()) {
    return false;
  }
  state_->submit({State::Kind::kConcurrent, std::move(task), nullptr});
  return true;
}

bool WorkQueue::barrierAsync(std::shared_ptr<QueueTask> task) {
  if (!Pool<State>::instance().ready()) {
    return false;
  }
  state_->submit({State::Kind::kBarrier, std::move(task), nullptr});
  return true;
}

bool WorkQueue::barrierAsync(std::function<void()> function) {
  return barrierAsync(makeTask(std::move(function)));
}

void WorkQueue::sync(const std::function<void()>& function) {
  bool admitted = false;
  state_->submit({State::Kind::kRead, nullptr, &admitted});
  {
    MutexGuard guard(state_->lock);
    if (!admitted && g_onPoolThread) {
      Pool<State>::instance().beginWaiting();
      while (!admitted) {
        state_->waitForChange();
      }
      Pool<State>::instance().endWaiting();
    }
    while (!admitted) {
      state_->changed.wait(state_->lock);
    }
  }
  function();
  state_->finished(false);
}

WorkQueue& globalWorkQueue() {
  static WorkQueue* const queue = new WorkQueue("com.flutter_mirn.userInteractive");
  return *queue;
}

}  // namespace mirn
