#include "device/firmware_check.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "device/hex_image.h"
#include "device/regular_file.h"

namespace mirn {
namespace {

// Mark, length, address, type and checksum: what a record has besides its data.
constexpr size_t kLeastRecordDigits = 10;
constexpr uint64_t kAddressSpace = uint64_t{1} << 32;
constexpr uint32_t kSegmentBytes = 0x10000;

enum RecordType : uint8_t {
  kDataRecord = 0,
  kEndRecord = 1,
  kSegmentBase = 2,
  kSegmentStart = 3,
  kLinearBase = 4,
  kLinearStart = 5,
};

struct Verdict {
  FirmwareFault fault = FirmwareFault::kNone;
  std::string reason;

  bool sound() const { return fault == FirmwareFault::kNone; }
};

template <typename... Values>
std::string text(const char* format, Values... values) {
  char line[200];
  std::snprintf(line, sizeof line, format, values...);
  return line;
}

// Length, address, type, up to 255 bytes of data, checksum.
using RecordBytes = std::array<uint8_t, 260>;

// A line taken apart strictly.
struct ParsedRecord {
  uint8_t type = 0;
  uint16_t offset = 0;
  size_t length = 0;
  std::array<uint8_t, 255> data;  // `length` bytes of it are set
};

std::string_view withoutEnding(std::string_view line) {
  if (line.ends_with('\n')) {
    line.remove_suffix(1);
    if (line.ends_with('\r')) line.remove_suffix(1);
  }
  return line;
}

Verdict parseDigits(std::string_view digits, RecordBytes& bytes) {
  for (size_t i = 0; i + 1 < digits.size() && i / 2 < bytes.size(); i += 2) {
    const uint8_t high = hexDigitValue(digits[i]);
    const uint8_t low = hexDigitValue(digits[i + 1]);
    if (((high | low) & kBadHexDigit) != 0) {
      // The mark is column 1.
      const size_t column = i + 2 + (high == kBadHexDigit ? 0 : 1);
      return {FirmwareFault::kBadDigit, text("column %zu holds no hexadecimal digit", column)};
    }
    bytes[i / 2] = static_cast<uint8_t>(high << 4 | low);
  }
  return {};
}

Verdict checkTypeAndLength(const ParsedRecord& record) {
  static constexpr std::array<int, 6> kLengths{-1, 0, 2, 4, 2, 4};
  if (record.type >= kLengths.size()) {
    return {FirmwareFault::kUnknownType, text("record type %02X is unknown", record.type)};
  }
  const int expected = kLengths[record.type];
  if (expected >= 0 && record.length != static_cast<size_t>(expected)) {
    return {FirmwareFault::kBadLength, text("a record of type %02X has %d data bytes, this one announces %zu",
                                            record.type, expected, record.length)};
  }
  return {};
}

// `content`: a line without its ending.
Verdict parseRecord(std::string_view content, ParsedRecord& record) {
  if (!content.starts_with(':')) {
    return {FirmwareFault::kNoRecordMark, content.empty() ? "the line is empty" : "the line does not begin with ':'"};
  }
  const std::string_view digits = content.substr(1);
  RecordBytes bytes;  // filled as far as there are digits
  Verdict verdict = parseDigits(digits, bytes);
  if (!verdict.sound()) return verdict;
  if (digits.size() < kLeastRecordDigits) {
    return {FirmwareFault::kShortRecord, text("the record is cut off after %zu characters", content.size())};
  }
  record.length = bytes[0];
  record.offset = static_cast<uint16_t>(bytes[1] << 8 | bytes[2]);
  record.type = bytes[3];
  const size_t expected = kLeastRecordDigits + 2 * record.length;
  if (digits.size() < expected) {
    return {FirmwareFault::kShortRecord,
            text("the record announces %zu data bytes and ends before them", record.length)};
  }
  if (digits.size() > expected) {
    return {FirmwareFault::kTrailingText, text("text follows the checksum, from column %zu on", expected + 2)};
  }
  uint8_t sum = 0;
  for (size_t i = 0; i < record.length + 4; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
  const auto right = static_cast<uint8_t>(-sum);
  const uint8_t found = bytes[record.length + 4];
  if (found != right) {
    return {FirmwareFault::kBadChecksum, text("the checksum is %02X, the record's bytes give %02X", found, right)};
  }
  std::copy_n(bytes.begin() + 4, record.length, record.data.begin());
  return checkTypeAndLength(record);
}

// What the plain conversion makes of a line: the reader's 63 characters at a time.
Verdict compareWithConversion(std::string_view line, const ParsedRecord& record) {
  const uint8_t* expected = record.data.data();
  size_t expected_length = record.type == kDataRecord ? record.length : 0;
  bool same = true;
  for (std::string_view rest = line; !rest.empty(); rest.remove_prefix(std::min(rest.size(), kHexLineCharacters))) {
    uint8_t bytes[kMostHexLineBytes];
    const HexLine piece = convertHexLine(rest.substr(0, kHexLineCharacters), bytes);
    same = (piece.kind == HexLineKind::kSkipped || piece.kind == HexLineKind::kData) &&
           piece.bytes <= expected_length && std::equal(bytes, bytes + piece.bytes, expected);
    if (!same) break;
    expected += piece.bytes;
    expected_length -= piece.bytes;
  }
  if (same && expected_length == 0) return {};
  if (line.size() > kHexLineCharacters) {
    return {FirmwareFault::kLineTooLong,
            text("the line has %zu characters with its ending; the upgrade reads %zu at a time and would mangle it",
                 line.size(), kHexLineCharacters)};
  }
  if (!line.ends_with('\n')) {
    return {FirmwareFault::kConversionDiffers, "the last line has no line end: the upgrade would drop its last byte"};
  }
  return {FirmwareFault::kConversionDiffers, "the upgrade would read other bytes from this line"};
}

// The addresses that data has been seen for, as few stretches as possible.
class Coverage {
 public:
  bool touches(uint64_t begin, uint64_t end) const {
    return std::any_of(stretches_.begin(), stretches_.end(),
                       [&](const auto& stretch) { return begin < stretch.second && stretch.first < end; });
  }
  void add(uint64_t begin, uint64_t end) {
    if (!stretches_.empty() && stretches_.back().second == begin) {
      stretches_.back().second = end;
    } else {
      stretches_.emplace_back(begin, end);
    }
  }
  bool empty() const { return stretches_.empty(); }
  uint64_t begin() const { return stretches_.front().first; }
  // Where the latest data ended.
  uint64_t end() const { return stretches_.back().second; }

 private:
  std::vector<std::pair<uint64_t, uint64_t>> stretches_;  // more than one only after a finding
};

class Checker {
 public:
  Checker(FirmwareReport& report, const FirmwareRecordVisitor& visit) : report_(report), visit_(visit) {}

  bool full() const { return report_.finding_count >= kMostFindings; }

  void checkLine(std::string_view line) {
    ++line_;
    ParsedRecord parsed;
    FirmwareRecord record;
    record.line = line_;
    Verdict verdict = judge(line, parsed, record);
    record.type = parsed.type;
    record.length = static_cast<uint8_t>(parsed.length);
    record.fault = verdict.fault;
    ++report_.records;
    if (!verdict.sound()) add(line_, std::move(verdict));
    if (visit_) visit_(record);
  }

  void finish(uint64_t most_image_bytes) {
    if (!ended_ && !full()) {
      add(line_, {FirmwareFault::kNoEnd, "the file ends without an end-of-file record: it may have been cut off"});
    }
    if (report_.image_bytes == 0) add(0, {FirmwareFault::kEmpty, "the file holds no data"});
    if (report_.image_bytes > most_image_bytes) {
      add(0, {FirmwareFault::kTooLarge, text("the image has %llu bytes, an upgrade carries at most %llu",
                                             static_cast<unsigned long long>(report_.image_bytes),
                                             static_cast<unsigned long long>(most_image_bytes))});
    }
    if (!coverage_.empty()) report_.base_address = static_cast<uint32_t>(coverage_.begin());
    report_.exact = report_.finding_count == 0;
  }

  void add(size_t line, Verdict verdict) {
    ++report_.finding_count;
    if (report_.findings.size() < kMostFindings) {
      report_.findings.push_back({line, verdict.fault, std::move(verdict.reason)});
    }
  }

 private:
  Verdict judge(std::string_view line, ParsedRecord& parsed, FirmwareRecord& record) {
    if (ended_) return {FirmwareFault::kAfterEnd, "the line follows the end-of-file record"};
    Verdict verdict = parseRecord(withoutEnding(line), parsed);
    if (!verdict.sound()) {
      // Without this record's data nobody can tell whether the next one leaves a gap.
      lost_data_ = true;
      return verdict;
    }
    verdict = place(parsed, record);
    return verdict.sound() ? compareWithConversion(line, parsed) : verdict;
  }

  Verdict place(const ParsedRecord& record, FirmwareRecord& placed) {
    switch (record.type) {
      case kDataRecord:
        return placeData(record, placed);
      case kEndRecord:
        ended_ = true;
        return {};
      case kSegmentBase:
        segment_base_ = static_cast<uint32_t>(record.data[0] << 8 | record.data[1]) << 4;
        linear_ = false;
        return {};
      case kLinearBase:
        linear_base_ = static_cast<uint32_t>(record.data[0] << 8 | record.data[1]) << 16;
        linear_ = true;
        return {};
      default:
        return {};
    }
  }

  Verdict placeData(const ParsedRecord& record, FirmwareRecord& placed) {
    const uint64_t begin = uint64_t{linear_base_} + segment_base_ + record.offset;
    const uint64_t end = begin + record.length;
    placed.address = static_cast<uint32_t>(begin);
    if (record.length == 0) return {};
    if (linear_base_ != 0 && segment_base_ != 0) {
      return {FirmwareFault::kMixedAddressing, "segment and linear base addresses are in force together"};
    }
    report_.image_bytes += record.length;
    Verdict verdict = follow(begin, end);
    lost_data_ = false;
    coverage_.add(begin, end);
    const bool wraps = linear_ ? end > kAddressSpace : record.offset + record.length > kSegmentBytes;
    if (wraps && verdict.sound()) {
      verdict = {FirmwareFault::kAddressWrap,
                 text("the record's data runs over the end of its %s", linear_ ? "address space" : "64 KiB segment")};
    }
    return verdict;
  }

  // Does the data begin where the data before it ended?
  Verdict follow(uint64_t begin, uint64_t end) const {
    if (coverage_.touches(begin, end)) return overlap(begin);
    if (coverage_.empty() || lost_data_ || begin == coverage_.end()) return {};
    const auto at = static_cast<unsigned long long>(begin);
    const auto before = static_cast<unsigned long long>(coverage_.end());
    if (begin > coverage_.end()) {
      return {FirmwareFault::kGap,
              text("the data belongs to %08llX, the data before it ended at %08llX: the upgrade does not fill the gap",
                   at, before)};
    }
    return {
        FirmwareFault::kOutOfOrder,
        text("the data belongs to %08llX, before the data that came earlier: the upgrade keeps the file's order", at)};
  }

  static Verdict overlap(uint64_t begin) {
    return {FirmwareFault::kOverlap,
            text("the data for %08llX overlaps data that came earlier", static_cast<unsigned long long>(begin))};
  }

  FirmwareReport& report_;
  const FirmwareRecordVisitor& visit_;
  size_t line_ = 0;
  bool ended_ = false;
  bool linear_ = false;
  bool lost_data_ = false;
  uint32_t segment_base_ = 0;
  uint32_t linear_base_ = 0;
  Coverage coverage_;
};

FirmwareReport refused(FirmwareFault fault, std::string reason) {
  FirmwareReport report;
  report.findings.push_back({0, fault, std::move(reason)});
  report.finding_count = 1;
  return report;
}

}  // namespace

std::string FirmwareReport::firstReason() const {
  if (findings.empty()) return "";
  const FirmwareFinding& first = findings.front();
  return first.line == 0 ? first.reason : "line " + std::to_string(first.line) + ": " + first.reason;
}

FirmwareReport checkFirmwareText(std::string_view text, const FirmwareRecordVisitor& visit, uint64_t most_image_bytes) {
  FirmwareReport report;
  Checker checker(report, visit);
  while (!text.empty() && !checker.full()) {
    const size_t found = text.find('\n');
    const size_t length = found == std::string_view::npos ? text.size() : found + 1;
    checker.checkLine(text.substr(0, length));
    text.remove_prefix(length);
  }
  checker.finish(most_image_bytes);
  return report;
}

FirmwareReport checkFirmwareFile(const std::string& path, const FirmwareRecordVisitor& visit) {
  const RegularFile file = openForReading(path);
  if (!file.fd.valid()) return refused(FirmwareFault::kUnreadable, "the file cannot be opened, or is no regular file");
  if (file.size > kMostHexFileBytes) {
    return refused(FirmwareFault::kTooLarge,
                   "the file is larger than any firmware image: " + std::to_string(file.size) + " bytes");
  }
  std::string content(file.size, '\0');
  const int64_t count = readFully(file.fd.get(), reinterpret_cast<uint8_t*>(content.data()), content.size());
  if (count < 0) return refused(FirmwareFault::kUnreadable, "the file cannot be read to its end");
  content.resize(static_cast<size_t>(count));
  return checkFirmwareText(content, visit);
}

bool isHexFirmwarePath(std::string_view path) {
  constexpr size_t kEndingBytes = 4;
  if (path.size() < kEndingBytes) return false;
  const size_t ending = path.size() - kEndingBytes;
  return path.find(".hex") == ending || path.find(".HEX") == ending;
}

}  // namespace mirn
