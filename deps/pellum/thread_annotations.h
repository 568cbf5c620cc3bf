// Clang's thread-safety annotations, and a mutex that carries them. With other compilers the macros are empty.
#pragma once

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
  std::mutex mutex_;
};

// Holds a Mutex for a scope. To wait on a condition, use std::condition_variable_any with the Mutex itself.
class MIRN_SCOPED_CAPABILITY MutexGuard {
 public:
  explicit MutexGuard(Mutex& mutex) MIRN_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexGuard() MIRN_RELEASE() { mutex_.unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace mirn
