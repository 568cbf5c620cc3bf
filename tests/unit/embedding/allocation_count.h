// Counts what the program takes from the heap by `new`. A program that uses it compiles allocation_count.cc in.
#pragma once

#include <cstdint>

namespace mirn::test {

struct Allocations {
  uint64_t count = 0;
  uint64_t bytes = 0;
};

// Of this thread, since it began.
Allocations allocations();

// Of the whole process.
uint64_t allocationsOfAllThreads();

// This thread gets no memory once, after `successes` more allocations.
void failAllocationAfter(uint64_t successes);

}  // namespace mirn::test
