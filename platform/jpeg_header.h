#pragma once

// What of a JPEG's header the decoder's own interface doesn't tell.

#include <cstddef>
#include <cstdint>

namespace mirn {

struct JpegTables {
  /// Bits 0-3: quantisation tables, 4-7: DC Huffman tables, 8-11: AC Huffman tables that the picture brings along.
  uint32_t defined = 0;
  /// More tables may follow within the picture (it isn't a sequential one).
  bool more = false;

  bool anyQuantisation() const { return (defined & 0xf) != 0; }
};

/// Walks the segments up to the first scan. Any bytes are safe; a header that breaks off gives what was found.
JpegTables jpegTables(const uint8_t* bytes, size_t size);

}  // namespace mirn
