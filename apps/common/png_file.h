// A captured picture as a PNG file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/pixel_buffer.h"

namespace mirn {

// The picture as RGB PNG bytes; empty when it isn't a BGRA picture.
std::vector<uint8_t> encodePng(const PixelBufferRef& picture);
// Replaces the file in one step. False with one line in `error`.
bool writePng(const PixelBufferRef& picture, const std::string& path, std::string* error);

// "mirn-2024-05-31-14-03-59.png" for a local time.
std::string screenshotName(int64_t unix_seconds);

}  // namespace mirn
