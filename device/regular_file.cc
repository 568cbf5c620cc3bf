#include "device/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace mirn {
namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;

bool sameFile(const struct stat& a, int fd) {
  struct stat b {};
  return fd >= 0 && fstat(fd, &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

RegularFile openForReading(const std::string& path, SymbolicLink link) {
  // Without O_NONBLOCK the open of a FIFO waits for a writer.
  const int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (link == SymbolicLink::kRefuse ? O_NOFOLLOW : 0);
  OwnedFd fd(open(path.c_str(), flags));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  return {std::move(fd), static_cast<uint64_t>(status.st_size)};
}

RegularFile openForReplacing(const std::string& path, const RegularFile& not_this) {
  // No O_TRUNC: what the file is has to be known before anything in it is lost.
  const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  OwnedFd fd(open(path.c_str(), flags, kOwnerOnly));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  const bool ours = status.st_uid == geteuid() && status.st_nlink == 1;
  if (!ours || sameFile(status, not_this.fd.get())) {
    return {};
  }
  if (fchmod(fd.get(), kOwnerOnly) != 0 || ftruncate(fd.get(), 0) != 0) {
    return {};
  }
  return {std::move(fd), 0};
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
