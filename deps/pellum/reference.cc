#include "deps/pellum/reference.h"

namespace mirn {

int64_t CReference::Release() {
  const int64_t strong = strong_count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (strong == 0) {
    ReleaseSecondRef();
  }
  return strong;
}

int64_t CReference::ReleaseSecondRef() {
  const int64_t second = second_count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (second == 0) {
    delete this;
  }
  return second;
}

}  // namespace mirn
