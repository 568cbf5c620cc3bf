#include "device/hex_image.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "device/hard_km_proxy.h"
#include "tests/unit/device_proxy/hex_text.h"
#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;

// The rules once more, character by character; nothing when the conversion gives up.
std::optional<Bytes> model(const std::string& text) {
  Bytes image;
  size_t at = 0;
  while (at < text.size()) {
    std::string line;
    while (at < text.size() && line.size() < 63) {
      line += text[at++];
      if (line.back() == '\n') break;
    }
    if (line.size() < 9) return {};
    if (line[8] != '0') continue;
    for (int i = 9; i < static_cast<int>(line.size()) - 4; i += 2) {
      const std::string pair = line.substr(static_cast<size_t>(i), 2);
      if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return {};
      image.push_back(static_cast<uint8_t>(std::stoi(pair, nullptr, 16)));
    }
  }
  return image;
}

// The converter over `text` in pieces of the given size.
std::optional<Bytes> convert(const std::string& text, size_t piece) {
  HexConverter converter;
  Bytes image;
  Bytes room(HexConverter::roomFor(piece));
  for (size_t at = 0; at < text.size(); at += piece) {
    const size_t bytes = converter.feed(std::string_view(text).substr(at, piece), room);
    image.insert(image.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(bytes));
  }
  const size_t bytes = converter.finish(room);
  image.insert(image.end(), room.begin(), room.begin() + static_cast<std::ptrdiff_t>(bytes));
  if (converter.failed()) return {};
  return image;
}

std::optional<Bytes> converted(const std::string& text) {
  std::optional<Bytes> whole = convert(text, text.size() + 1);
  for (const size_t piece : {size_t{1}, size_t{7}, size_t{62}, size_t{63}, size_t{64}}) {
    EXPECT_EQ(convert(text, piece), whole) << "in pieces of " << piece;
  }
  EXPECT_EQ(model(text), whole);
  return whole;
}

TEST(HexConverter, FilesWithCrLfAndLfConvertWhole) {
  const Bytes image = testImage(300);
  for (const size_t per_record : {1, 2, 15, 16, 25}) {
    EXPECT_EQ(converted(hexFile(image, per_record, "\r\n")), image) << per_record;
    EXPECT_EQ(converted(hexFile(image, per_record, "\n")), image) << per_record;
  }
}

TEST(HexConverter, WithoutANewlineAtTheEndALastDataRecordLosesAByteAnEndRecordNothing) {
  const Bytes image{0x11, 0x22, 0x33};
  const std::string record = hexRecord(0, 0, image);
  EXPECT_EQ(converted(record + "\n" + hexEnd()), image);
  EXPECT_EQ(converted(record), (Bytes{0x11, 0x22}));
}

TEST(HexConverter, ALineOfMoreThan63CharactersIsReadAsTwo) {
  // 25 bytes: 61 characters and CR LF make 63.
  EXPECT_EQ(converted(hexRecord(0, 0, testImage(25)) + "\r\n"), testImage(25));
  // 62 characters and LF are 63, too: ".." stands behind the checksum.
  EXPECT_EQ(converted(std::string(":19000000") + std::string(50, 'A') + "00" + "." + "\n"), Bytes(25, 0xAA));
  // One more: the LF is a line of its own, and too short a one.
  EXPECT_EQ(converted(std::string(":19000000") + std::string(50, 'A') + "00" + ".." + "\n"), std::nullopt);
  EXPECT_EQ(converted(hexRecord(0, 0, testImage(25)) + " \r\n"), std::nullopt);
}

TEST(HexConverter, A32ByteRecordIsMangled) {
  // 77 characters: 63, and a rest of 14 whose position 8 decides: ten data digits, the checksum, CR LF.
  const std::string zeros = ":20000000" + std::string(64, '0') + "E0\r\n";
  Bytes mangled(25, 0);
  mangled.push_back(0x0E);  // the last data digit and the checksum's first
  EXPECT_EQ(converted(zeros), mangled);
  const std::string ones = ":20000000" + std::string(64, '1') + "C0\r\n";
  EXPECT_EQ(converted(ones), Bytes(25, 0x11)) << "the rest is no data record";
}

