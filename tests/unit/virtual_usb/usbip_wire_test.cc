#include "virtual/usb/usbip_wire.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/unit/virtual_usb/usbip_host.h"
#include "virtual/usb/byte_order.h"

namespace mirn {
namespace {

TEST(UsbIpParserTest, ReadsASubmitByteByByte) {
  const std::vector<uint8_t> bytes = submitBytes({.sequence = 7, .in = false, .endpoint = 3, .data = {1, 2, 3}});
  UsbIpParser parser;
  for (size_t i = 0; i + 1 < bytes.size(); ++i) {
    parser.feed({&bytes[i], 1});
    EXPECT_FALSE(parser.next().has_value());
  }
  parser.feed({&bytes.back(), 1});
  const auto request = parser.next();
  ASSERT_TRUE(request.has_value());
  const auto& submit = std::get<UsbIpSubmit>(*request);
  EXPECT_EQ(submit.sequence, 7U);
  EXPECT_FALSE(submit.in);
  EXPECT_EQ(submit.endpoint, 3);
  EXPECT_EQ(submit.data, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_TRUE(submit.packets.empty());
  EXPECT_FALSE(parser.next().has_value());
  EXPECT_FALSE(parser.broken());
}

TEST(UsbIpParserTest, ReadsSetupAndSeveralRequestsAtOnce) {
  std::vector<uint8_t> bytes =
      submitBytes({.sequence = 1, .in = true, .length = 18, .setup = {0x80, 6, 0, 1, 0, 0, 18, 0}});
  const std::vector<uint8_t> unlink = unlinkBytes(2, 1);
  bytes.insert(bytes.end(), unlink.begin(), unlink.end());
  UsbIpParser parser;
  parser.feed(bytes);
  const auto first = parser.next();
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(std::get<UsbIpSubmit>(*first).setup, (std::array<uint8_t, 8>{0x80, 6, 0, 1, 0, 0, 18, 0}));
  EXPECT_EQ(std::get<UsbIpSubmit>(*first).length, 18U);
  const auto second = parser.next();
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(std::get<UsbIpUnlink>(*second).sequence, 2U);
  EXPECT_EQ(std::get<UsbIpUnlink>(*second).target, 1U);
}

TEST(UsbIpParserTest, PacketCountsOfZeroAndMinusOneAreNone) {
  for (const uint32_t count : {0U, UINT32_MAX}) {
    std::vector<uint8_t> bytes = submitBytes({.in = true, .endpoint = 1, .length = 512});
    writeBig32(bytes, 32, count);
    UsbIpParser parser;
    parser.feed(bytes);
    const auto request = parser.next();
    ASSERT_TRUE(request.has_value());
    EXPECT_TRUE(std::get<UsbIpSubmit>(*request).packets.empty());
  }
}

TEST(UsbIpParserTest, ReadsTheIsochronousTable) {
  UsbIpParser parser;
  parser.feed(submitBytes({.in = true, .endpoint = 1, .length = 6144, .packets = {{0, 3072}, {3072, 3072}}}));
  const auto request = parser.next();
  ASSERT_TRUE(request.has_value());
  const auto& packets = std::get<UsbIpSubmit>(*request).packets;
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(packets[1].offset, 3072U);
  EXPECT_EQ(packets[1].length, 3072U);
}

TEST(UsbIpParserTest, WhatIsNoMessageBreaksTheStream) {
  const std::vector<uint8_t> good = submitBytes({.in = true, .endpoint = 1, .length = 512});
  const auto spoil = [&](size_t at, uint32_t value) {
    std::vector<uint8_t> bytes = good;
    writeBig32(bytes, at, value);
    return bytes;
  };
  for (const auto& bytes : {spoil(0, 0), spoil(0, 3), spoil(0, 0xffffffff), spoil(16, 16), spoil(24, 0xffffffff),
                            spoil(24, kMaxTransferBytes + 1), spoil(32, kMaxPackets + 1)}) {
    UsbIpParser parser;
    parser.feed(bytes);
    EXPECT_FALSE(parser.next().has_value());
    EXPECT_TRUE(parser.broken());
    parser.feed(good);
    EXPECT_FALSE(parser.next().has_value());
  }
  UsbIpParser parser;
  parser.feed(submitBytes({.in = true, .endpoint = 1, .length = 100, .packets = {{0, 60}, {60, 60}}}));
  EXPECT_FALSE(parser.next().has_value());
  EXPECT_TRUE(parser.broken()) << "packets longer than the buffer";
}

TEST(UsbIpParserTest, SurvivesNoise) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    UsbIpParser parser;
    std::vector<uint8_t> bytes(200);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    // Every other time with a sound beginning.
    if (round % 2 == 0) writeBig32(bytes, 0, 1 + random() % 2);
    if (round % 4 == 0) {
      writeBig32(bytes, 16, random() % 4);
      writeBig32(bytes, 24, random() % 100);
      writeBig32(bytes, 32, random() % 5);
    }
    for (size_t at = 0; at < bytes.size(); at += 10) {
      parser.feed({&bytes[at], 10});
      while (parser.next()) {
      }
    }
  }
}

TEST(UsbIpReplyTest, CarriesStatusLengthAndData) {
  const UsbIpSubmit submit{.sequence = 9, .in = true, .endpoint = 2, .length = 64};
  const HostReply reply = readReply(usbIpReply(submit, kUsbOk, {1, 2, 3}).bytes());
  EXPECT_EQ(reply.command, 3U);
  EXPECT_EQ(reply.sequence, 9U);
  EXPECT_EQ(reply.status, 0);
  EXPECT_EQ(reply.actual, 3U);
  EXPECT_EQ(reply.rest, (std::vector<uint8_t>{1, 2, 3}));
}

TEST(UsbIpReplyTest, NeverSendsMoreThanWasAskedFor) {
  const UsbIpSubmit submit{.in = true, .endpoint = 2, .length = 2};
  const HostReply reply = readReply(usbIpReply(submit, kUsbOk, {1, 2, 3}).bytes());
  EXPECT_EQ(reply.actual, 2U);
  EXPECT_EQ(reply.rest.size(), 2U);
}

TEST(UsbIpReplyTest, AnOutTransferTellsWhatItTook) {
  const UsbIpSubmit submit{.sequence = 5, .in = false, .endpoint = 3, .length = 12};
  const HostReply reply = readReply(usbIpReply(submit, kUsbOk, {}, 12).bytes());
  EXPECT_EQ(reply.actual, 12U);
  EXPECT_TRUE(reply.rest.empty());
  EXPECT_EQ(readReply(usbIpReply(submit, kUsbStall, {}).bytes()).status, -32);
}

TEST(UsbIpReplyTest, IsochronousDataIsPackedWhileOffsetsStay) {
  const UsbIpSubmit submit{.sequence = 4, .in = true, .endpoint = 1, .length = 300};
  const std::vector<IsochronousPacket> packets = {{0, 100, 2, 0}, {100, 100, 0, -18}, {200, 100, 3, 0}};
  const HostReply reply = readReply(usbIpIsochronousReply(submit, packets, {1, 2, 3, 4, 5}).bytes());
  EXPECT_EQ(reply.actual, 5U);
  EXPECT_EQ(reply.packet_count, 3U);
  EXPECT_EQ(reply.errors, 1U);
  ASSERT_EQ(reply.rest.size(), 5U + 3 * 16);
  EXPECT_EQ(readBig32(reply.rest, 5 + 32), 200U);
  EXPECT_EQ(readBig32(reply.rest, 5 + 32 + 8), 3U);
  EXPECT_EQ(static_cast<int32_t>(readBig32(reply.rest, 5 + 16 + 12)), -18);
}

TEST(UsbIpReplyTest, UnlinkAnswers) {
  const HostReply reply = readReply(usbIpUnlinkReply({11, 10}, kUsbUnlinked).bytes());
  EXPECT_EQ(reply.command, 4U);
  EXPECT_EQ(reply.sequence, 11U);
  EXPECT_EQ(reply.status, -104);
}

}  // namespace
}  // namespace mirn
