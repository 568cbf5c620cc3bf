#include "virtual/target_encoder.h"

#include <libyuv.h>
// jpeglib.h uses FILE and size_t without including what declares them.
#include <jpeglib.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mirn {
namespace {

constexpr int kJpegQuality = 85;
constexpr int kJpegRow = 8;  // rows of one MCU row at 4:2:2
constexpr uint8_t kMarker = 0xFF;
constexpr uint8_t kStartOfScan = 0xDA;
constexpr uint8_t kFirstRestart = 0xD0;
constexpr uint8_t kEndOfImage = 0xD9;

class YuyvEncoder final : public TargetEncoder {
 public:
  YuyvEncoder(int width, int height) : bytes_(static_cast<size_t>(width) * static_cast<size_t>(height) * 2) {}

  std::span<const uint8_t> encode(const TargetScreen& screen) override {
    const size_t row = static_cast<size_t>(screen.width()) * 2;
    for (const RowRange& rows : takeDirty(1, screen.height())) {
      const auto first = static_cast<size_t>(rows.first);
      libyuv::ARGBToYUY2(screen.pixels() + first * screen.stride(), static_cast<int>(screen.stride()),
                         bytes_.data() + first * row, static_cast<int>(row), screen.width(), rows.last - rows.first);
    }
    return bytes_;
  }

 private:
  std::vector<uint8_t> bytes_;
};

class Nv12Encoder final : public TargetEncoder {
 public:
  Nv12Encoder(int width, int height) : bytes_(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 / 2) {}

  std::span<const uint8_t> encode(const TargetScreen& screen) override {
    const auto width = static_cast<size_t>(screen.width());
    uint8_t* chroma = bytes_.data() + width * static_cast<size_t>(screen.height());
    for (const RowRange& rows : takeDirty(2, screen.height())) {
      const auto first = static_cast<size_t>(rows.first);
      libyuv::ARGBToNV12(screen.pixels() + first * screen.stride(), static_cast<int>(screen.stride()),
                         bytes_.data() + first * width, screen.width(), chroma + first / 2 * width, screen.width(),
                         screen.width(), rows.last - rows.first);
    }
    return bytes_;
  }

 private:
  std::vector<uint8_t> bytes_;
};

struct JpegError {
  jpeg_error_mgr manager;
  std::jmp_buf jump;
};

// Memory that libjpeg allocates.
struct JpegOutput {
  unsigned char* data = nullptr;
  unsigned long size = 0;

  JpegOutput() = default;
  JpegOutput(const JpegOutput&) = delete;
  JpegOutput& operator=(const JpegOutput&) = delete;
  ~JpegOutput() { std::free(data); }
};

// Compresses `count` rows as a picture of their own, a restart marker after each MCU row. No object with a destructor
// lives in this function: libjpeg leaves it by longjmp when memory runs out.
bool compressRows(const uint8_t* pixels, size_t stride, int width, int count, JpegOutput& out) {
  jpeg_compress_struct jpeg;
  JpegError error;
  jpeg.err = jpeg_std_error(&error.manager);
  error.manager.error_exit = [](j_common_ptr common) {
    std::longjmp(reinterpret_cast<JpegError*>(common->err)->jump, 1);
  };
  if (setjmp(error.jump) != 0) {
    jpeg_destroy_compress(&jpeg);
    return false;
  }
  jpeg_create_compress(&jpeg);
  jpeg_mem_dest(&jpeg, &out.data, &out.size);
  jpeg.image_width = static_cast<JDIMENSION>(width);
  jpeg.image_height = static_cast<JDIMENSION>(count);
  jpeg.input_components = 4;
  jpeg.in_color_space = JCS_EXT_BGRX;
  jpeg_set_defaults(&jpeg);
  jpeg_set_quality(&jpeg, kJpegQuality, TRUE);
  jpeg.comp_info[0].h_samp_factor = 2;
  jpeg.comp_info[0].v_samp_factor = 1;
  jpeg.dct_method = JDCT_ISLOW;
  jpeg.restart_in_rows = 1;
  jpeg_start_compress(&jpeg, TRUE);
  while (jpeg.next_scanline < jpeg.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(pixels + jpeg.next_scanline * stride);
    jpeg_write_scanlines(&jpeg, &row, 1);
  }
  jpeg_finish_compress(&jpeg);
  jpeg_destroy_compress(&jpeg);
  return true;
}

// Offset of the first entropy-coded byte, 0 when there is none.
size_t scanStart(std::span<const uint8_t> jpeg) {
  size_t at = 2;  // after the start-of-image marker
  while (at + 4 <= jpeg.size() && jpeg[at] == kMarker) {
    const size_t length = static_cast<size_t>(jpeg[at + 2]) << 8 | jpeg[at + 3];
    const bool scan = jpeg[at + 1] == kStartOfScan;
    at += 2 + length;
    if (scan) {
      return at < jpeg.size() ? at : 0;
    }
  }
  return 0;
}

// A JPEG whose MCU rows are independent of each other (restart markers): the rows that changed are compressed anew, the
// others are kept as the bytes they were. What comes out is an ordinary baseline picture.
class JpegEncoder final : public TargetEncoder {
 public:
  explicit JpegEncoder(int height) : rows_(static_cast<size_t>(height / kJpegRow)) {}

