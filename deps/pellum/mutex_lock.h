// A mutex behind an interface. Thread-safe.
#pragma once

#include <pthread.h>

#include <mutex>

#include "deps/pellum/thread_annotations.h"

namespace mirn {

class MIRN_CAPABILITY("mutex") ILockItem {
 public:
  // Both return 1.
  virtual int Lock() MIRN_ACQUIRE() = 0;
  virtual int Unlock() MIRN_RELEASE() = 0;
  virtual ~ILockItem() = default;
};

// One error-checking mutex of the operating system: a second Lock by the owner and an Unlock by anyone else change
// nothing instead of hanging or corrupting it. Not recursive: the first Unlock after a second Lock releases it.
class MIRN_CAPABILITY("mutex") CMutexLock final : public ILockItem {
 public:
  // The name is accepted and ignored.
  explicit CMutexLock(const char* name = nullptr);
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;
  ~CMutexLock() override { pthread_mutex_destroy(&mutex_); }

  // The analysis can't see through pthread calls; what counts are the annotations.
  int Lock() override MIRN_ACQUIRE() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&mutex_);
    return 1;
  }
  int Unlock() override MIRN_RELEASE() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&mutex_);
    return 1;
  }
  // False when somebody, the caller included, holds it.
  bool TryLock() MIRN_TRY_ACQUIRE(true) MIRN_NO_THREAD_SAFETY_ANALYSIS { return pthread_mutex_trylock(&mutex_) == 0; }
  // Lock, for a mutex that everybody holds for some ten nanoseconds: looks a few times before it sleeps, since sleeping
  // and being woken takes a thousand times as long.
  int LockBriefly() MIRN_ACQUIRE() MIRN_NO_THREAD_SAFETY_ANALYSIS;
  // False when it could not be had in time, also when the caller holds it already.
  bool LockWithin(int milliseconds) MIRN_TRY_ACQUIRE(true) MIRN_NO_THREAD_SAFETY_ANALYSIS;

 private:
  pthread_mutex_t mutex_;
};

// Holds an ILockItem for a scope.
template <typename LockItem>
class MIRN_SCOPED_CAPABILITY CLockGuard {
 public:
  explicit CLockGuard(LockItem& lock) MIRN_ACQUIRE(lock) : lock_(lock) { lock_.Lock(); }
  // For one that the caller holds already.
  CLockGuard(LockItem& lock, std::adopt_lock_t /*held*/) MIRN_REQUIRES(lock) : lock_(lock) {}
  ~CLockGuard() MIRN_RELEASE() { lock_.Unlock(); }
  CLockGuard(const CLockGuard&) = delete;
  CLockGuard& operator=(const CLockGuard&) = delete;

 private:
  LockItem& lock_;
};

using CMutexLockGuard = CLockGuard<CMutexLock>;

}  // namespace mirn
