#include "apps/mirn-virtual/output_queue.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace mirn {

OutputQueue::OutputQueue(int descriptor) : descriptor_(descriptor) {
  struct stat info {};
  if (::fstat(descriptor, &info) != 0) return;
  socket_ = S_ISSOCK(info.st_mode);
  // A file would be written from its beginning again, so it keeps its own descriptor; it takes everything anyway.
  if (!S_ISFIFO(info.st_mode) && !S_ISCHR(info.st_mode)) return;
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  unblocked_.reset(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

void OutputQueue::add(std::string_view text) {
  text_ += text;
  flush();
}

void OutputQueue::flush() {
  size_t sent = 0;
  while (sent < text_.size()) {
    const ssize_t count = write(std::string_view(text_).substr(sent));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count <= 0) {
      sent = text_.size();  // nobody reads any more
      break;
    }
    sent += static_cast<size_t>(count);
  }
  text_.erase(0, sent);
}

ssize_t OutputQueue::write(std::string_view text) const {
  if (socket_) return ::send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (unblocked_.valid()) return ::write(unblocked_.get(), text.data(), text.size());
  // A writable pipe takes this much at once.
  pollfd wait{descriptor_, POLLOUT, 0};
  if (::poll(&wait, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  return ::write(descriptor_, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
}

}  // namespace mirn
