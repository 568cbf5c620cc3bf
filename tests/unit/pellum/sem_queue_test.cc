#include "deps/pellum/sem_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "deps/pellum/reference.h"

namespace mirn {
namespace {

using Queue = sem_queue<int>;

TEST(SemQueue, StartsClosed) {
  Queue queue;
  int value = 7;
  EXPECT_FALSE(queue.is_open());
  EXPECT_FALSE(queue.push(1));
  EXPECT_EQ(queue.pop_timedwait(value, kWaitForever), -1);
  EXPECT_EQ(queue.pop_timedwait(value, 10), -1);
  EXPECT_EQ(value, 7);
  EXPECT_FALSE(queue.close());
}

TEST(SemQueue, OpenReturnsTrueOnlyWhenItOpens) {
  Queue queue;
  EXPECT_TRUE(queue.open(100));
  queue.push(1);
  EXPECT_FALSE(queue.open(1));
  EXPECT_EQ(queue.count(), 1U) << "opening an open queue keeps its elements";
  EXPECT_TRUE(queue.close());
  EXPECT_FALSE(queue.close());
  EXPECT_TRUE(queue.open(0));
  EXPECT_EQ(queue.count(), 0U);
}

TEST(SemQueue, TheArgumentOfOpenIsNoLimit) {
  Queue queue;
  queue.open(1);
  for (int i = 0; i < 200; ++i) {
    EXPECT_TRUE(queue.push(i));
  }
  EXPECT_EQ(queue.count(), 200U);
}

TEST(SemQueue, PushesAtEitherEnd) {
  Queue queue;
  queue.open(100);
  queue.push(1);
  queue.push(2, true);
  queue.push(0, false);
  std::vector<int> popped(3);
  for (int& value : popped) {
    EXPECT_EQ(queue.pop_timedwait(value, 0), 0);
  }
  EXPECT_EQ(popped, (std::vector<int>{0, 1, 2}));
}

TEST(SemQueue, PopTimesOutWithOne) {
  Queue queue;
  queue.open(100);
  int value = 7;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(queue.pop_timedwait(value, 20), 1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_EQ(queue.pop_timedwait(value, 0), 1);
  EXPECT_EQ(value, 7);
}

// A push wakes the waiter, but another consumer may have the element first: then the wait goes on, to the same
// deadline.
TEST(SemQueue, AnElementThatAnotherConsumerTakesDoesNotEndTheWait) {
  constexpr std::chrono::milliseconds kWait(200);
  constexpr std::chrono::milliseconds kBetween(50);
  constexpr int kEnough = 200;  // a wait that each of them starts anew takes 10 s
  int result = Queue::kPopped;
  for (int attempt = 0; attempt < 200 && result == Queue::kPopped; ++attempt) {  // the waiter may win
    Queue queue;
    queue.open(100);
    std::atomic<bool> over = false;
    std::atomic<int> teased = 0;
    std::thread teaser([&] {
      for (; !over && teased < kEnough; ++teased) {
        std::this_thread::sleep_for(kBetween);
        queue.push(1);
        int taken = 0;
        queue.pop_timedwait(taken, 0);
      }
    });
    int value = 0;
    const auto start = std::chrono::steady_clock::now();
    result = queue.pop_timedwait(value, static_cast<uint32_t>(kWait.count()));
    if (result == Queue::kTimedOut) {
      EXPECT_GE(std::chrono::steady_clock::now() - start, kWait);
      EXPECT_LT(teased, kEnough) << "the deadline stays where it was";
    }
    over = true;
    teaser.join();
  }
  EXPECT_EQ(result, Queue::kTimedOut);
}

TEST(SemQueue, LongestTimeOutDoesNotOverflow) {
  Queue queue;
  queue.open(100);
  std::thread pusher([&] { queue.push(3); });
  int value = 0;
  EXPECT_EQ(queue.pop_timedwait(value, 0xFFFFFFFE), 0);
  EXPECT_EQ(value, 3);
  pusher.join();
}

TEST(SemQueue, ClosingWakesEveryWaiterWithMinusOne) {
  for (const uint32_t milliseconds : {kWaitForever, uint32_t{600000}}) {
    Queue queue;
    queue.open(100);
    std::atomic<int> waiting{0};
    std::vector<std::thread> waiters;
    std::vector<int> results(3, 5);
    for (int& result : results) {
      waiters.emplace_back([&] {
        int value = 0;
        ++waiting;
        result = queue.pop_timedwait(value, milliseconds);
      });
    }
    while (waiting != 3) {
      std::this_thread::yield();
    }
    EXPECT_TRUE(queue.close());
    for (std::thread& waiter : waiters) {
      waiter.join();
    }
    EXPECT_EQ(results, (std::vector<int>{-1, -1, -1}));
  }
}

struct Released : CReference {
  explicit Released(int* counter) : released(counter) {}
  ~Released() override { ++*released; }
  int* released;
};

TEST(SemQueue, ClosingReleasesEveryElement) {
  int released = 0;
  sem_queue<CRefObj<Released>> queue;
  queue.open(100);
  const CRefObj<Released> kept = makeRef<Released>(&released);
  queue.push(kept);
  queue.push(makeRef<Released>(&released));
  queue.push(makeRef<Released>(&released), false);
  EXPECT_EQ(kept->StrongCount(), 2);
  queue.close();
  EXPECT_EQ(released, 2);
  EXPECT_EQ(kept->StrongCount(), 1);
}

TEST(SemQueue, PoppingMovesTheReferenceOut) {
  int released = 0;
  sem_queue<CRefObj<Released>> queue;
  queue.open(100);
  queue.push(makeRef<Released>(&released));
  CRefObj<Released> out = makeRef<Released>(&released);
  EXPECT_EQ(queue.pop_timedwait(out, kWaitForever), 0);
  EXPECT_EQ(released, 1) << "what stood in the out reference is given back";
  EXPECT_EQ(out->StrongCount(), 1);
  EXPECT_EQ(queue.count(), 0U);
}

// An element whose destruction uses the queue must not find its mutex taken.
struct Nosy : CReference {
  explicit Nosy(sem_queue<CRefObj<Nosy>>* its_queue) : queue(its_queue) {}
  ~Nosy() override { queue->count(); }
  sem_queue<CRefObj<Nosy>>* queue;
};

TEST(SemQueue, ElementsAreDestroyedOutsideTheMutex) {
  sem_queue<CRefObj<Nosy>> queue;
  queue.open(100);
  queue.push(makeRef<Nosy>(&queue));
  queue.push(makeRef<Nosy>(&queue));
  CRefObj<Nosy> out = makeRef<Nosy>(&queue);
  EXPECT_EQ(queue.pop_timedwait(out, 0), 0);
  EXPECT_TRUE(queue.close());
  EXPECT_FALSE(queue.push(makeRef<Nosy>(&queue)));
}

TEST(SemQueue, ManyProducersAndConsumersLoseAndRepeatNothing) {
#ifdef MIRN_SANITIZED
  constexpr int kEach = 2000;
#else
  constexpr int kEach = 20000;
#endif
  constexpr int kProducers = 4;
  constexpr int kConsumers = 3;
  Queue queue;
  queue.open(100);
  std::vector<std::vector<int>> taken(kConsumers);
  std::vector<std::thread> consumers;
  for (std::vector<int>& mine : taken) {
    consumers.emplace_back([&] {
      int value = 0;
      for (int result = 0; (result = queue.pop_timedwait(value, mine.size() % 2 ? kWaitForever : 1000)) != -1;) {
        if (result == 0) {
          mine.push_back(value);
        }
      }
    });
  }
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kEach; ++i) {
        queue.push(p * kEach + i);
      }
    });
  }
  for (std::thread& producer : producers) {
    producer.join();
  }
  while (queue.count() != 0) {
    std::this_thread::yield();
  }
  queue.close();
  std::vector<int> all;
  for (int c = 0; c < kConsumers; ++c) {
    consumers[static_cast<size_t>(c)].join();
    const auto& mine = taken[static_cast<size_t>(c)];
    for (int p = 0; p < kProducers; ++p) {  // one producer's elements stay in order
      std::vector<int> of_one;
      std::copy_if(mine.begin(), mine.end(), std::back_inserter(of_one), [&](int v) { return v / kEach == p; });
      EXPECT_TRUE(std::is_sorted(of_one.begin(), of_one.end()));
    }
    all.insert(all.end(), mine.begin(), mine.end());
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), static_cast<size_t>(kProducers * kEach));
  EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
}

TEST(SemQueue, HoldsWhatCanOnlyBeMoved) {
  sem_queue<std::unique_ptr<int>> queue;
  queue.open(1);
  queue.push(std::make_unique<int>(4));
  std::unique_ptr<int> out;
  EXPECT_EQ(queue.pop_timedwait(out, 0), 0);
  EXPECT_EQ(*out, 4);
}

}  // namespace
}  // namespace mirn
