// The byte ring between the HID reports and the frame decoder.
//
// Not thread-safe: the command layer uses it under its device mutex.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirn {

// One ring. The operations are reached through the record, so that a reader knows only the record.
struct circle_data {
  uint8_t* write_pos;
  uint8_t* read_pos;
  uint8_t* base;  // owned, `size` bytes
  size_t size;
  int (*push)(circle_data* ring, uint8_t byte);
  int (*pop)(circle_data* ring, uint8_t* byte);
  size_t (*get_size)(const circle_data* ring);
};

// A ring over `size` bytes, both positions at the base; null when memory is short. Destroy it with circle_data_destroy.
circle_data* circle_data_create(size_t size);

// 0, or -1 when the fill count equals the size. The count never exceeds size - 1, so a push onto a ring that holds
// size - 1 bytes makes both positions equal: the ring then reads as empty and its contents are lost. That is meant; the
// ring is drained by every decode. (Only a ring of size 0 refuses.)
int circle_data_push(circle_data* ring, uint8_t byte);

// 0 and the oldest byte, or -1 when the ring is empty.
int circle_data_pop(circle_data* ring, uint8_t* byte);

// Bytes held.
size_t circle_data_get_size(const circle_data* ring);

// Frees the ring; null is accepted. Always 0.
int circle_data_destroy(circle_data* ring);

}  // namespace mirn
