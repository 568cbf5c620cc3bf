#include "device/hex_image.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "device/regular_file.h"

namespace mirn {
namespace {

// Large enough that the calls do not count, small enough for a second-level cache.
constexpr size_t kPieceBytes = size_t{128} << 10;

// The first line in `text`: up to and with its LF, or kHexLineCharacters. Empty when `text` holds only a begun line.
std::string_view firstLine(std::string_view text) {
  const std::string_view window = text.substr(0, kHexLineCharacters);
  const void* end = std::memchr(window.data(), '\n', window.size());
  if (end != nullptr) return window.substr(0, static_cast<const char*>(end) - window.data() + 1);
  return window.size() == kHexLineCharacters ? window : std::string_view();
}

}  // namespace

HexLine convertHexLine(std::string_view line, uint8_t* out) {
  if (line.size() < kHexDataStart) return {HexLineKind::kTooShort, 0};
  if (line[kHexDataStart - 1] != '0') return {HexLineKind::kSkipped, 0};
  if (line.size() <= kHexDataStart + kHexLineTail) return {HexLineKind::kData, 0};

  const size_t pairs = (line.size() - kHexLineTail - kHexDataStart + 1) / 2;
  const char* digits = line.data() + kHexDataStart;
  uint8_t seen = 0;
  for (size_t i = 0; i < pairs; ++i) {
    const uint8_t high = hexDigitValue(digits[2 * i]);
    const uint8_t low = hexDigitValue(digits[2 * i + 1]);
    seen |= static_cast<uint8_t>(high | low);
    out[i] = static_cast<uint8_t>(high << 4 | low);
  }
  if ((seen & kBadHexDigit) != 0) return {HexLineKind::kBadDigit, 0};
  return {HexLineKind::kData, pairs};
}

size_t HexConverter::convert(std::string_view line, uint8_t* out) {
  const HexLine result = convertHexLine(line, out);
  failed_ = result.kind == HexLineKind::kTooShort || result.kind == HexLineKind::kBadDigit;
  return result.bytes;
}

size_t HexConverter::feed(std::string_view text, std::span<uint8_t> out) {
  uint8_t* end = out.data();
  while (!text.empty() && !failed_) {
    if (begun_length_ == 0) {
      const std::string_view line = firstLine(text);
      if (!line.empty()) {
        end += convert(line, end);
        text.remove_prefix(line.size());
        continue;
      }
    }
    // At the edge between two pieces: go on with the begun line.
    const std::string_view window = text.substr(0, kHexLineCharacters - begun_length_);
    const size_t found = window.find('\n');
    const size_t taken = found == std::string_view::npos ? window.size() : found + 1;
    std::memcpy(begun_ + begun_length_, window.data(), taken);
    begun_length_ += taken;
    text.remove_prefix(taken);
    if (found == std::string_view::npos && begun_length_ < kHexLineCharacters) break;
    end += convert({begun_, std::exchange(begun_length_, 0)}, end);
  }
  return static_cast<size_t>(end - out.data());
}

size_t HexConverter::finish(std::span<uint8_t> out) {
  if (begun_length_ == 0 || failed_) return 0;
  return convert({begun_, std::exchange(begun_length_, 0)}, out.data());
}

HexFileResult convertHexFile(const std::string& source_path, const std::string& des_path, RegularFile* image_file) {
  const RegularFile source = openForReading(source_path);
  if (!source.fd.valid()) return HexFileResult::kSourceUnreadable;
  RegularFile destination = openForReplacing(des_path, source);
  if (!destination.fd.valid()) return HexFileResult::kDestinationRefused;

  const auto text = std::make_unique_for_overwrite<uint8_t[]>(kPieceBytes);
  constexpr size_t kRoom = HexConverter::roomFor(kPieceBytes);
  const auto image = std::make_unique_for_overwrite<uint8_t[]>(kRoom);
  const auto giveUp = [&destination](HexFileResult result) {
    // Half an image is worse than none. Nothing more can be done when this fails too: the caller knows anyway.
    if (ftruncate(destination.fd.get(), 0) != 0) destination.fd.close();
    return result;
  };

  HexConverter converter;
  int64_t count = 0;
  do {
    count = readFully(source.fd.get(), text.get(), kPieceBytes);
    if (count < 0) return giveUp(HexFileResult::kSourceUnreadable);
    const std::string_view piece(reinterpret_cast<const char*>(text.get()), static_cast<size_t>(count));
    size_t bytes = converter.feed(piece, {image.get(), kRoom});
    if (!writeFully(destination.fd.get(), image.get(), bytes)) return giveUp(HexFileResult::kWriteFailed);
    if (converter.failed()) return giveUp(HexFileResult::kBadText);
  } while (count > 0);
  const size_t bytes = converter.finish({image.get(), kRoom});
  if (converter.failed()) return giveUp(HexFileResult::kBadText);
  if (!writeFully(destination.fd.get(), image.get(), bytes)) return giveUp(HexFileResult::kWriteFailed);
  if (image_file == nullptr) {
    return destination.fd.close() ? HexFileResult::kConverted : giveUp(HexFileResult::kWriteFailed);
  }
  const off_t size = lseek(destination.fd.get(), 0, SEEK_END);
  if (size < 0 || lseek(destination.fd.get(), 0, SEEK_SET) != 0) return giveUp(HexFileResult::kWriteFailed);
  *image_file = {std::move(destination.fd), static_cast<uint64_t>(size)};
  return HexFileResult::kConverted;
}

}  // namespace mirn
