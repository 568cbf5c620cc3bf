#include "device/firmware_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "device/hard_km_proxy.h"
#include "tests/unit/device_proxy/hex_text.h"
#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

std::string data(uint16_t address, const Bytes& bytes) {
  return hexRecord(0, address, bytes);
}
std::string base(uint8_t type, uint16_t value) {
  return hexRecord(type, 0, Bytes{static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
}
// Lines with CR LF, and the end record behind them.
std::string file(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\r\n";
  return text + hexEnd() + "\r\n";
}

// The one finding of `text`.
FirmwareFinding only(const std::string& text) {
  const FirmwareReport report = checkFirmwareText(text);
  EXPECT_FALSE(report.exact);
  EXPECT_EQ(report.finding_count, 1u) << report.firstReason();
  return report.findings.empty() ? FirmwareFinding{} : report.findings.front();
}

void expectOnly(const std::string& text, FirmwareFault fault, size_t line, const std::string& reason) {
  const FirmwareFinding finding = only(text);
  EXPECT_EQ(static_cast<int>(finding.fault), static_cast<int>(fault)) << finding.reason;
  EXPECT_EQ(finding.line, line) << finding.reason;
  EXPECT_THAT(finding.reason, HasSubstr(reason));
}

TEST(FirmwareCheck, FilesThatConvertExactlyPass) {
  for (const size_t size : {1, 2500, 65536, 65537, 200000}) {
    for (const size_t per_record : {1, 16, 25}) {
      for (const char* ending : {"\r\n", "\n"}) {
        // 25 bytes and CR LF are exactly the 63 characters that the conversion reads at a time.
        const FirmwareReport report = checkFirmwareText(hexFile(testImage(size), per_record, ending));
        EXPECT_TRUE(report.exact) << size << " " << per_record << " " << report.firstReason();
        EXPECT_EQ(report.image_bytes, size);
        EXPECT_EQ(report.base_address, 0u);
        EXPECT_THAT(report.findings, IsEmpty());
        EXPECT_EQ(report.firstReason(), "");
      }
    }
  }
}

TEST(FirmwareCheck, StartAddressesEmptyRecordsLowerCaseAndAnyBasePass) {
  std::string text = file({base(4, 0x0800), data(0, {0xAB, 0xCD}), data(2, {}), data(2, {3}),
                           hexRecord(5, 0, Bytes{8, 0, 0, 1}), hexRecord(3, 0, Bytes{1, 2, 3, 4})});
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
  const FirmwareReport report = checkFirmwareText(text);
  EXPECT_TRUE(report.exact) << report.firstReason();
  EXPECT_EQ(report.base_address, 0x08000000u);
  EXPECT_EQ(report.image_bytes, 3u);
  EXPECT_EQ(report.records, 7u);
}

TEST(FirmwareCheck, TheEndRecordNeedsNoLineEnd) {
  std::string text = file({data(0, {1, 2})});
  text.resize(text.size() - 2);
  EXPECT_TRUE(checkFirmwareText(text).exact);
}

TEST(FirmwareCheck, ContiguousDataAcrossSegmentAndLinearBordersPasses) {
  EXPECT_TRUE(checkFirmwareText(file({data(0xFFFE, {1, 2}), base(2, 0x1000), data(0, {3})})).exact);
  EXPECT_TRUE(checkFirmwareText(file({base(4, 0), data(0xFFFE, {1, 2}), base(4, 1), data(0, {3})})).exact);
  EXPECT_TRUE(checkFirmwareText(file({base(4, 1), data(0xFFFF, {1, 2}), base(4, 2), data(1, {3})})).exact)
      << "in linear addressing a record may cross a 64 KiB border";
}

TEST(FirmwareCheck, EachFaultOfARecordIsNamedWithItsLine) {
  const std::string good = data(0, {1, 2});
  expectOnly(file({good, ";" + good}), FirmwareFault::kNoRecordMark, 2, "does not begin with ':'");
  expectOnly(file({good, ""}), FirmwareFault::kNoRecordMark, 2, "the line is empty");
  expectOnly(file({":0200000001O2FB", good}), FirmwareFault::kBadDigit, 1, "column 12");
  expectOnly(file({good, ":0200"}), FirmwareFault::kShortRecord, 2, "cut off after 5 characters");
  expectOnly(file({good, ":100002000102"}), FirmwareFault::kShortRecord, 2, "announces 16 data bytes");
  expectOnly(file({good, data(2, {3}) + "00"}), FirmwareFault::kTrailingText, 2, "text follows the checksum");
  expectOnly(file({":02000000010200", good}), FirmwareFault::kBadChecksum, 1,
             "the checksum is 00, the record's bytes give FB");
  expectOnly(file({good, hexRecord(6, 0, Bytes{})}), FirmwareFault::kUnknownType, 2, "type 06");
  expectOnly(file({good, hexRecord(0x10, 2, Bytes{1})}), FirmwareFault::kUnknownType, 2, "type 10");
  expectOnly(file({good, hexRecord(4, 0, Bytes{1})}), FirmwareFault::kBadLength, 2, "has 2 data bytes");
  expectOnly(good + "\n" + hexRecord(1, 0, Bytes{1}) + "\n" + hexEnd() + "\n", FirmwareFault::kBadLength, 2, "has 0");
}

TEST(FirmwareCheck, TrailingBlanksAreFound) {
  // A blank behind the checksum would make the conversion take the checksum for data.
  expectOnly(file({data(0, {1, 2}) + " ", data(2, {3})}), FirmwareFault::kTrailingText, 1, "text follows the checksum");
  expectOnly(file({data(0, {1, 2}) + "\r", data(2, {3})}), FirmwareFault::kTrailingText, 1,
             "text follows the checksum");
  expectOnly(file({data(0, {1, 2}) + "  ", data(2, {3})}), FirmwareFault::kBadDigit, 1, "column 16");
}

TEST(FirmwareCheck, DataThatDoesNotFollowOnIsFound) {
  const std::string first = data(0x100, {1, 2});
  expectOnly(file({first, data(0x103, {3})}), FirmwareFault::kGap, 2, "belongs to 00000103");
  expectOnly(file({first, data(0x101, {3, 4})}), FirmwareFault::kOverlap, 2, "00000101");
  expectOnly(file({first, first}), FirmwareFault::kOverlap, 2, "overlaps");
  expectOnly(file({first, data(0xFE, {3, 4})}), FirmwareFault::kOutOfOrder, 2, "000000FE");
  expectOnly(file({first, base(4, 1), data(0x102, {3})}), FirmwareFault::kGap, 3, "00010102");
  // After a gap the data goes on from where it is.
  expectOnly(file({first, data(0x200, {3}), data(0x201, {4})}), FirmwareFault::kGap, 2, "at 00000102");
  // Filling a gap later is out of order, and writing there again an overlap.
  const FirmwareReport report =
      checkFirmwareText(file({first, data(0x104, {5}), data(0x102, {3}), data(0x103, {4}), data(0x104, {5})}));
  ASSERT_THAT(report.findings, SizeIs(3));
  EXPECT_EQ(report.findings[1].fault, FirmwareFault::kOutOfOrder);
  EXPECT_EQ(report.findings[2].fault, FirmwareFault::kOverlap);
}

TEST(FirmwareCheck, AfterALostRecordTheNextOneIsNoGap) {
  expectOnly(file({data(0, {1}), ":01000100FF00", data(2, {3})}), FirmwareFault::kBadChecksum, 2, "checksum");
  // But the one behind that is.
  const FirmwareReport report = checkFirmwareText(file({data(0, {1}), ":01000100FF00", data(2, {3}), data(9, {4})}));
  ASSERT_THAT(report.findings, SizeIs(2));
  EXPECT_EQ(report.findings[1].fault, FirmwareFault::kGap);
  EXPECT_EQ(report.findings[1].line, 4u);
}

TEST(FirmwareCheck, ARecordOverTheEndOfItsSegmentOrOfAllAddressesIsFound) {
  expectOnly(file({data(0xFFFF, {1, 2})}), FirmwareFault::kAddressWrap, 1, "64 KiB segment");
  expectOnly(file({base(2, 0x1000), data(0xFFFF, {1, 2})}), FirmwareFault::kAddressWrap, 2, "64 KiB segment");
  expectOnly(file({base(4, 0xFFFF), data(0xFFFF, {1, 2})}), FirmwareFault::kAddressWrap, 2, "address space");
}

TEST(FirmwareCheck, SegmentAndLinearBaseTogetherAreFound) {
  expectOnly(file({base(2, 0x1000), base(4, 0x1), data(0, {1}), base(4, 0), data(0, {1})}),
             FirmwareFault::kMixedAddressing, 3, "together");
  EXPECT_TRUE(checkFirmwareText(file({base(2, 0), base(4, 1), data(0, {1})})).exact);
}

TEST(FirmwareCheck, WhatTheConversionWouldMangleIsFound) {
  // 26 bytes: 63 characters without their line end.
  expectOnly(file({data(0, testImage(26))}), FirmwareFault::kLineTooLong, 1, "65 characters");
  expectOnly(data(0, testImage(26)) + "\n" + hexEnd() + "\n", FirmwareFault::kLineTooLong, 1, "64 characters");
  expectOnly(file({data(0, testImage(32))}), FirmwareFault::kLineTooLong, 1, "77 characters");
  expectOnly(file({data(0, testImage(255))}), FirmwareFault::kLineTooLong, 1, "reads 63 at a time");
}

TEST(FirmwareCheck, ACutOffFileIsFound) {
  const std::string text = data(0, {1, 2}) + "\r\n" + data(2, {3, 4}) + "\r\n";
  expectOnly(text, FirmwareFault::kNoEnd, 2, "cut off");
  const FirmwareReport no_line_end = checkFirmwareText(text.substr(0, text.size() - 2));
  ASSERT_THAT(no_line_end.findings, SizeIs(2));
  EXPECT_EQ(no_line_end.findings[0].fault, FirmwareFault::kConversionDiffers);
  EXPECT_THAT(no_line_end.firstReason(), HasSubstr("line 2: the last line has no line end"));
}

TEST(FirmwareCheck, WhateverFollowsTheEndIsFound) {
  expectOnly(file({data(0, {1})}) + data(1, {2}) + "\r\n", FirmwareFault::kAfterEnd, 3, "follows the end-of-file");
  expectOnly(file({data(0, {1})}) + "\r\n", FirmwareFault::kAfterEnd, 3, "follows");
  expectOnly(file({data(0, {1})}) + "\x1A", FirmwareFault::kAfterEnd, 3, "follows");
}

TEST(FirmwareCheck, AFileWithoutDataIsFound) {
  expectOnly(file({}), FirmwareFault::kEmpty, 0, "no data");
  const FirmwareReport nothing = checkFirmwareText("");
  ASSERT_THAT(nothing.findings, SizeIs(2));
  EXPECT_EQ(nothing.findings[0].fault, FirmwareFault::kNoEnd);
  EXPECT_EQ(nothing.findings[1].fault, FirmwareFault::kEmpty);
}

TEST(FirmwareCheck, AFileOfAnotherKindStopsAtAHundredFindings) {
  const FirmwareReport report = checkFirmwareText(std::string(1 << 20, '\n'));
  EXPECT_EQ(report.finding_count, kMostFindings + 1) << "and no data";
  EXPECT_THAT(report.findings, SizeIs(kMostFindings));
  EXPECT_EQ(report.records, kMostFindings);
}

TEST(FirmwareCheck, EveryRecordIsToldWithItsVerdict) {
  std::vector<FirmwareRecord> records;
  const FirmwareReport report =
      checkFirmwareText(file({base(4, 0x0800), data(0x10, {1, 2}), ":01001200AA00", data(0x20, {9})}),
                        [&records](const FirmwareRecord& record) { records.push_back(record); });
  ASSERT_THAT(records, SizeIs(5));
  EXPECT_EQ(report.records, 5u);
  EXPECT_EQ(records[0].type, 4);
  EXPECT_EQ(records[1].line, 2u);
  EXPECT_EQ(records[1].address, 0x08000010u);
  EXPECT_EQ(records[1].length, 2);
  EXPECT_EQ(records[1].fault, FirmwareFault::kNone);
  EXPECT_EQ(records[2].fault, FirmwareFault::kBadChecksum);
  EXPECT_EQ(records[3].fault, FirmwareFault::kNone) << "after a lost record";
  EXPECT_EQ(records[4].type, 1);
}

TEST(FirmwareCheck, AnImageBeyondTheLimitIsTooLarge) {
  EXPECT_EQ(kMostImageBytes, 67107840u) << "65,535 chunks";
  const std::string text = hexFile(testImage(1000), 16, "\n");
  EXPECT_TRUE(checkFirmwareText(text, {}, 1000).exact);
  const FirmwareReport report = checkFirmwareText(text, {}, 999);
  ASSERT_THAT(report.findings, SizeIs(1));
  EXPECT_EQ(report.findings[0].fault, FirmwareFault::kTooLarge);
  EXPECT_THAT(report.firstReason(), HasSubstr("has 1000 bytes, an upgrade carries at most 999"));
}

// What it is for: a file that passes converts into the image it describes, and each change that still passes does too.
TEST(FirmwareCheck, WhatPassesConvertsIntoTheDescribedImage) {
  const ScratchDirectory directory;
  const LogCapture quiet;
  std::mt19937 random(3);
  int passed = 0;
  for (int round = 0; round < 400; ++round) {
    const Bytes image = testImage(random() % 300 + 1);
    std::string text = hexFile(image, random() % 25 + 1, random() % 2 == 0 ? "\r\n" : "\n");
    const bool damage = random() % 2 == 0;
    if (damage) {
      const size_t at = random() % text.size();
      switch (random() % 3) {
        case 0:
          text[at] = "0123456789ABCDEF:\r\n "[random() % 20];
          break;
        case 1:
          text.erase(at, 1 + random() % 3);
          break;
        default:
          text.insert(at, 1, "0A\n"[random() % 3]);
      }
    }
    const bool exact = checkFirmwareText(text).exact;
    if (!damage) {
      EXPECT_TRUE(exact) << text;
    }
    if (!exact) continue;
    ++passed;
    ASSERT_EQ(HardKMProxy::ParseHexFile(directory.write("a.hex", text), directory.path("a.bin")), 0);
    const std::string bytes = readFile(directory.path("a.bin"));
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), image) << text;
  }
  EXPECT_GT(passed, 150);
}

// ---- Files ----

TEST(FirmwareCheckFile, ReadsFilesAndRefusesWhatIsNone) {
  const ScratchDirectory directory;
  EXPECT_TRUE(checkFirmwareFile(directory.write("a.hex", file({data(0, {1})}))).exact);
  const std::string fifo = directory.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path :
       {directory.path("absent"), directory.root(), fifo, std::string("/dev/zero"), std::string()}) {
    const FirmwareReport report = checkFirmwareFile(path);
    EXPECT_FALSE(report.exact) << path;
    ASSERT_THAT(report.findings, SizeIs(1)) << path;
    EXPECT_EQ(report.findings[0].fault, FirmwareFault::kUnreadable) << path;
  }
}

TEST(FirmwareCheckFile, RefusesAFileBeyondAnyFirmwareUnread) {
  const ScratchDirectory directory;
  const std::string path = directory.write("huge.hex", "");
  ASSERT_EQ(truncate(path.c_str(), (256ll << 20) + 1), 0);
  const FirmwareReport report = checkFirmwareFile(path);
  ASSERT_THAT(report.findings, SizeIs(1));
  EXPECT_EQ(report.findings[0].fault, FirmwareFault::kTooLarge);
}

}  // namespace
}  // namespace mirn
