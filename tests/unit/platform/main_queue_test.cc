#include "platform/main_queue.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace mirn {
namespace {

void runLoopUntil(const bool& done) {
  while (!done) {
    g_main_context_iteration(g_main_context_default(), TRUE);
  }
}

TEST(MainQueueTest, TasksFromAnotherThreadRunHereInOrder) {
  std::vector<int> order;
  bool done = false;
  const std::thread::id here = std::this_thread::get_id();
  bool elsewhere = false;
  // The loop's thread makes the queue, as in every program; GLib's own locking is invisible to the thread sanitizer.
  mainQueue();
  std::thread other([&] {
    for (int i = 0; i < 1000; ++i) {
      mainQueue().post([&, i] {
        order.push_back(i);
        elsewhere = elsewhere || std::this_thread::get_id() != here;
      });
    }
    mainQueue().post([&] { done = true; });
  });
  runLoopUntil(done);
  other.join();
  EXPECT_FALSE(elsewhere);
  ASSERT_EQ(order.size(), 1000U);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(order[static_cast<size_t>(i)], i);
  }
}

TEST(MainQueueTest, NothingRunsBeforeTheLoopDoes) {
  bool ran = false;
  mainQueue().post([&] { ran = true; });
  EXPECT_FALSE(ran);
  runLoopUntil(ran);
}

TEST(MainQueueTest, ATaskPostedByATaskWaitsForTheNextTurn) {
  bool second = false;
  bool sourceBetween = false;
  bool secondSawSource = false;
  mainQueue().post([&] {
    // A source of the same priority that is ready now gets its turn before the task posted here.
    g_idle_add_full(
        G_PRIORITY_HIGH,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &sourceBetween, nullptr);
    mainQueue().post([&] {
      secondSawSource = sourceBetween;
      second = true;
    });
  });
  runLoopUntil(second);
  EXPECT_TRUE(secondSawSource);
}

TEST(MainQueueTest, ATaskMayRunTheLoopItself) {
  bool inner = false;
  bool outer = false;
  mainQueue().post([&] {
    mainQueue().post([&] { inner = true; });
    runLoopUntil(inner);
    outer = true;
  });
  runLoopUntil(outer);
  EXPECT_TRUE(inner);
}

// Posted before the loop ran, so in the same turn as the one that runs the loop.
TEST(MainQueueTest, TasksBehindATaskThatRunsTheLoopRunInThere) {
  std::vector<int> order;
  bool last = false;
  mainQueue().post([&] {
    order.push_back(1);
    // Without waiting: a queue that forgot its tasks would hang here for ever.
    for (int turn = 0; turn < 100 && !last; ++turn) {
      g_main_context_iteration(g_main_context_default(), FALSE);
    }
    order.push_back(4);
  });
  mainQueue().post([&] { order.push_back(2); });
  mainQueue().post([&] {
    order.push_back(3);
    last = true;
  });
  while (order.size() < 4) {
    g_main_context_iteration(g_main_context_default(), FALSE);
  }
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

TEST(MainQueueTest, KnowsItsThreadWhileTheLoopRuns) {
  bool current = false;
  bool done = false;
  mainQueue().post([&] {
    current = mainQueue().isCurrent();
    done = true;
  });
  runLoopUntil(done);
  EXPECT_TRUE(current);
  EXPECT_FALSE(mainQueue().isCurrent());
}

TEST(MainQueueTest, AnotherQueueCanTakeItsPlace) {
  class Direct : public MainQueue {
   public:
    bool post(std::shared_ptr<QueueTask> task) override {
      task->run();
      return true;
    }
    bool isCurrent() const override { return true; }
  } direct;
  setMainQueue(&direct);
  bool ran = false;
  mainQueue().post(makeTask([&] { ran = true; }));
  setMainQueue(nullptr);
  EXPECT_TRUE(ran);
  EXPECT_EQ(&mainQueue(), &defaultMainQueue());
}

}  // namespace
}  // namespace mirn
