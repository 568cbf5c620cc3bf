#pragma once

// Pictures and measures for golden tests.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace mirn::test {

/// 4-byte pixels, rows packed.
struct Picture {
  size_t width = 0;
  size_t height = 0;
  std::vector<uint8_t> bytes;

  Picture() = default;
  Picture(size_t w, size_t h) : width(w), height(h), bytes(w * h * 4) {}
  uint8_t* at(size_t x, size_t y) { return bytes.data() + (y * width + x) * 4; }
  const uint8_t* at(size_t x, size_t y) const { return bytes.data() + (y * width + x) * 4; }
};

/// Windows, a gradient, and lines of small text-like strokes: what a screen shows.
inline Picture desktopPicture(size_t width, size_t height) {
  Picture picture(width, height);
  std::mt19937 random(5);
  const auto fill = [&](size_t x0, size_t y0, size_t w, size_t h, uint8_t b, uint8_t g, uint8_t r) {
    for (size_t y = y0; y < std::min(y0 + h, height); ++y) {
      for (size_t x = x0; x < std::min(x0 + w, width); ++x) {
        uint8_t* pixel = picture.at(x, y);
        pixel[0] = b;
        pixel[1] = g;
        pixel[2] = r;
        pixel[3] = 255;
      }
    }
  };
  for (size_t y = 0; y < height; ++y) {
    fill(0, y, width, 1, static_cast<uint8_t>(120 + y * 100 / height), 90, 40);
  }
  fill(width / 20, height / 12, width * 5 / 8, height * 3 / 4, 250, 250, 250);
  fill(width / 20, height / 12, width * 5 / 8, height / 30 + 1, 180, 120, 60);
  fill(width * 3 / 4, height / 6, width / 5, height / 2, 60, 60, 60);
  // Glyphs of 5 x 8 pixels, 7 apart, each with its own strokes one pixel wide.
  for (size_t line = height / 8; line + 12 < height * 4 / 5; line += 13) {
    for (size_t column = width / 16; column + 8 < width * 5 / 8; column += 7) {
      const unsigned shape = static_cast<unsigned>(random());
      for (size_t y = 0; y < 8; ++y) {
        for (size_t x = 0; x < 5; ++x) {
          if ((shape >> ((y * 5 + x * 3) % 31) & 1) != 0) {
            fill(column + x, line + y, 1, 1, 20, 20, 20);
          }
        }
      }
    }
  }
  return picture;
}

inline Picture noisePicture(size_t width, size_t height, unsigned seed = 1) {
  Picture picture(width, height);
  std::mt19937 random(seed);
  for (uint8_t& byte : picture.bytes) {
    byte = static_cast<uint8_t>(random());
  }
  return picture;
}

/// The exact average of the area that each output pixel covers, in double precision, three channels a pixel.
inline std::vector<double> exactAreaAverage(const Picture& source, size_t width, size_t height) {
  // Columns first, then rows: the two are independent.
  const auto reduce = [](const std::vector<double>& in, size_t from, size_t to, size_t lines) {
    std::vector<double> out(to * lines * 3);
    const double scale = static_cast<double>(from) / static_cast<double>(to);
    for (size_t line = 0; line < lines; ++line) {
      for (size_t i = 0; i < to; ++i) {
        const double begin = static_cast<double>(i) * scale;
        const double end = begin + scale;
        for (size_t s = static_cast<size_t>(begin); s < from && static_cast<double>(s) < end; ++s) {
          const double part = std::min(end, static_cast<double>(s) + 1) - std::max(begin, static_cast<double>(s));
          for (size_t c = 0; c < 3; ++c) {
            out[(line * to + i) * 3 + c] += in[(line * from + s) * 3 + c] * part / scale;
          }
        }
      }
    }
    return out;
  };
  const auto transposed = [](const std::vector<double>& in, size_t w, size_t h) {
    std::vector<double> out(in.size());
    for (size_t y = 0; y < h; ++y) {
      for (size_t x = 0; x < w; ++x) {
        for (size_t c = 0; c < 3; ++c) {
          out[(x * h + y) * 3 + c] = in[(y * w + x) * 3 + c];
        }
      }
    }
    return out;
  };
  std::vector<double> values(source.width * source.height * 3);
  for (size_t i = 0; i < source.width * source.height; ++i) {
    for (size_t c = 0; c < 3; ++c) {
      values[i * 3 + c] = source.bytes[i * 4 + c];
    }
  }
  const std::vector<double> narrow = reduce(values, source.width, width, source.height);
  const std::vector<double> turned = transposed(narrow, width, source.height);
  return transposed(reduce(turned, source.height, height, width), height, width);
}

/// In dB; infinite for equal pictures. `expected` is rounded to whole levels first, as any picture of bytes must be.
inline double psnr(const std::vector<uint8_t>& got, const std::vector<double>& expected) {
  double sum = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const double difference = got[i] - std::round(expected[i]);
    sum += difference * difference;
  }
  return sum == 0 ? std::numeric_limits<double>::infinity()
                  : 10 * std::log10(255.0 * 255.0 * static_cast<double>(expected.size()) / sum);
}

/// The same against the unrounded average.
inline double psnrUnrounded(const std::vector<uint8_t>& got, const std::vector<double>& expected) {
  double sum = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    const double difference = got[i] - expected[i];
    sum += difference * difference;
  }
  return 10 * std::log10(255.0 * 255.0 * static_cast<double>(expected.size()) / sum);
}

}  // namespace mirn::test
