#include "device/circle_data.h"

#include <new>

namespace mirn {

circle_data* circle_data_create(size_t size) {
  auto* const buffer = new (std::nothrow) uint8_t[size];
  if (buffer == nullptr) {
    return nullptr;
  }
  auto* const ring = new (std::nothrow)
      circle_data{buffer, buffer, buffer, size, circle_data_push, circle_data_pop, circle_data_get_size};
  if (ring == nullptr) {
    delete[] buffer;
  }
  return ring;
}

int circle_data_push(circle_data* ring, uint8_t byte) {
  if (circle_data_get_size(ring) == ring->size) {
    return -1;
  }
  *ring->write_pos = byte;
  ++ring->write_pos;
  if (ring->write_pos == ring->base + ring->size) {
    ring->write_pos = ring->base;
  }
  return 0;
}

int circle_data_pop(circle_data* ring, uint8_t* byte) {
  if (ring->read_pos == ring->write_pos) {
    return -1;
  }
  *byte = *ring->read_pos;
  ++ring->read_pos;
  if (ring->read_pos == ring->base + ring->size) {
    ring->read_pos = ring->base;
  }
  return 0;
}

size_t circle_data_get_size(const circle_data* ring) {
  if (ring->write_pos >= ring->read_pos) {
    return static_cast<size_t>(ring->write_pos - ring->read_pos);
  }
  return static_cast<size_t>(ring->write_pos - ring->read_pos) + ring->size;
}

int circle_data_destroy(circle_data* ring) {
  if (ring == nullptr) {
    return 0;
  }
  uint8_t* const buffer = ring->base;
  ring->size = 0;
  ring->write_pos = nullptr;
  ring->read_pos = nullptr;
  ring->base = nullptr;
  delete[] buffer;
  delete ring;
  return 0;
}

}  // namespace mirn
