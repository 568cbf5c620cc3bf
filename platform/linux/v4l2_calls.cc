#include "platform/linux/v4l2_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

namespace mirn {
namespace {

class SystemV4l2Calls : public V4l2Calls {
 public:
  int open(const std::string& path, int& fd) override {
    do {
      fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? errno : 0;
  }

  void close(int fd) override { ::close(fd); }

  int control(int fd, unsigned long request, void* argument) override {
    int result = 0;
    do {
      result = ::ioctl(fd, request, argument);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? errno : 0;
  }

  void* map(int fd, size_t bytes, uint64_t offset, int& error) override {
    void* start = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(offset));
    error = start == MAP_FAILED ? errno : 0;
    return start == MAP_FAILED ? nullptr : start;
  }

  void unmap(void* start, size_t bytes) override { ::munmap(start, bytes); }

  V4l2Wait wait(int fd, int wakeFd, int timeoutMs) override {
    std::array<pollfd, 2> watched = {{{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}}};
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    int ready = ::poll(watched.data(), watched.size(), timeoutMs);
    while (ready < 0 && (errno == EINTR || errno == EAGAIN)) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
      ready = ::poll(watched.data(), watched.size(), std::max(0, static_cast<int>(left.count())));
    }
    V4l2Wait result;
    if (ready < 0) {
      result.failed = true;
      return result;
    }
    result.woken = watched[1].revents != 0;
    result.readable = (watched[0].revents & POLLIN) != 0;
    result.failed = (watched[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    return result;
  }
};

}  // namespace

std::shared_ptr<V4l2Calls> systemV4l2Calls() {
  static const std::shared_ptr<V4l2Calls> calls = std::make_shared<SystemV4l2Calls>();
  return calls;
}

}  // namespace mirn
