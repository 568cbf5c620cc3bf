// Would the firmware upgrade's plain HEX conversion give exactly the image that a file describes? Reads the file
// strictly, record by record, and says no with a line and a reason. Reentrant; no device is touched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

enum class FirmwareFault : uint8_t {
  kNone,
  kUnreadable,    // not a regular file, no permission, or a read error
  kTooLarge,      // more than the reader or the wire's 65,535 chunks can carry
  kEmpty,         // no data at all
  kNoRecordMark,  // a line that does not begin with ':'
  kBadDigit,      // a character that is not a hexadecimal digit
  kShortRecord,   // fewer digits than the length field announces, or than any record has
  kTrailingText,  // characters after the checksum
  kBadChecksum,
  kUnknownType,       // a record type beyond 00..05
  kBadLength,         // a special record whose length is not the one its type has
  kGap,               // the data does not begin where the data before it ended
  kOverlap,           // an address that was written before
  kOutOfOrder,        // data for an address below the data before it
  kAddressWrap,       // one record runs over the end of its segment or of the address space
  kMixedAddressing,   // segment and linear base addresses in force together: readers disagree what that means
  kAfterEnd,          // a record after the end-of-file record
  kNoEnd,             // no end-of-file record: the file was cut off
  kLineTooLong,       // the conversion reads at most 63 characters at a time and would mangle the record
  kConversionDiffers  // the conversion would give other bytes for this line
};

struct FirmwareFinding {
  size_t line = 0;  // counted from 1; 0 = the file as a whole
  FirmwareFault fault = FirmwareFault::kNone;
  std::string reason;  // a sentence for the user, without the line number
};

// One line of the file, in file order.
struct FirmwareRecord {
  size_t line = 0;
  uint8_t type = 0;
  uint8_t length = 0;    // data bytes
  uint32_t address = 0;  // absolute address of the first data byte; data records only
  FirmwareFault fault = FirmwareFault::kNone;
};

struct FirmwareReport {
  // True when the conversion gives the described image, byte for byte.
  bool exact = false;
  uint64_t image_bytes = 0;
  uint32_t base_address = 0;
  size_t records = 0;
  // The first findings in file order (at most kMostFindings), and how many there are in all. After kMostFindings
  // the reader stops: a file of that kind is no HEX file.
  std::vector<FirmwareFinding> findings;
  size_t finding_count = 0;

  // "line 12: the checksum is ..." for the first finding, or "" when there is none.
  std::string firstReason() const;
};

inline constexpr size_t kMostFindings = 100;
// A 64 MiB image in 16-byte records takes 188 MB of text.
inline constexpr uint64_t kMostHexFileBytes = 256ull << 20;
// What 65,535 chunks of 1024 bytes hold: beyond it the wire's chunk total wraps.
inline constexpr uint64_t kMostImageBytes = 65535ull * 1024;

// Is called for each record as it is judged; may be empty.
using FirmwareRecordVisitor = std::function<void(const FirmwareRecord&)>;

// `most_image_bytes`: an image beyond it is kTooLarge.
FirmwareReport checkFirmwareText(std::string_view text, const FirmwareRecordVisitor& visit = {},
                                 uint64_t most_image_bytes = kMostImageBytes);
FirmwareReport checkFirmwareFile(const std::string& path, const FirmwareRecordVisitor& visit = {});

// Is `path` one that an upgrade converts from HEX (it ends in ".hex" or ".HEX"), or a raw image that goes out as it
// is? A path that holds the same ending once more, further left, counts as raw: that rule is meant.
bool isHexFirmwarePath(std::string_view path);

}  // namespace mirn
