#include "platform/work_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "tests/support/no_more_threads.h"

namespace mirn {
namespace {

TEST(WorkQueueTest, KeepsItsLabel) {
  EXPECT_EQ(WorkQueue("com.flutter_mirn.frameQueue").label(), "com.flutter_mirn.frameQueue");
}

TEST(WorkQueueTest, BarriersRunInOrder) {
  WorkQueue queue("order");
  std::vector<int> order;  // written by barriers alone
  for (int i = 0; i < 200; ++i) {
    queue.barrierAsync([&order, i] { order.push_back(i); });
  }
  std::vector<int> seen;
  queue.sync([&] { seen = order; });
  ASSERT_EQ(seen.size(), 200U);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(seen[static_cast<size_t>(i)], i);
  }
}

TEST(WorkQueueTest, ASyncReadSeesEveryBarrierSubmittedBefore) {
  WorkQueue queue("sees");
  int value = 0;
  for (int i = 1; i <= 500; ++i) {
    queue.barrierAsync([&value, i] { value = i; });
    int seen = 0;
    queue.sync([&] { seen = value; });
    ASSERT_EQ(seen, i);
  }
}

TEST(WorkQueueTest, ReadsRunInParallel) {
  WorkQueue queue("parallel");
  std::latch bothInside(2);
  std::thread other([&] { queue.sync([&] { bothInside.arrive_and_wait(); }); });
  queue.sync([&] { bothInside.arrive_and_wait(); });  // would never end if reads excluded each other
  other.join();
}

TEST(WorkQueueTest, ABarrierRunsAlone) {
  WorkQueue queue("alone");
  std::atomic<int> inside{0};
  std::atomic<bool> together{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        queue.sync([&] {
          ++inside;
          --inside;
        });
        queue.barrierAsync([&] {
          if (inside.fetch_add(100) != 0) {
            together = true;
          }
          inside.fetch_sub(100);
        });
      }
    });
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  queue.sync([] {});
  EXPECT_FALSE(together);
}

TEST(WorkQueueTest, PostedTasksRunOnAnotherThread) {
  WorkQueue queue("other");
  std::promise<std::thread::id> promise;
  queue.post([&] { promise.set_value(std::this_thread::get_id()); });
  EXPECT_NE(promise.get_future().get(), std::this_thread::get_id());
}

TEST(WorkQueueTest, DestroyingItWaitsForWhatWasSubmitted) {
  std::atomic<int> ran{0};
  {
    WorkQueue queue("end");
    for (int i = 0; i < 50; ++i) {
      queue.post([&] { ++ran; });
      queue.barrierAsync([&] { ++ran; });
    }
  }
  EXPECT_EQ(ran, 100);
}

TEST(WorkQueueTest, TasksThatWaitForTheirQueueDontStarveThePool) {
  // More waiting tasks than the pool has threads: their barriers still find one.
  constexpr int kTasks = 32;
  WorkQueue outer("outer");
  WorkQueue inner("inner");
  std::atomic<int> done{0};
  for (int i = 0; i < kTasks; ++i) {
    outer.post([&] {
      inner.barrierAsync([&] { ++done; });
      inner.sync([] {});
    });
  }
  outer.sync([] {});
  std::promise<void> last;
  outer.barrierAsync([&] { last.set_value(); });
  last.get_future().wait();
  EXPECT_EQ(done, kTasks);
}

TEST(WorkQueueTest, AnObjectCanBePostedAgainAndAgain) {
  class Counter : public QueueTask {
   public:
    void run() override { ++runs; }
    std::atomic<int> runs{0};
  };
  auto counter = std::make_shared<Counter>();
  {
    WorkQueue queue("again");
    for (int i = 0; i < 100; ++i) {
      queue.barrierAsync(counter);
    }
  }
  EXPECT_EQ(counter->runs, 100);
}

// Each in a process of its own, whose pool has no thread yet.
class WorkQueueThreadsDeathTest : public testing::Test {
 protected:
  WorkQueueThreadsDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  [[noreturn]] static void end(bool good) { std::_Exit(good ? 0 : 1); }
  const testing::ExitedWithCode kGood{0};
};

void refusesWithoutAThread(void (*end)(bool)) {
  int ran = 0;
  bool refused = false;
  {
    WorkQueue queue("none");
    {
      const test::NoMoreThreads none;
      refused = !queue.post([&] { ran += 100; }) && !queue.barrierAsync([&] { ran += 100; });
      queue.sync([&] { ran += 1; });  // needs no thread, and waits for nothing that was refused
    }
    const bool taken = queue.barrierAsync([&] { ran += 10; });
    queue.sync([&] { refused = refused && taken && ran == 11; });
  }
  end(refused);
}

TEST_F(WorkQueueThreadsDeathTest, WithoutAThreadNothingIsTakenUntilThereIsOne) {
  EXPECT_EXIT(refusesWithoutAThread(end), kGood, "");
}

// The pool's only thread waits, twice over, for what only it can do.
void waitsOnTheOnlyThread(void (*end)(bool)) {
  WorkQueue outer("outer");
  std::promise<void> begun;
  outer.post([&] { begun.set_value(); });
  begun.get_future().wait();
  const test::NoMoreThreads none;
  std::atomic<int> done{0};
  for (int task = 0; task < 3; ++task) {
    outer.post([&] {
      WorkQueue ending("ending");
      WorkQueue inner("inner");
      for (int i = 0; i < 5; ++i) {
        inner.barrierAsync([&] {
          ending.barrierAsync([&] { ++done; });
          ending.sync([&] { ++done; });
          ending.post([&] { ++done; });
        });
      }
      inner.sync([&] { ++done; });
    });
  }
  std::promise<int> result;
  outer.barrierAsync([&] { result.set_value(done); });
  end(result.get_future().get() == 3 * (5 * 3 + 1));
}

TEST_F(WorkQueueThreadsDeathTest, TheOnlyThreadRunsWhatItWaitsFor) {
  EXPECT_EXIT(waitsOnTheOnlyThread(end), kGood, "");
}

}  // namespace
}  // namespace mirn
