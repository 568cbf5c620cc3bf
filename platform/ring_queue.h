#pragma once

// A first-in, first-out queue that keeps its memory: in the steady state a push allocates nothing, unlike std::deque.

#include <cstddef>
#include <utility>
#include <vector>

namespace mirn {

/// Not thread-safe. T is default-constructible and movable.
template <typename T>
class RingQueue {
 public:
  bool empty() const { return count_ == 0; }
  size_t size() const { return count_; }
  T& front() { return slots_[first_]; }

  void push(T value) {
    if (count_ == slots_.size()) {
      grow();
    }
    slots_[(first_ + count_) % slots_.size()] = std::move(value);
    ++count_;
  }
  T pop() {
    T value = std::exchange(slots_[first_], T());
    first_ = (first_ + 1) % slots_.size();
    --count_;
    return value;
  }

  /// Takes out the first one that `matches`, if there is any; the others keep their order.
  template <typename Predicate>
  bool takeFirst(Predicate matches, T& taken) {
    bool found = false;
    for (size_t left = count_; left > 0; --left) {
      T value = pop();
      if (!found && matches(std::as_const(value))) {
        found = true;
        taken = std::move(value);
      } else {
        push(std::move(value));
      }
    }
    return found;
  }

 private:
  void grow() {
    std::vector<T> larger(slots_.empty() ? 8 : slots_.size() * 2);
    for (size_t i = 0; i < count_; ++i) {
      larger[i] = std::move(slots_[(first_ + i) % slots_.size()]);
    }
    slots_.swap(larger);
    first_ = 0;
  }

  std::vector<T> slots_;
  size_t first_ = 0;
  size_t count_ = 0;
};

}  // namespace mirn