TEST(HexConverter, OnlyTheSecondDigitOfTheTypeIsLookedAt) {
  const Bytes data{1, 2};
  for (const int type : {0x01, 0x02, 0x03, 0x04, 0x05, 0x0A, 0x0F, 0x11}) {
    EXPECT_EQ(converted(hexRecord(static_cast<uint8_t>(type), 0, data) + "\n"), Bytes{}) << type;
  }
  EXPECT_EQ(converted(hexRecord(0x10, 0, data) + "\n"), data);
  EXPECT_EQ(converted("anything0"
                      "0102"
                      "zz\r\n"),
            data)
      << "nothing in front of the type counts";
}

TEST(HexConverter, AddressesGapsAndChecksumsAreIgnored) {
  const std::string text = ":02FFFF00AABB00\r\n:0200000011220F\r\n:020000040800F2\r\n:01000000CC33\r\n";
  EXPECT_EQ(converted(text), (Bytes{0xAA, 0xBB, 0x11, 0x22, 0xCC}));
}

TEST(HexConverter, ALineOfFewerThanNineCharactersEndsIt) {
  EXPECT_EQ(converted(""), Bytes{});
  EXPECT_EQ(converted("\n"), std::nullopt);
  EXPECT_EQ(converted(":0000000"), std::nullopt);
  EXPECT_EQ(converted(":00000\r\n"), std::nullopt) << "eight characters with the line end";
  EXPECT_EQ(converted(":000000\r\n"), Bytes{}) << "nine with it: position 8 is no '0'";
  EXPECT_EQ(converted(":00000000"), Bytes{});
  const std::string good = hexRecord(0, 0, Bytes{5}) + "\n";
  EXPECT_EQ(converted(good + "\n" + good), std::nullopt);
  EXPECT_EQ(converted(good + hexEnd() + "\n\n"), std::nullopt) << "an empty line at the very end, too";
}

TEST(HexConverter, ABadDigitInADataRecordEndsItElsewhereItDoesNot) {
  EXPECT_EQ(converted(":02000000AG0000\r\n"), std::nullopt);
  EXPECT_EQ(converted(":02000000 10000\r\n"), std::nullopt);
  EXPECT_EQ(converted(std::string(":02000000A\0"
                                  "0000\r\n",
                                  17)),
            std::nullopt);
  EXPECT_EQ(converted(":02000000A\xB0"
                      "0000\r\n"),
            std::nullopt);
  EXPECT_EQ(converted(":020000040G00F2\r\n"), Bytes{}) << "no data record";
  EXPECT_EQ(converted(":zz????00AAxx\r\n"), Bytes{0xAA}) << "length, address and checksum are not read";
  EXPECT_EQ(converted(":01000000aF00\n"), Bytes{0xAF}) << "either case";
}

TEST(HexConverter, HostileTextsMatchTheModel) {
  std::mt19937 random(99);
  const std::string alphabet = "0000011AaFf:\r\n\n gZ\x01\xFF";
  for (int i = 0; i < 3000; ++i) {
    std::string text;
    const size_t length = random() % 400;
    for (size_t c = 0; c < length; ++c) {
      text += random() % 5 == 0 ? alphabet[random() % alphabet.size()] : "0123456789ABCDEF"[random() % 16];
    }
    converted(text);
  }
}

// ---- Files ----

class ParseHexFileTest : public ::testing::Test {
 protected:
  int parse(const std::string& source) { return HardKMProxy::ParseHexFile(source, destination()); }
  std::string destination() const { return directory_.path("image.bin"); }
  Bytes image() const {
    const std::string bytes = readFile(destination());
    return {bytes.begin(), bytes.end()};
  }
  // The log is exactly the one error line with this text.
  void expectError(const std::string& text) const {
    const std::string all = log_.text();
    EXPECT_THAT(all, ::testing::EndsWith("\t* Error *\t" + text + "\n"));
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1) << all;
  }

  ScratchDirectory directory_;
  LogCapture log_;
};

