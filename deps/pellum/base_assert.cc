#include "deps/pellum/base_assert.h"

#include <cstdio>

namespace mirn {

bool baseAssert(bool holds, const char* expression, const char* where) {
  if (!holds) {
    std::fprintf(stderr, "[%s] assertion failed: %s\n", where, expression);
  }
  return holds;
}

}  // namespace mirn
