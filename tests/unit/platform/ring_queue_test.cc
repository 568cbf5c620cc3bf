#include "platform/ring_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>

namespace mirn {
namespace {

TEST(RingQueueTest, KeepsTheOrderLikeAPlainQueueThroughGrowthAndWrapping) {
  RingQueue<int> queue;
  std::deque<int> model;
  std::mt19937 random(7);
  for (int step = 0; step < 20000; ++step) {
    if (model.empty() || random() % 5 < 3) {
      queue.push(step);
      model.push_back(step);
    } else {
      ASSERT_EQ(queue.front(), model.front());
      ASSERT_EQ(queue.pop(), model.front());
      model.pop_front();
    }
    ASSERT_EQ(queue.size(), model.size());
    ASSERT_EQ(queue.empty(), model.empty());
  }
}

TEST(RingQueueTest, TakingOneOutKeepsTheOthersInOrder) {
  RingQueue<int> queue;
  for (int i = 0; i < 5; ++i) queue.push(-1);
  for (int i = 0; i < 5; ++i) queue.pop();
  for (int i = 1; i <= 6; ++i) queue.push(i);  // around the end of its memory
  int taken = 0;
  EXPECT_FALSE(queue.takeFirst([](int value) { return value > 6; }, taken));
  EXPECT_TRUE(queue.takeFirst([](int value) { return value % 3 == 0; }, taken));
  EXPECT_EQ(taken, 3);
  for (const int left : {1, 2, 4, 5, 6}) EXPECT_EQ(queue.pop(), left);
  EXPECT_TRUE(queue.empty());
  EXPECT_FALSE(queue.takeFirst([](int) { return true; }, taken));
}

TEST(RingQueueTest, APoppedPlaceKeepsNothingAlive) {
  RingQueue<std::shared_ptr<int>> queue;
  auto value = std::make_shared<int>(3);
  queue.push(value);
  queue.pop();
  EXPECT_EQ(value.use_count(), 1);
}

}  // namespace
}  // namespace mirn
