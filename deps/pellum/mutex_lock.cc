#include "deps/pellum/mutex_lock.h"

namespace mirn {

CMutexLock::CMutexLock(const char* /*name*/) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

// The analysis can't see through pthread calls; the annotations stand in the header.
int CMutexLock::Lock() MIRN_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_lock(&mutex_);
  return 1;
}

int CMutexLock::Unlock() MIRN_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_unlock(&mutex_);
  return 1;
}

}  // namespace mirn
