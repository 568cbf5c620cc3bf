// A PNG file as pixels.
#pragma once

#include <png.h>

#include <cstdint>
#include <string>
#include <vector>

namespace mirn {

struct PngPicture {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> bgra;  // height rows of width * 4 bytes
};

// Without pixels when the file is none.
inline PngPicture readPng(const std::string& path) {
  PngPicture picture;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return picture;
  image.format = PNG_FORMAT_BGRA;
  picture.bgra.resize(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, picture.bgra.data(), 0, nullptr) == 0) {
    png_image_free(&image);
    return {};
  }
  picture.width = static_cast<int>(image.width);
  picture.height = static_cast<int>(image.height);
  return picture;
}

}  // namespace mirn
