// The machine-readable strip in the target's picture: a test that sees nothing but the picture can tell which frame it
// is and which input the target had taken when it was drawn. Two rows of large black and white cells, in the bottom
// right corner, survive chroma subsampling, JPEG and scaling down to a third.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace mirn {

// What one strip says. `input_digest` is TargetInputState's digest (virtual/virtual_target.h).
struct StripContent {
  uint32_t frame_number = 0;
  uint32_t input_digest = 0;

  bool operator==(const StripContent& other) const = default;
};

// 8 bits of magic, 32 + 32 bits of content (most significant bit first), 16 bits of CRC over the bytes before.
inline constexpr int kStripBits = 88;
inline constexpr int kStripRows = 2;
inline constexpr int kStripColumns = kStripBits / kStripRows;
// A picture is 80 cells wide whatever its size, so a scaled copy is read with the same arithmetic.
inline constexpr int kStripCellsPerWidth = 80;

// true = white. Bit 0 is the top left cell, row by row.
using StripBits = std::array<bool, kStripBits>;

StripBits encodeStrip(const StripContent& content);
// Empty when the magic or the checksum is wrong.
std::optional<StripContent> decodeStrip(const StripBits& bits);

// Where the cells stand in a picture of `width` x `height` pixels (real numbers: a scaled picture has broken cells).
struct StripGeometry {
  double cell = 0;
  double left = 0;
  double top = 0;
};
StripGeometry stripGeometry(int width, int height);

// One brightness sample per pixel of a picture: green of BGRA is {data + 1, .., step 4}, the luma of YUYV is
// {data, .., step 2}, of NV12 {data, .., step 1}. `stride` in bytes. Borrowed memory of at least height * stride bytes.
struct StripPicture {
  const uint8_t* samples = nullptr;
  int width = 0;
  int height = 0;
  size_t stride = 0;
  size_t step = 1;
};

// Reentrant. Empty when there is no readable strip, the cells are below two pixels, or `samples` is null.
std::optional<StripContent> readStrip(const StripPicture& picture);
// The same for 4-byte pixels with green second (BGRA or RGBA).
std::optional<StripContent> readStripBgra(const uint8_t* pixels, int width, int height, size_t stride);

}  // namespace mirn
