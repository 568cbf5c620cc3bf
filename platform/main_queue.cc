#include "platform/main_queue.h"

#include <atomic>

namespace mirn {
namespace {

std::atomic<MainQueue*> g_mainQueue{nullptr};

}  // namespace

MainQueue& mainQueue() {
  MainQueue* queue = g_mainQueue.load(std::memory_order_acquire);
  return queue != nullptr ? *queue : defaultMainQueue();
}

void setMainQueue(MainQueue* queue) {
  g_mainQueue.store(queue, std::memory_order_release);
}

}  // namespace mirn
