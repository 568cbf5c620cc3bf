#include "platform/jpeg_header.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace mirn {
namespace {

void append(std::vector<uint8_t>& to, std::initializer_list<int> bytes) {
  for (const int byte : bytes) {
    to.push_back(static_cast<uint8_t>(byte));
  }
}

void appendQuantisation(std::vector<uint8_t>& to, int index) {
  append(to, {0xff, 0xdb, 0, 67, index});
  to.insert(to.end(), 64, 1);
}

void appendHuffman(std::vector<uint8_t>& to, int classAndIndex) {
  append(to, {0xff, 0xc4, 0, 20, classAndIndex, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5});
}

TEST(JpegHeaderTest, FindsTheTablesBeforeTheFirstScan) {
  std::vector<uint8_t> bytes = {0xff, 0xd8};
  appendQuantisation(bytes, 0);
  appendQuantisation(bytes, 1);
  append(bytes, {0xff, 0xc0, 0, 4, 0, 0});
  appendHuffman(bytes, 0x00);
  appendHuffman(bytes, 0x11);
  append(bytes, {0xff, 0xda});
  appendQuantisation(bytes, 2);  // after the scan: not looked at
  const JpegTables tables = jpegTables(bytes.data(), bytes.size());
  EXPECT_EQ(tables.defined, 0x213U);
  EXPECT_TRUE(tables.anyQuantisation());
  EXPECT_FALSE(tables.more);
}

TEST(JpegHeaderTest, SeveralTablesInOneSegmentCountEach) {
  std::vector<uint8_t> bytes = {0xff, 0xd8, 0xff, 0xdb, 0, 132, 0};
  bytes.insert(bytes.end(), 64, 1);
  bytes.push_back(3);
  bytes.insert(bytes.end(), 64, 1);
  EXPECT_EQ(jpegTables(bytes.data(), bytes.size()).defined, 0x9U);
}

TEST(JpegHeaderTest, AProgressivePictureMayBringMore) {
  std::vector<uint8_t> bytes = {0xff, 0xd8, 0xff, 0xc2, 0, 4, 0, 0};
  EXPECT_TRUE(jpegTables(bytes.data(), bytes.size()).more);
}

TEST(JpegHeaderTest, NoBytesAreTooFew) {
  std::vector<uint8_t> bytes = {0xff, 0xd8};
  appendQuantisation(bytes, 0);
  appendHuffman(bytes, 0);
  for (size_t size = 0; size <= bytes.size(); ++size) {
    const std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(jpegTables(cut.data(), cut.size()).anyQuantisation(), size >= 71) << size;
  }
}

TEST(JpegHeaderTest, RandomBytesAreSafe) {
  std::mt19937 random(3);
  for (int round = 0; round < 2000; ++round) {
    std::vector<uint8_t> bytes(random() % 200);
    for (uint8_t& byte : bytes) {
      byte = random() % 3 == 0 ? 0xff : static_cast<uint8_t>(0xc0 + random() % 32);
    }
    EXPECT_LE(jpegTables(bytes.data(), bytes.size()).defined, 0xfffU);
  }
}

}  // namespace
}  // namespace mirn
