// Counts what the process takes from the C library and from the kernel. The sanitizers own these calls: built with one,
// nothing is counted. A program that uses it compiles system_memory.cc in.
#pragma once

#include <cstdint>

namespace mirn::test {

#ifdef MIRN_SANITIZED
inline constexpr bool kCountsSystemMemory = false;
#else
inline constexpr bool kCountsSystemMemory = true;
#endif

// Calls of malloc and its kin by all threads, libraries included.
uint64_t heapCalls();

// Calls of mmap by anybody but the C library itself.
uint64_t mapCalls();

// Address space in use, in pages: grows with whatever the two above can't see.
uint64_t mappedPages();

}  // namespace mirn::test
