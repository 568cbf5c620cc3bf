// Intrusive reference counting. An object starts with a strong count of 0 and its creator raises it to 1 right after
// construction (makeRef does both); at 0 again it deletes itself. Counts are thread-safe; the object is what it is.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace mirn {

class IReference {
 public:
  virtual ~IReference() = default;
  // Both return the new strong count.
  virtual int64_t AddRef() = 0;
  virtual int64_t Release() = 0;
};

// Strong count (starts at 0) and second count (starts at 1). All strong references together hold one of the second
// count; whoever raises it keeps the storage alive beyond the last strong reference. An object that is embedded in
// another, or lives on the stack, simply never gets a reference: it is never deleted by its counts.
class CReference : public IReference {
 public:
  CReference() = default;
  // A copy is an object of its own: counts are not copied.
  CReference(const CReference& /*other*/) : IReference() {}
  CReference& operator=(const CReference& /*other*/) { return *this; }
  ~CReference() override = default;

  int64_t AddRef() override { return strong_count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  int64_t Release() override;

  int64_t AddSecondRef() { return second_count_.fetch_add(1, std::memory_order_relaxed) + 1; }
  // Deletes the object when the second count reaches 0. Returns the new second count.
  int64_t ReleaseSecondRef();

  int64_t StrongCount() const { return strong_count_.load(std::memory_order_relaxed); }
  int64_t SecondCount() const { return second_count_.load(std::memory_order_relaxed); }

 private:
  std::atomic<int64_t> strong_count_{0};
  std::atomic<int64_t> second_count_{1};
};

// Owns one strong reference, or none. T needs AddRef and Release. Reentrant, like a raw pointer.
template <typename T>
class CRefObj {
 public:
  CRefObj() = default;
  CRefObj(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): null converts as it does for a pointer
  // Takes a reference of its own.
  explicit CRefObj(T* object) : object_(object) { addRef(); }
  CRefObj(const CRefObj& other) : object_(other.object_) { addRef(); }
  CRefObj(CRefObj&& other) noexcept : object_(other.Detach()) {}
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  CRefObj(const CRefObj<U>& other) : object_(other.get()) {  // NOLINT: a reference to a base, as with pointers
    addRef();
  }
  template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  CRefObj(CRefObj<U>&& other) noexcept : object_(other.Detach()) {}  // NOLINT: as above
  ~CRefObj() { reset(); }

  // The new reference is taken before the old one is given back, so that self-assignment is harmless.
  CRefObj& operator=(CRefObj other) noexcept {
    swap(other);
    return *this;
  }

  // Takes over a reference that the caller holds already.
  static CRefObj Attach(T* object) {
    CRefObj result;
    result.object_ = object;
    return result;
  }
  // Hands the reference over to the caller and becomes null.
  [[nodiscard]] T* Detach() { return std::exchange(object_, nullptr); }

  void reset() {
    if (T* object = Detach()) {
      object->Release();
    }
  }
  void swap(CRefObj& other) noexcept { std::swap(object_, other.object_); }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(const CRefObj& a, const CRefObj& b) { return a.object_ == b.object_; }
  friend bool operator==(const CRefObj& a, std::nullptr_t) { return a.object_ == nullptr; }

 private:
  void addRef() {
    if (object_) {
      object_->AddRef();
    }
  }

  T* object_ = nullptr;
};

// Creates an object and raises its strong count to 1.
template <typename T, typename... Args>
CRefObj<T> makeRef(Args&&... args) {
  return CRefObj<T>(new T(std::forward<Args>(args)...));
}

}  // namespace mirn
