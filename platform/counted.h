#pragma once

// Intrusive reference counts for the objects that cross threads once per frame. A std::shared_ptr can't tell safely
// that nobody else holds its object (use_count() is a relaxed read); this count can, so that pools may reuse memory.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace mirn {

/// Base of an object with an intrusive count. Thread-safe. Created with count 0; the first CountedRef makes it 1 and
/// the last one deletes the object.
class Counted {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  void retain() const { count_.fetch_add(1, std::memory_order_relaxed); }
  void release() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete this;
    }
  }
  /// True when the caller's reference is the only one. Acquires: whatever the former holders did with the memory
  /// happened before this returns true, so the caller may write to it.
  bool heldOnlyByCaller() const { return count_.load(std::memory_order_acquire) == 1; }
  /// For tests and diagnostics: a snapshot that may be stale at once.
  uint32_t referenceCount() const { return count_.load(std::memory_order_acquire); }

 protected:
  virtual ~Counted() = default;

 private:
  mutable std::atomic<uint32_t> count_{0};
};

/// Owning pointer to a Counted. Copying costs one atomic increment; moving costs nothing. Reentrant.
template <typename T>
class CountedRef {
 public:
  CountedRef() = default;
  CountedRef(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): reads like a pointer
  explicit CountedRef(T* object) : object_(object) {
    if (object_ != nullptr) {
      object_->retain();
    }
  }
  CountedRef(const CountedRef& other) : CountedRef(other.object_) {}
  CountedRef(CountedRef&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~CountedRef() {
    if (object_ != nullptr) {
      object_->release();  // NOLINT(clang-analyzer-cplusplus.NewDelete): the analyzer doesn't know the count
    }
  }
  CountedRef& operator=(CountedRef other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }
  void reset() { *this = CountedRef(); }

  friend bool operator==(const CountedRef& left, const CountedRef& right) { return left.object_ == right.object_; }
  friend bool operator==(const CountedRef& left, std::nullptr_t) { return left.object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace mirn
