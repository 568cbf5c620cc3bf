// A blocking queue without a bound. Thread-safe for any number of producers and consumers.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <utility>

#include "deps/pellum/thread_annotations.h"

namespace mirn {

// Time-out of pop_timedwait that never ends.
inline constexpr uint32_t kWaitForever = 0xFFFFFFFF;

// Closed after construction. Elements are created, moved out and destroyed outside the mutex, so they may do what they
// like, even use the queue.
template <typename T>
class sem_queue {
 public:
  static constexpr int kPopped = 0;
  static constexpr int kTimedOut = 1;
  static constexpr int kClosed = -1;

  sem_queue() = default;
  sem_queue(const sem_queue&) = delete;
  sem_queue& operator=(const sem_queue&) = delete;

  // Returns true if it opened the queue, false if it was open already. The argument is not used: there is no bound.
  bool open(int /*limit*/) {
    MutexGuard lock(mutex_);
    if (open_) {
      return false;
    }
    elements_.clear();
    open_ = true;
    return true;
  }

  // Destroys every element and wakes all waiters. Returns whether the queue was open.
  bool close() {
    std::list<T> discarded;
    {
      MutexGuard lock(mutex_);
      if (!open_) {
        return false;
      }
      discarded.swap(elements_);
      open_ = false;
    }
    discarded.clear();
    not_empty_.notify_all();
    return true;
  }

  // Appends at the back (or the front). Returns false and drops the element when the queue is closed.
  bool push(T element, bool back = true) {
    std::list<T> node;
    node.push_back(std::move(element));
    {
      MutexGuard lock(mutex_);
      if (!open_) {
        return false;
      }
      elements_.splice(back ? elements_.end() : elements_.begin(), node);
    }
    not_empty_.notify_one();
    return true;
  }

  // Moves the front element into `out` and returns 0; 1 when nothing came for `milliseconds` (kWaitForever: no limit);
  // -1 when the queue is closed, or gets closed while waiting. `out` changes only when 0 is returned.
  int pop_timedwait(T& out, uint32_t milliseconds) {
    std::list<T> node;
    const int result = takeFront(node, milliseconds);
    if (result == kPopped) {
      out = std::move(node.front());
    }
    return result;
  }

  uint64_t count() const {
    MutexGuard lock(mutex_);
    return elements_.size();
  }
  bool is_open() const {
    MutexGuard lock(mutex_);
    return open_;
  }

 private:
  int takeFront(std::list<T>& node, uint32_t milliseconds) {
    MutexGuard lock(mutex_);
    if (milliseconds == kWaitForever) {
      while (open_ && elements_.empty()) {
        not_empty_.wait(mutex_);
      }
    } else if (open_ && elements_.empty()) {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
      while (open_ && elements_.empty()) {
        if (!not_empty_.wait_until(mutex_, deadline) && open_ && elements_.empty()) {
          return kTimedOut;
        }
      }
    }
    if (!open_) {
      return kClosed;
    }
    node.splice(node.begin(), elements_, elements_.begin());
    return kPopped;
  }

  mutable Mutex mutex_;
  ConditionVariable not_empty_;
  std::list<T> elements_ MIRN_GUARDED_BY(mutex_);
  bool open_ MIRN_GUARDED_BY(mutex_) = false;
};

}  // namespace mirn
