#include "virtual/usb/video_stream.h"

#include <gtest/gtest.h>

#include <numeric>

namespace mirn {
namespace {

using std::chrono::milliseconds;
using Time = VideoStream::Time;

// Frames of a given size, byte i of frame n being n + i.
class CountingFrames : public FrameSource {
 public:
  explicit CountingFrames(size_t bytes) : bytes_(bytes) {}
  bool nextFrame(TargetFormat, int, int, std::vector<uint8_t>& bytes) override {
    if (failing) return false;
    bytes.resize(bytes_);
    std::iota(bytes.begin(), bytes.end(), static_cast<uint8_t>(number++));
    return true;
  }
  bool failing = false;
  uint32_t number = 0;

 private:
  const size_t bytes_;
};

// Puts payloads together as a host does.
struct Assembler {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<uint8_t> current;
  int last_id = -1;
  void take(std::span<const uint8_t> payload) {
    ASSERT_GE(payload.size(), 2U);
    ASSERT_EQ(payload[0], 2);
    ASSERT_EQ(payload[1] & 0xfc, 0x80);
    const int id = payload[1] & 1;
    if (current.empty()) {
      EXPECT_NE(id, last_id) << "the identifier toggles with each frame";
    } else {
      EXPECT_EQ(id, last_id);
    }
    last_id = id;
    current.insert(current.end(), payload.begin() + 2, payload.end());
    if ((payload[1] & 2) != 0) frames.push_back(std::exchange(current, {}));
  }
};

constexpr UsbShape kBulk{UsbSpeed::kHigh, VideoTransfer::kBulk};
constexpr UsbShape kIsochronous{UsbSpeed::kHigh, VideoTransfer::kIsochronous};

class BulkSizes : public testing::TestWithParam<size_t> {};

TEST_P(BulkSizes, FramesArriveWholeAndEndInAShortPacket) {
  CountingFrames frames(GetParam());
  VideoStream stream(frames, kBulk);
  stream.commit({}, Time(0));
  Assembler assembler;
  for (int frame = 0; frame < 3; ++frame) {
    const Time now = milliseconds(34) * frame;
    for (;;) {
      const std::vector<uint8_t> payload = stream.bulkPayload(16384, now);
      if (payload.empty()) break;
      if (payload.size() < 16384) {
        EXPECT_NE(payload.size() % 512, 0U);
      }
      assembler.take(payload);
    }
    ASSERT_EQ(assembler.frames.size(), static_cast<size_t>(frame) + 1);
  }
  for (size_t i = 0; i < 3; ++i) {
    ASSERT_EQ(assembler.frames[i].size(), GetParam());
    EXPECT_EQ(assembler.frames[i][0], i);
  }
  EXPECT_EQ(stream.framesSent(), 3U);
}

INSTANTIATE_TEST_SUITE_P(Lengths, BulkSizes,
                         testing::Values(1, 509, 510, 511, 512, 1022, 1023, 16381, 16382, 16383, 16384, 32764, 50000,
                                         1843200));

TEST(VideoStreamTest, SendsNothingBeforeTheCommitAndBetweenFrames) {
  CountingFrames frames(100);
  VideoStream stream(frames, kBulk);
  EXPECT_TRUE(stream.bulkPayload(16384, Time(0)).empty());
  EXPECT_FALSE(stream.nextPayloadAt().has_value());
  stream.commit({}, Time(0));
  EXPECT_EQ(stream.bulkPayload(16384, Time(0)).size(), 102U);
  EXPECT_TRUE(stream.bulkPayload(16384, milliseconds(33)).empty());
  EXPECT_EQ(stream.nextPayloadAt(), Time(33333300));
  EXPECT_FALSE(stream.bulkPayload(16384, Time(33333300)).empty());
  stream.stop();
  EXPECT_TRUE(stream.bulkPayload(16384, milliseconds(500)).empty());
}

TEST(VideoStreamTest, MissedFramesAreNotMadeUpFor) {
  CountingFrames frames(100);
  VideoStream stream(frames, kBulk);
  stream.commit({}, Time(0));
  EXPECT_FALSE(stream.bulkPayload(16384, Time(0)).empty());
  EXPECT_FALSE(stream.bulkPayload(16384, milliseconds(500)).empty());
  EXPECT_TRUE(stream.bulkPayload(16384, milliseconds(501)).empty());
}

TEST(VideoStreamTest, ACommitDropsTheHalfSentFrame) {
  CountingFrames frames(40000);
  VideoStream stream(frames, kBulk);
  stream.commit({}, Time(0));
  EXPECT_EQ(stream.bulkPayload(16384, Time(0)).size(), 16384U);
  stream.commit({}, milliseconds(1));
  const std::vector<uint8_t> payload = stream.bulkPayload(16384, milliseconds(1));
  ASSERT_EQ(payload.size(), 16384U);
  EXPECT_EQ(payload[2], 1) << "the first byte of the next frame";
}

TEST(VideoStreamTest, ASourceWithoutAFrameIsAskedAgainLater) {
  CountingFrames frames(100);
  frames.failing = true;
  VideoStream stream(frames, kBulk);
  stream.commit({}, Time(0));
  EXPECT_TRUE(stream.bulkPayload(16384, Time(0)).empty());
  EXPECT_GT(*stream.nextPayloadAt(), Time(0));
  frames.failing = false;
  EXPECT_FALSE(stream.bulkPayload(16384, milliseconds(40)).empty());
}

TEST(VideoStreamTest, TooShortATransferGetsNothing) {
  CountingFrames frames(100);
  VideoStream stream(frames, kBulk);
  stream.commit({}, Time(0));
  EXPECT_TRUE(stream.bulkPayload(2, Time(0)).empty());
  EXPECT_EQ(stream.bulkPayload(3, Time(0)).size(), 3U);
}

TEST(VideoStreamTest, IsochronousPacketsArePackedAndPaced) {
  constexpr size_t kFrame = 3070 * 4 + 10;  // four full packets and a short one
  CountingFrames frames(kFrame);
  VideoStream stream(frames, kIsochronous);
  stream.commit({}, Time(0));
  EXPECT_FALSE(stream.streaming());
  stream.start(Time(0));
  Assembler assembler;
  Time at{0};
  for (int transfer = 0; transfer < 12; ++transfer) {
    std::vector<IsochronousPacket> packets(32);
    for (size_t i = 0; i < packets.size(); ++i) packets[i] = {static_cast<uint32_t>(i * 3072), 3072, 99, -5};
    const std::vector<uint8_t> data = stream.isochronousPayload(&packets, at);
    size_t used = 0;
    for (const IsochronousPacket& packet : packets) {
      EXPECT_EQ(packet.status, 0);
      EXPECT_LE(packet.actual, 3072U);
      if (packet.actual > 0) assembler.take(std::span(data).subspan(used, packet.actual));
      used += packet.actual;
    }
    EXPECT_EQ(used, data.size());
    at += kMicroframe * 32;
  }
  // 48 ms: the frames at 0 and at 33 ms.
  ASSERT_EQ(assembler.frames.size(), 2U);
  EXPECT_EQ(assembler.frames[0].size(), kFrame);
  EXPECT_EQ(assembler.frames[1].size(), kFrame);
}

TEST(TestPatternTest, NumbersItsFrames) {
  TestPattern pattern;
  std::vector<uint8_t> bytes;
  for (const TargetFormat format : {TargetFormat::kYuyv, TargetFormat::kNv12}) {
    uint32_t last = 0;
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(pattern.nextFrame(format, 1280, 720, bytes));
      const uint32_t number = TestPattern::numberIn(format, bytes);
      if (i > 0) {
        EXPECT_EQ(number, last + 1);
      }
      last = number;
    }
  }
  EXPECT_EQ(bytes.size(), 1280U * 720 * 3 / 2);
  ASSERT_TRUE(pattern.nextFrame(TargetFormat::kMjpeg, 1280, 720, bytes));
  EXPECT_EQ(bytes[0], 0xff);
  EXPECT_EQ(bytes[1], 0xd8);
  EXPECT_FALSE(pattern.nextFrame(TargetFormat::kYuyv, 640, 480, bytes));
}

}  // namespace
}  // namespace mirn
