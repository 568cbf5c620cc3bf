// Any text, fed in pieces of any size, converts as the model says. The first byte chooses the size of the pieces.
#include <cstdlib>
#include <string_view>
#include <vector>

#include "device/hex_image.h"
#include "fuzz/device_proxy/plain_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace mirn;
  if (size == 0) return 0;
  const size_t piece = data[0] == 0 ? size : data[0];
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);

  HexConverter converter;
  std::vector<uint8_t> image;
  // Of its own for each call, so that the address sanitizer sees a byte too much.
  for (size_t at = 0; at < text.size(); at += piece) {
    std::vector<uint8_t> room(HexConverter::roomFor(piece));
    const size_t bytes = converter.feed(text.substr(at, piece), room);
    image.insert(image.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(bytes));
  }
  std::vector<uint8_t> room(HexConverter::roomFor(0));
  const size_t bytes = converter.finish(room);
  image.insert(image.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(bytes));

  const std::optional<std::vector<uint8_t>> expected = plainModel(text);
  if (converter.failed() != !expected.has_value()) std::abort();
  if (expected && image != *expected) std::abort();
  return 0;
}
