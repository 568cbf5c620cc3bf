// The ring against a queue that forgets everything when it fills.
#include <cstdint>
#include <cstdlib>
#include <deque>

#include "device/circle_data.h"

namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const size_t capacity = data[0];
  mirn::circle_data* const ring = mirn::circle_data_create(capacity);
  require(ring != nullptr);
  std::deque<uint8_t> model;
  for (size_t i = 1; i < size; ++i) {
    if (data[i] % 3 != 0) {
      require(ring->push(ring, data[i]) == (capacity == 0 ? -1 : 0));
      model.push_back(data[i]);
      if (model.size() >= capacity) {
        model.clear();
      }
    } else {
      uint8_t byte = 0;
      require(ring->pop(ring, &byte) == (model.empty() ? -1 : 0));
      if (!model.empty()) {
        require(byte == model.front());
        model.pop_front();
      }
    }
    require(ring->get_size(ring) == model.size());
  }
  require(mirn::circle_data_destroy(ring) == 0);
  return 0;
}
