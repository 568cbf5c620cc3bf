// Clang's thread-safety annotations, and a mutex that carries them. With other compilers the macros are empty.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define MIRN_ANNOTATE(x) __attribute__((x))
#else
#define MIRN_ANNOTATE(x)
#endif

#define MIRN_CAPABILITY(x) MIRN_ANNOTATE(capability(x))
#define MIRN_SCOPED_CAPABILITY MIRN_ANNOTATE(scoped_lockable)
#define MIRN_GUARDED_BY(x) MIRN_ANNOTATE(guarded_by(x))
#define MIRN_PT_GUARDED_BY(x) MIRN_ANNOTATE(pt_guarded_by(x))
#define MIRN_ACQUIRED_AFTER(...) MIRN_ANNOTATE(acquired_after(__VA_ARGS__))
#define MIRN_REQUIRES(...) MIRN_ANNOTATE(requires_capability(__VA_ARGS__))
#define MIRN_EXCLUDES(...) MIRN_ANNOTATE(locks_excluded(__VA_ARGS__))
#define MIRN_ACQUIRE(...) MIRN_ANNOTATE(acquire_capability(__VA_ARGS__))
#define MIRN_RELEASE(...) MIRN_ANNOTATE(release_capability(__VA_ARGS__))
#define MIRN_TRY_ACQUIRE(...) MIRN_ANNOTATE(try_acquire_capability(__VA_ARGS__))
#define MIRN_RETURN_CAPABILITY(x) MIRN_ANNOTATE(lock_returned(x))
#define MIRN_NO_THREAD_SAFETY_ANALYSIS MIRN_ANNOTATE(no_thread_safety_analysis)

namespace mirn {

// std::mutex with annotations. Not recursive.
class MIRN_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() MIRN_ACQUIRE() { mutex_.lock(); }
  void unlock() MIRN_RELEASE() { mutex_.unlock(); }
  bool try_lock() MIRN_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class ConditionVariable;
  std::mutex mutex_;
};

// Holds a Mutex for a scope. To wait on a condition, use ConditionVariable with the Mutex itself.
class MIRN_SCOPED_CAPABILITY MutexGuard {
 public:
  explicit MutexGuard(Mutex& mutex) MIRN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexGuard() MIRN_RELEASE() { mutex_.unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& mutex_;
};

// std::condition_variable for a Mutex that the caller holds: no second lock inside, unlike condition_variable_any.
// Waits may end early, so call them in a loop that looks at the condition (the analysis sees no guarded member in a
// lambda).
class ConditionVariable {
 public:
  void notify_one() { condition_.notify_one(); }
  void notify_all() { condition_.notify_all(); }

  void wait(Mutex& mutex) MIRN_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }
  // False when the time has come.
  template <typename Clock, typename Duration>
  bool wait_until(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline) MIRN_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const bool in_time = condition_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    lock.release();
    return in_time;
  }
  template <typename Rep, typename Period>
  bool wait_for(Mutex& mutex, const std::chrono::duration<Rep, Period>& time) MIRN_REQUIRES(mutex) {
    return wait_until(mutex, std::chrono::steady_clock::now() + time);
  }

 private:
  std::condition_variable condition_;
};

}  // namespace mirn