  std::span<const uint8_t> encode(const TargetScreen& screen) override {
    for (const RowRange& rows : takeDirty(kJpegRow, screen.height())) {
      compress(screen, rows);
    }
    frame_.assign(header_.begin(), header_.end());
    for (size_t i = 0; i < rows_.size(); ++i) {
      if (i > 0) {
        frame_.push_back(kMarker);
        frame_.push_back(static_cast<uint8_t>(kFirstRestart + (i - 1) % 8));
      }
      frame_.insert(frame_.end(), rows_[i].begin(), rows_[i].end());
    }
    frame_.push_back(kMarker);
    frame_.push_back(kEndOfImage);
    return frame_;
  }

 private:
  void compress(const TargetScreen& screen, RowRange rows) {
    JpegOutput out;
    if (!compressRows(screen.pixels() + static_cast<size_t>(rows.first) * screen.stride(), screen.stride(),
                      screen.width(), rows.last - rows.first, out)) {
      return;  // out of memory: the old rows stay
    }
    const std::span<const uint8_t> jpeg(out.data, out.size);
    const size_t start = scanStart(jpeg);
    if (start == 0) {
      return;
    }
    if (rows.first == 0 && rows.last == screen.height()) {
      header_.assign(jpeg.begin(), jpeg.begin() + static_cast<std::ptrdiff_t>(start));
    }
    split(jpeg.subspan(start), static_cast<size_t>(rows.first / kJpegRow));
  }

  // Entropy-coded data up to each marker; 0xFF followed by 0 is data.
  void split(std::span<const uint8_t> scan, size_t row) {
    size_t begin = 0;
    for (size_t i = 0; i + 1 < scan.size() && row < rows_.size(); ++i) {
      if (scan[i] == kMarker && scan[i + 1] != 0) {
        rows_[row].assign(scan.begin() + static_cast<std::ptrdiff_t>(begin),
                          scan.begin() + static_cast<std::ptrdiff_t>(i));
        ++row;
        begin = i + 2;
        ++i;
      }
    }
  }

  std::vector<uint8_t> header_;
  std::vector<std::vector<uint8_t>> rows_;  // entropy-coded bytes of each MCU row
  std::vector<uint8_t> frame_;
};

}  // namespace

std::vector<RowRange> TargetEncoder::takeDirty(int unit, int height) {
  for (RowRange& rows : dirty_) {
    rows.first = std::max(rows.first, 0) / unit * unit;
    rows.last = std::min((rows.last + unit - 1) / unit * unit, height);
  }
  std::sort(dirty_.begin(), dirty_.end(), [](const RowRange& a, const RowRange& b) { return a.first < b.first; });
  std::vector<RowRange> joined;
  for (const RowRange& rows : dirty_) {
    if (rows.empty()) {
      continue;
    }
    if (!joined.empty() && rows.first <= joined.back().last) {
      joined.back().last = std::max(joined.back().last, rows.last);
    } else {
      joined.push_back(rows);
    }
  }
  dirty_.clear();
  return joined;
}

std::unique_ptr<TargetEncoder> makeTargetEncoder(TargetFormat format, int width, int height) {
  std::unique_ptr<TargetEncoder> encoder;
  switch (format) {
    case TargetFormat::kYuyv:
      encoder = std::make_unique<YuyvEncoder>(width, height);
      break;
    case TargetFormat::kNv12:
      encoder = std::make_unique<Nv12Encoder>(width, height);
      break;
    case TargetFormat::kMjpeg:
      encoder = std::make_unique<JpegEncoder>(height);
      break;
  }
  encoder->touch({0, height});
  return encoder;
}

}  // namespace mirn
