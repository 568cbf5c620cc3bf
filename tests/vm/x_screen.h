// What an Xvfb server shows, read from the file that it keeps its screen in (-fbdir): no X client, nothing encoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "virtual/frame_strip.h"

namespace mirn {

class XScreen {
 public:
  // An X window dump: big-endian words, colours, then rows of 4-byte pixels with green second.
  explicit XScreen(std::string file) : file_(std::move(file)) {}

  // The strip of a picture of width x height pixels that is shown 1:1, wherever on the screen. Empty while there is
  // none.
  std::optional<StripContent> strip(int width, int height) {
    if (!read()) return std::nullopt;
    if (auto found = stripAt(left_, top_, width, height)) return found;
    for (int top = 0; top + height <= height_; ++top) {
      for (int left = 0; left + width <= width_; ++left) {
        const auto found = stripAt(left, top, width, height);
        if (!found) continue;
        left_ = left;
        top_ = top;
        return found;
      }
    }
    return std::nullopt;
  }
  // The upper left corner of the picture that was found last.
  int left() const { return left_; }
  int top() const { return top_; }

 private:
  static constexpr size_t kHeaderSize = 0;  // words of the header
  static constexpr size_t kWidth = 4;
  static constexpr size_t kHeight = 5;
  static constexpr size_t kBitsPerPixel = 11;
  static constexpr size_t kBytesPerRow = 12;
  static constexpr size_t kColours = 19;
  static constexpr size_t kHeaderWords = 25;
  static constexpr size_t kColourBytes = 12;

  size_t word(size_t index) const {
    size_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes_[index * 4 + i]);
    return value;
  }
  bool read() {
    std::ifstream file(file_, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
    if (bytes_.size() < kHeaderWords * 4 || word(kBitsPerPixel) != 32) return false;
    width_ = static_cast<int>(word(kWidth));
    height_ = static_cast<int>(word(kHeight));
    row_bytes_ = word(kBytesPerRow);
    pixels_ = word(kHeaderSize) + word(kColours) * kColourBytes;
    return bytes_.size() >= pixels_ + row_bytes_ * word(kHeight);
  }
  std::optional<StripContent> stripAt(int left, int top, int width, int height) const {
    if (left + width > width_ || top + height > height_) return std::nullopt;
    const size_t offset = pixels_ + static_cast<size_t>(top) * row_bytes_ + static_cast<size_t>(left) * 4;
    return readStripBgra(reinterpret_cast<const uint8_t*>(bytes_.data()) + offset, width, height, row_bytes_);
  }

  const std::string file_;
  std::string bytes_;
  int width_ = 0;
  int height_ = 0;
  size_t row_bytes_ = 0;
  size_t pixels_ = 0;
  int left_ = 0;
  int top_ = 0;
};

}  // namespace mirn
