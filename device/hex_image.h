// Intel HEX to a flat image, by the plain rules that the firmware upgrade lives by: data bytes in the order of the
// records; addresses, gaps and checksums are not looked at. That is meant: device/firmware_check.h tells beforehand
// whether a file survives it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "device/regular_file.h"

namespace mirn {

// A line counts at most this many characters, its ending included; the rest is a line of its own.
inline constexpr size_t kHexLineCharacters = 63;
inline constexpr size_t kHexDataStart = 9;
// Of the characters of a line the last four never begin a digit pair: the checksum and CR LF. A line that ends in LF
// alone has its last data digit among them, and only the first digit of a pair is asked for.
inline constexpr size_t kHexLineTail = 4;
inline constexpr size_t kMostHexLineBytes = (kHexLineCharacters - kHexLineTail - kHexDataStart + 1) / 2;

// What no digit's value has a bit of.
inline constexpr uint8_t kBadHexDigit = 0xF0;

inline constexpr std::array<uint8_t, 256> kHexDigitValues = [] {
  std::array<uint8_t, 256> values{};
  values.fill(kBadHexDigit);
  for (uint8_t digit = 0; digit < 10; ++digit) values['0' + digit] = digit;
  for (uint8_t digit = 0; digit < 6; ++digit) {
    values['A' + digit] = values['a' + digit] = static_cast<uint8_t>(10 + digit);
  }
  return values;
}();

// 0..15 for a digit of either case, kBadHexDigit for every other character.
constexpr uint8_t hexDigitValue(char c) {
  return kHexDigitValues[static_cast<uint8_t>(c)];
}

enum class HexLineKind : uint8_t {
  kSkipped,   // no data record: the character at position 8 is not '0'
  kData,      //
  kTooShort,  // fewer than 9 characters
  kBadDigit,  // a character among the digit pairs that is no hexadecimal digit
};

struct HexLine {
  HexLineKind kind = HexLineKind::kSkipped;
  size_t bytes = 0;
};

// One line of at most kHexLineCharacters, with its ending. `out` takes kMostHexLineBytes.
HexLine convertHexLine(std::string_view line, uint8_t* out);

// Takes a file's text in pieces of any size. Not thread-safe.
class HexConverter {
 public:
  // What `out` must hold for a piece of `characters`: each line gives fewer bytes than half its characters, and the
  // converter brings at most one begun line along.
  static constexpr size_t roomFor(size_t characters) { return characters / 2 + kMostHexLineBytes; }

  // Converts what is whole and keeps a begun line. Returns the number of bytes written to `out`.
  size_t feed(std::string_view text, std::span<uint8_t> out);
  // The last line, when it has no ending.
  size_t finish(std::span<uint8_t> out);
  // A line was too short or held a bad digit; nothing is converted from there on.
  bool failed() const { return failed_; }

 private:
  size_t convert(std::string_view line, uint8_t* out);

  char begun_[kHexLineCharacters] = {};
  size_t begun_length_ = 0;
  bool failed_ = false;
};

enum class HexFileResult : uint8_t {
  kConverted,
  kSourceUnreadable,
  kDestinationRefused,
  kBadText,      // a line too short, or a bad digit
  kWriteFailed,  //
};

// File to file. The destination is opened by openForReplacing; where the result is kBadText, kWriteFailed, or a read
// error in the middle, it is left empty. `image`, if not null, receives the converted file, to be read from its
// beginning: by then the path may be another program's.
HexFileResult convertHexFile(const std::string& source_path, const std::string& des_path, RegularFile* image = nullptr);

}  // namespace mirn
