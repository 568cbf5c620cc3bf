#include "tests/unit/embedding/allocation_count.h"

#include <cstdlib>
#include <new>

namespace {

thread_local mirn::test::Allocations t_allocations;

void* take(std::size_t size) {
  ++t_allocations.count;
  t_allocations.bytes += size;
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return take(size);
}
void* operator new[](std::size_t size) {
  return take(size);
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

}  // namespace mirn::test
