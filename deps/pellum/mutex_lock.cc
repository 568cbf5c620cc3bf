#include "deps/pellum/mutex_lock.h"

#include <ctime>

namespace mirn {

CMutexLock::CMutexLock(const char* /*name*/) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

int CMutexLock::LockBriefly() MIRN_NO_THREAD_SAFETY_ANALYSIS {
  constexpr int kLooks = 64;
  for (int i = 0; i < kLooks; ++i) {
    if (pthread_mutex_trylock(&mutex_) == 0) {
      return 1;
    }
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
  }
  return Lock();
}

bool CMutexLock::LockWithin(int milliseconds) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  constexpr long kNanosecondsOfASecond = 1000000000L;
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += milliseconds / 1000;
  deadline.tv_nsec += milliseconds % 1000 * 1000000L;
  if (deadline.tv_nsec >= kNanosecondsOfASecond) {
    ++deadline.tv_sec;
    deadline.tv_nsec -= kNanosecondsOfASecond;
  }
  return pthread_mutex_timedlock(&mutex_, &deadline) == 0;
}

}  // namespace mirn
