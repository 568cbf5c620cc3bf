#include "tests/unit/embedding/allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local mirn::test::Allocations t_allocations;

thread_local uint64_t t_until_failure = 0;  // counts down to the allocation that fails; 0: none does

std::atomic<uint64_t> g_count{0};

void* takeOrNull(std::size_t size) {
  if (t_until_failure > 0 && --t_until_failure == 0) return nullptr;
  ++t_allocations.count;
  t_allocations.bytes += size;
  g_count.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

void* take(std::size_t size) {
  if (void* memory = takeOrNull(size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return take(size);
}
void* operator new[](std::size_t size) {
  return take(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return takeOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return takeOrNull(size);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace mirn::test {

Allocations allocations() {
  return t_allocations;
}

void failAllocationAfter(uint64_t successes) {
  t_until_failure = successes + 1;
}

uint64_t allocationsOfAllThreads() {
  return g_count.load(std::memory_order_relaxed);
}

}  // namespace mirn::test
