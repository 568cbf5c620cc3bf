// For tests of what happens when the system gives no thread.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>

namespace mirn::test {

// While it lives no thread can be made: a new one's stack would need the whole address space.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    EXPECT_EQ(pthread_getattr_default_np(&before_), 0);
    pthread_attr_t endless;
    pthread_attr_init(&endless);
    EXPECT_EQ(pthread_attr_setstacksize(&endless, size_t{1} << 47), 0);
    EXPECT_EQ(pthread_setattr_default_np(&endless), 0);
    pthread_attr_destroy(&endless);
  }
  ~NoMoreThreads() {
    EXPECT_EQ(pthread_setattr_default_np(&before_), 0);
    pthread_attr_destroy(&before_);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

}  // namespace mirn::test
