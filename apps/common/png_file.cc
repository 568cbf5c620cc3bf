#include "apps/common/png_file.h"

#include <glib.h>
#include <png.h>

#include <array>
#include <csetjmp>
#include <ctime>

namespace mirn {
namespace {

void appendBytes(png_structp png, png_bytep bytes, size_t length) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), bytes, bytes + length);
}

void flushNothing(png_structp /*png*/) {}

// The part that libpng may leave with longjmp: no object with a destructor lives in it.
bool encodeRows(png_structp png, png_infop info, const uint8_t* pixels, size_t width, size_t height, size_t stride) {
  if (setjmp(png_jmpbuf(png)) != 0) {
    return false;
  }
  png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  constexpr int kQuick = 3;
  png_set_compression_level(png, kQuick);
  png_write_info(png, info);
  png_set_filler(png, 0, PNG_FILLER_AFTER);
  png_set_bgr(png);
  for (size_t row = 0; row < height; ++row) {
    png_write_row(png, pixels + row * stride);
  }
  png_write_end(png, info);
  return true;
}

}  // namespace

std::vector<uint8_t> encodePng(const PixelBufferRef& picture) {
  std::vector<uint8_t> out;
  if (!picture || picture->format() != kPixelFormatBGRA) {
    return out;
  }
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  if (info == nullptr) {
    png_destroy_write_struct(&png, nullptr);
    return out;
  }
  png_set_write_fn(png, &out, &appendBytes, &flushNothing);
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  const uint8_t* pixels = picture->baseAddress();
  bool whole =
      pixels != nullptr && encodeRows(png, info, pixels, picture->width(), picture->height(), picture->bytesPerRow());
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  png_destroy_write_struct(&png, &info);
  if (!whole) {
    out.clear();
  }
  return out;
}

bool writePng(const PixelBufferRef& picture, const std::string& path, std::string* error) {
  std::vector<uint8_t> bytes = encodePng(picture);
  if (bytes.empty()) {
    if (error != nullptr) {
      *error = "There is no picture to save.";
    }
    return false;
  }
  GError* failure = nullptr;
  if (g_file_set_contents(path.c_str(), reinterpret_cast<const char*>(bytes.data()), static_cast<gssize>(bytes.size()),
                          &failure) == FALSE) {
    if (error != nullptr) {
      // The whole message names a temporary file that nobody asked for.
      std::string message = failure->message;
      size_t reason = message.rfind(": ");
      *error = "Can't write " + path + (reason != std::string::npos ? message.substr(reason) : ": " + message);
    }
    g_clear_error(&failure);
    return false;
  }
  return true;
}

std::string screenshotName(int64_t unix_seconds) {
  auto time = static_cast<std::time_t>(unix_seconds);
  std::tm local{};
  localtime_r(&time, &local);
  std::array<char, 64> name{};
  std::strftime(name.data(), name.size(), "mirn-%Y-%m-%d-%H-%M-%S.png", &local);
  return name.data();
}

}  // namespace mirn
