#include "platform/linux/v4l2_calls.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

namespace mirn {
namespace {

std::atomic<int> g_handled{0};

void countSignal(int /*signal*/) {
  g_handled.fetch_add(1);
}

class V4l2CallsWait : public testing::Test {
 protected:
  V4l2CallsWait() {
    struct sigaction counting {};
    counting.sa_handler = &countSignal;  // without SA_RESTART, which poll() doesn't know anyway
    sigaction(SIGUSR1, &counting, &former_);
    g_handled = 0;
  }
  ~V4l2CallsWait() override {
    sigaction(SIGUSR1, &former_, nullptr);
    ::close(node_);
    ::close(wake_);
  }

  // The waiting thread has each signal behind it before the next one goes out.
  static void interrupt(std::thread& waiting, int times) {
    for (int i = 0; i < times; ++i) {
      const int before = g_handled.load();
      pthread_kill(waiting.native_handle(), SIGUSR1);
      while (g_handled.load() == before) {
        std::this_thread::yield();
      }
    }
  }

  const std::shared_ptr<V4l2Calls> calls_ = systemV4l2Calls();
  const int node_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  const int wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction former_ {};
};

TEST_F(V4l2CallsWait, ASignalIsNoTimeOut) {
  constexpr int kLongMs = 600'000;
  V4l2Wait result;
  std::atomic<bool> over{false};
  std::thread waiting([&] {
    result = calls_->wait(node_, wake_, kLongMs);
    over = true;
    // Alive until nobody signals any more.
    uint64_t count = 0;
    while (::read(wake_, &count, sizeof count) < 0) {
      std::this_thread::yield();
    }
  });
  interrupt(waiting, 200);
  EXPECT_FALSE(over) << "one of the signals ended the waiting";
  EXPECT_EQ(eventfd_write(wake_, 1), 0);
  waiting.join();
  EXPECT_TRUE(result.woken);
  EXPECT_FALSE(result.readable);
  EXPECT_FALSE(result.failed);
}

TEST_F(V4l2CallsWait, SaysWhatCameAndThatNothingDid) {
  const V4l2Wait nothing = calls_->wait(node_, wake_, 1);
  EXPECT_FALSE(nothing.woken || nothing.readable || nothing.failed);
  EXPECT_EQ(eventfd_write(node_, 1), 0);
  const V4l2Wait frame = calls_->wait(node_, wake_, 600'000);
  EXPECT_TRUE(frame.readable);
  EXPECT_FALSE(frame.woken || frame.failed);
}

}  // namespace
}  // namespace mirn
