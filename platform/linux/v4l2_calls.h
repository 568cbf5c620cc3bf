#pragma once

// The few system calls that capture makes, behind a table that a test can replace: the logic above runs without a
// device.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace mirn {

struct V4l2Wait {
  bool woken = false;     ///< somebody wrote to the wake descriptor
  bool readable = false;  ///< a buffer can be dequeued
  bool failed = false;    ///< POLLERR, POLLHUP or POLLNVAL on the node, or poll itself failed
};

/// Thread-safe. Results are 0 or an errno value; EINTR never comes out of them.
class V4l2Calls {
 public:
  virtual ~V4l2Calls() = default;
  /// Read-write, non-blocking. `fd` is -1 on failure.
  virtual int open(const std::string& path, int& fd) = 0;
  virtual void close(int fd) = 0;
  virtual int control(int fd, unsigned long request, void* argument) = 0;
  /// Null on failure, `error` says why.
  virtual void* map(int fd, size_t bytes, uint64_t offset, int& error) = 0;
  virtual void unmap(void* start, size_t bytes) = 0;
  /// None of the three set = `timeoutMs` have passed.
  virtual V4l2Wait wait(int fd, int wakeFd, int timeoutMs) = 0;
};

/// The kernel's.
std::shared_ptr<V4l2Calls> systemV4l2Calls();

/// Owns an open node. Movable.
class V4l2Fd {
 public:
  V4l2Fd() = default;
  V4l2Fd(V4l2Calls& calls, int fd) : calls_(&calls), fd_(fd) {}
  V4l2Fd(V4l2Fd&& other) noexcept : calls_(other.calls_), fd_(std::exchange(other.fd_, -1)) {}
  V4l2Fd& operator=(V4l2Fd&& other) noexcept {
    std::swap(calls_, other.calls_);
    std::swap(fd_, other.fd_);
    return *this;
  }
  V4l2Fd(const V4l2Fd&) = delete;
  V4l2Fd& operator=(const V4l2Fd&) = delete;
  ~V4l2Fd() { reset(); }

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  void reset() {
    if (fd_ >= 0) {
      calls_->close(std::exchange(fd_, -1));
    }
  }

 private:
  V4l2Calls* calls_ = nullptr;
  int fd_ = -1;
};

}  // namespace mirn
