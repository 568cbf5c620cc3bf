// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace mirn {

class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() { close(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  // False when the system could not write everything back.
  bool close() {
    const int fd = std::exchange(fd_, -1);
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_ = -1;
};

}  // namespace mirn
