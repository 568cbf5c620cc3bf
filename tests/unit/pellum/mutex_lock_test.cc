#include "deps/pellum/mutex_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#ifdef MIRN_SANITIZED_THREAD
// A lock given back by somebody else is what a case here is about; races are reported as ever.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "report_mutex_bugs=0";
}
#endif

namespace mirn {
namespace {

// Misuse is what is tested here, so the lock analysis stays out.
TEST(MutexLock, LockAndUnlockReturnOne) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  const std::unique_ptr<ILockItem> lock = std::make_unique<CMutexLock>("the name is ignored");
  EXPECT_EQ(lock->Lock(), 1);
  EXPECT_EQ(lock->Unlock(), 1);
}

void relockOnce(CMutexLock& lock) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  EXPECT_EQ(lock.Lock(), 1);
  EXPECT_EQ(lock.Lock(), 1) << "the owner's second Lock returns instead of hanging";
  EXPECT_EQ(lock.LockBriefly(), 1);
  EXPECT_FALSE(lock.TryLock());
  EXPECT_EQ(lock.Unlock(), 1);
}

TEST(MutexLock, IsNotRecursive) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  relockOnce(lock);
  bool free = false;
  std::thread([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    free = lock.TryLock();
    if (free) {
      lock.Unlock();
    }
  }).join();
  EXPECT_TRUE(free) << "one Unlock is enough";
}

TEST(MutexLock, UnlockBySomebodyElseChangesNothing) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  EXPECT_EQ(lock.Unlock(), 1);
  lock.Lock();
  bool taken = true;
  std::thread([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    EXPECT_EQ(lock.Unlock(), 1);
    taken = lock.TryLock();
  }).join();
  EXPECT_FALSE(taken);
  lock.Unlock();
}

TEST(MutexLock, ExcludesOthers) {
  CMutexLock lock;
  int counter = 0;
  constexpr int kTurns = 5000;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kTurns; ++i) {
        if (t % 2 == 0) {
          const CMutexLockGuard guard(lock);
          ++counter;
        } else {
          lock.LockBriefly();
          ++counter;
          lock.Unlock();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter, 4 * kTurns);
}

TEST(MutexLock, LockBrieflySleepsWhenTheLockIsNotHeldBriefly) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  std::atomic<bool> started{false};
  std::atomic<bool> got_it{false};
  lock.Lock();
  std::thread waiter([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    started = true;
    lock.LockBriefly();
    got_it = true;
    lock.Unlock();
  });
  while (!started) {
    std::this_thread::yield();
  }
  for (int i = 0; i < 1000; ++i) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(got_it);
  lock.Unlock();
  waiter.join();
  EXPECT_TRUE(got_it);
}

TEST(MutexLock, LockWithinTakesAFreeOneAndGivesUpOnATakenOne) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  ASSERT_TRUE(lock.LockWithin(60000));
  EXPECT_FALSE(lock.LockWithin(0)) << "it has it already";
  std::thread([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    EXPECT_FALSE(lock.LockWithin(0));
    EXPECT_FALSE(lock.LockWithin(20));
  }).join();
  lock.Unlock();
  std::thread([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    ASSERT_TRUE(lock.LockWithin(999));
    lock.Unlock();
  }).join();
}

TEST(MutexLock, AGuardCanAdoptALockThatIsHeld) MIRN_NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  ASSERT_TRUE(lock.TryLock());
  { const CMutexLockGuard guard(lock, std::adopt_lock); }
  std::thread([&]() MIRN_NO_THREAD_SAFETY_ANALYSIS {
    ASSERT_TRUE(lock.TryLock());
    lock.Unlock();
  }).join();
}

}  // namespace
}  // namespace mirn