TEST_F(ParseHexFileTest, ConvertsImagesOfEverySizeAcrossReadBuffers) {
  for (const size_t size : {0, 1, 1023, 1024, 1025, 65536, 300000}) {
    const Bytes expected = testImage(size);
    for (const char* ending : {"\r\n", "\n"}) {
      ASSERT_EQ(parse(directory_.write("in.hex", hexFile(expected, 16, ending))), 0) << size;
      ASSERT_EQ(image(), expected) << size;
    }
  }
  EXPECT_EQ(log_.text(), "");
}

TEST_F(ParseHexFileTest, ALastLineWithoutANewlineCountsAndMayBeTooShort) {
  const std::string record = hexRecord(0, 0, Bytes{0x11, 0x22, 0x33});
  EXPECT_EQ(parse(directory_.write("in.hex", record + "\n" + record)), 0);
  EXPECT_EQ(image(), (Bytes{0x11, 0x22, 0x33, 0x11, 0x22})) << "its last byte is taken for the checksum";
  EXPECT_EQ(parse(directory_.write("in.hex", record + "\n:0000000")), -1);
  EXPECT_EQ(image(), Bytes{});
  expectError("hex file error! des_path=" + destination());
}

TEST_F(ParseHexFileTest, AnEmptyFileGivesAnEmptyImage) {
  EXPECT_EQ(parse(directory_.write("in.hex", "")), 0);
  EXPECT_TRUE(std::filesystem::exists(destination()));
  EXPECT_EQ(image(), Bytes{});
}

