#include "tests/integration/channel/file_reads.h"

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace mirn::test {
namespace {

struct Watch {
  struct stat file {};
  std::function<int()> look;
  std::vector<int> observed;
};
thread_local Watch* t_watch = nullptr;

void noteRead(int fd) {
  struct stat file {};
  if (t_watch == nullptr || fstat(fd, &file) != 0) return;
  if (file.st_dev != t_watch->file.st_dev || file.st_ino != t_watch->file.st_ino) return;
  t_watch->observed.push_back(t_watch->look());
}

}  // namespace

FileReads::FileReads(const std::string& path, std::function<int()> look) {
  t_watch = new Watch{{}, std::move(look), {}};
  if (stat(path.c_str(), &t_watch->file) != 0) abort();
}

FileReads::~FileReads() {
  delete std::exchange(t_watch, nullptr);
}

std::vector<int> FileReads::observed() const {
  return t_watch->observed;
}

}  // namespace mirn::test

// The names that the linker's --wrap=read gives to this function and to the one it stands in front of.
extern "C" {
ssize_t __real_read(int fd, void* bytes, size_t size);   // NOLINT(bugprone-reserved-identifier)
ssize_t __wrap_read(int fd, void* bytes, size_t size);   // NOLINT(bugprone-reserved-identifier)
ssize_t __wrap_read(int fd, void* bytes, size_t size) {  // NOLINT(bugprone-reserved-identifier)
  mirn::test::noteRead(fd);
  return __real_read(fd, bytes, size);
}
}
