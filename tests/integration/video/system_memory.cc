#include "tests/integration/video/system_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace {

constinit std::atomic<uint64_t> g_heapCalls{0};
constinit std::atomic<uint64_t> g_mapCalls{0};

}  // namespace

#ifndef MIRN_SANITIZED

// The program's own definitions go before the C library's, for its libraries too.
#define MIRN_IN_PLACE_OF_LIBC extern "C" __attribute__((visibility("default")))

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own names of its own functions
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

MIRN_IN_PLACE_OF_LIBC void* malloc(size_t size) noexcept {
  g_heapCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(size);
}
MIRN_IN_PLACE_OF_LIBC void* calloc(size_t count, size_t size) noexcept {
  g_heapCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_calloc(count, size);
}
MIRN_IN_PLACE_OF_LIBC void* realloc(void* memory, size_t size) noexcept {
  g_heapCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_realloc(memory, size);
}
MIRN_IN_PLACE_OF_LIBC void* aligned_alloc(size_t alignment, size_t size) noexcept {
  g_heapCalls.fetch_add(1, std::memory_order_relaxed);
  return __libc_memalign(alignment, size);
}
MIRN_IN_PLACE_OF_LIBC int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
  g_heapCalls.fetch_add(1, std::memory_order_relaxed);
  *memory = __libc_memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

MIRN_IN_PLACE_OF_LIBC void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t at) noexcept {
  g_mapCalls.fetch_add(1, std::memory_order_relaxed);
  // The kernel's answer is an address: an integer to syscall().
  return reinterpret_cast<void*>(syscall(SYS_mmap, address, size, protection, flags, fd, at));  // NOLINT
}
MIRN_IN_PLACE_OF_LIBC void* mmap64(void* address, size_t size, int protection, int flags, int fd, off64_t at) noexcept {
  return mmap(address, size, protection, flags, fd, at);
}

#endif

namespace mirn::test {

uint64_t heapCalls() {
  return g_heapCalls.load(std::memory_order_relaxed);
}

uint64_t mapCalls() {
  return g_mapCalls.load(std::memory_order_relaxed);
}

uint64_t mappedPages() {
  // Not by a stream: that allocates.
  std::array<char, 128> text{};
  const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  const ssize_t got = fd >= 0 ? read(fd, text.data(), text.size() - 1) : 0;
  if (fd >= 0) {
    close(fd);
  }
  return got > 0 ? std::strtoull(text.data(), nullptr, 10) : 0;
}

}  // namespace mirn::test