TEST_F(ParseHexFileTest, TheImageIsForItsOwnerAlone) {
  directory_.write("image.bin", "an older and longer content");
  ASSERT_EQ(chmod(destination().c_str(), 0666), 0);
  EXPECT_EQ(parse(directory_.write("in.hex", hexFile(Bytes{1, 2}, 16, "\n"))), 0);
  struct stat status {};
  ASSERT_EQ(stat(destination().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(image(), (Bytes{1, 2}));
}

TEST_F(ParseHexFileTest, TheUmaskDoesNotWidenTheNewFilesMode) {
  const mode_t before = umask(0);
  EXPECT_EQ(parse(directory_.write("in.hex", hexFile(Bytes{1}, 16, "\n"))), 0);
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat(destination().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(ParseHexFileTest, ASymbolicLinkIsNeverFollowedToWrite) {
  const std::string source = directory_.write("in.hex", hexFile(Bytes{1, 2}, 16, "\n"));
  const std::string target = directory_.write("precious", "keep me");
  std::filesystem::create_symlink(target, destination());
  EXPECT_EQ(parse(source), -1);
  EXPECT_EQ(readFile(target), "keep me");
  expectError("open file error, des_path=" + destination());
  // A dangling one creates nothing.
  std::filesystem::remove(destination());
  std::filesystem::create_symlink(directory_.path("nowhere"), destination());
  EXPECT_EQ(parse(source), -1);
  EXPECT_FALSE(std::filesystem::exists(directory_.path("nowhere")));
}

// Two programs with one temporary directory: the path is the last one's, what the other one has open stays its own.
TEST_F(ParseHexFileTest, AnImageThatIsOpenSurvivesTheNextConversion) {
  const auto contentOf = [](const RegularFile& file) {
    Bytes content(file.size + 10);
    content.resize(static_cast<size_t>(std::max<int64_t>(readFully(file.fd.get(), content.data(), content.size()), 0)));
    return content;
  };
  const std::string first = directory_.write("a.hex", hexFile(Bytes{1, 2, 3}, 16, "\n"));
  const std::string second = directory_.write("b.hex", hexFile(Bytes{9}, 16, "\n"));
  RegularFile first_image;
  RegularFile second_image;
  EXPECT_EQ(HardKMProxy::ParseHexFile(first, destination(), &first_image), 0);
  EXPECT_EQ(HardKMProxy::ParseHexFile(second, destination(), &second_image), 0);
  EXPECT_EQ(image(), Bytes{9});
  EXPECT_EQ(contentOf(second_image), Bytes{9});
  EXPECT_EQ(contentOf(first_image), (Bytes{1, 2, 3}));
  EXPECT_EQ(first_image.size, 3U);
}

TEST_F(ParseHexFileTest, DestinationsThatAreNoFileOfOursAloneAreRefused) {
  const std::string source = directory_.write("in.hex", hexFile(Bytes{1, 2}, 16, "\n"));
  std::filesystem::create_directory(destination());
  EXPECT_EQ(parse(source), -1);
  std::filesystem::remove(destination());
  ASSERT_EQ(mkfifo(destination().c_str(), 0600), 0);
  EXPECT_EQ(parse(source), -1) << "and does not wait for a reader";
  std::filesystem::remove(destination());
  const std::string other = directory_.write("other", "two names");
  std::filesystem::create_hard_link(other, destination());
  EXPECT_EQ(parse(source), -1);
  EXPECT_EQ(readFile(other), "two names");
  std::filesystem::remove(destination());
  if (geteuid() == 0) {
    directory_.write("image.bin", "somebody else's");
    ASSERT_EQ(chown(destination().c_str(), 65534, 65534), 0);
    EXPECT_EQ(parse(source), -1);
    EXPECT_EQ(readFile(destination()), "somebody else's");
  }
  EXPECT_EQ(HardKMProxy::ParseHexFile(source, source), -1);
  EXPECT_EQ(readFile(source), hexFile(Bytes{1, 2}, 16, "\n"));
  EXPECT_EQ(HardKMProxy::ParseHexFile(source, directory_.path("no/such/directory")), -1);
  EXPECT_EQ(HardKMProxy::ParseHexFile(source, ""), -1);
}

TEST_F(ParseHexFileTest, SourcesThatCannotBeReadAreRefusedBeforeTheDestinationIsTouched) {
  directory_.write("image.bin", "as it was");
  EXPECT_EQ(parse(directory_.path("absent.hex")), -1);
  expectError("Error Fail To Read, source_path=" + directory_.path("absent.hex"));
  EXPECT_EQ(parse(directory_.root()), -1) << "a directory";
  const std::string fifo = directory_.path("fifo.hex");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(parse(fifo), -1) << "and does not wait for a writer";
  EXPECT_EQ(parse("/dev/zero"), -1);
  EXPECT_EQ(readFile(destination()), "as it was");
}

TEST_F(ParseHexFileTest, AnUnreadableSourceIsRefused) {
  const std::string source = directory_.write("in.hex", hexFile(Bytes{1}, 16, "\n"));
  ASSERT_EQ(chmod(source.c_str(), 0), 0);
  // Root reads everything: be somebody else for the moment.
  constexpr uid_t kNobody = 65534;
  const uid_t before = geteuid();
  if (before == 0) {
    ASSERT_EQ(seteuid(kNobody), 0);
  }
  EXPECT_EQ(parse(source), -1);
  ASSERT_EQ(seteuid(before), 0);
  EXPECT_FALSE(std::filesystem::exists(destination()));
}

// A regular file by its kind, and nothing can be read at its beginning.
constexpr char kUnreadable[] = "/proc/self/mem";

TEST_F(ParseHexFileTest, AReadErrorLeavesAnEmptyImage) {
  directory_.write("image.bin", "older");
  EXPECT_EQ(parse(kUnreadable), -1);
  EXPECT_EQ(image(), Bytes{});
  expectError(std::string("Error Fail To Read, source_path=") + kUnreadable);
}

TEST_F(ParseHexFileTest, AWriteErrorLeavesAnEmptyImage) {
  const std::string source = directory_.write("in.hex", hexFile(testImage(300000), 16, "\n"));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{100000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const int result = parse(source);
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(image(), Bytes{});
  expectError("hex file error! des_path=" + destination());
}

TEST_F(ParseHexFileTest, AFaultyTextLeavesAnEmptyImageAndOneLine) {
  directory_.write("image.bin", "older");
  const std::string good = hexFile(testImage(200000), 16, "\n");
  EXPECT_EQ(parse(directory_.write("in.hex", good + ":short\n" + good)), -1);
  EXPECT_EQ(image(), Bytes{});
  expectError("hex file error! des_path=" + destination());
  EXPECT_EQ(parse(directory_.write("in.hex", good + ":01000000XY00\n")), -1);
  EXPECT_EQ(image(), Bytes{});
}

}  // namespace
}  // namespace mirn
