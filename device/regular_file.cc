#include "device/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace mirn {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr int kAttempts = 100;

bool sameFile(const struct stat& a, int fd) {
  struct stat b {};
  return fd >= 0 && fstat(fd, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A regular file of this user's with a single name.
bool mayBeReplaced(int fd, const RegularFile& not_this) {
  struct stat status {};
  return fd >= 0 && fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
         status.st_nlink <= 1 && !sameFile(status, not_this.fd.get());
}

}  // namespace

RegularFile openForReading(const std::string& path) {
  // Without O_NONBLOCK the open of a FIFO waits for a writer.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  OwnedFd fd(open(path.c_str(), flags));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  return {std::move(fd), static_cast<uint64_t>(status.st_size)};
}

RegularFile openForReplacing(const std::string& path, const RegularFile& not_this) {
  constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  // More than one program may do this at once; then the path is the last one's, and each has its own file.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    RegularFile made{OwnedFd(open(path.c_str(), kFlags | O_CREAT | O_EXCL, kOwnerOnly)), 0};
    if (made.fd.valid()) {
      return fchmod(made.fd.get(), kOwnerOnly) == 0 ? std::move(made) : RegularFile();
    }
    if (errno != EEXIST) {
      return {};
    }
    const OwnedFd old(open(path.c_str(), kFlags));
    if (!old.valid() && errno == ENOENT) {
      continue;
    }
    if (!mayBeReplaced(old.get(), not_this) || (unlink(path.c_str()) != 0 && errno != ENOENT)) {
      return {};
    }
  }
  return {};
}

int64_t readFully(int fd, uint8_t* out, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t count = read(fd, out + done, size - done);
    if (count == 0) break;
    if (count > 0) {
      done += static_cast<size_t>(count);
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return static_cast<int64_t>(done);
}

bool writeFully(int fd, const uint8_t* bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = write(fd, bytes, size);
    if (count >= 0) {
      bytes += count;
      size -= static_cast<size_t>(count);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

}  // namespace mirn
