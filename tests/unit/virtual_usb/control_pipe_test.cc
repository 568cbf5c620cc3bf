#include "virtual/usb/control_pipe.h"

#include <gtest/gtest.h>

#include "virtual/usb/byte_order.h"
#include "virtual/usb/video_formats.h"

namespace mirn {
namespace {

using std::chrono::nanoseconds;

class ControlPipeTest : public testing::Test {
 protected:
  UsbControlAnswer ask(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint16_t length,
                       const std::vector<uint8_t>& out = {}) {
    return pipe_.handle({type, request, value, index, length}, out, nanoseconds(0));
  }
  int32_t statusOf(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint16_t length = 8) {
    return ask(type, request, value, index, length).status;
  }
  void reshape(UsbShape shape) {
    shape_ = shape;
    video_.emplace(pattern_, shape);
    pipe_store_.emplace(kIdentity, shape, *video_,
                        [this](auto report) { reports_.emplace_back(report.begin(), report.end()); });
  }

  static inline const UsbIdentity kIdentity = {0x1209, 0x0001, "Nuvra", "Nuvra Mirn", "S"};
  UsbShape shape_;
  TestPattern pattern_;
  std::optional<VideoStream> video_{std::in_place, pattern_, shape_};
  std::vector<std::vector<uint8_t>> reports_;
  std::optional<ControlPipe> pipe_store_{
      std::in_place, kIdentity, shape_, *video_,
      [this](std::span<const uint8_t> report) { reports_.emplace_back(report.begin(), report.end()); }};
  ControlPipe& pipe_ = *pipe_store_;
};

TEST_F(ControlPipeTest, DecodesASetupPacket) {
  const std::array<uint8_t, 8> bytes = {0x81, 0x06, 0x00, 0x22, 0x02, 0x00, 0x1b, 0x01};
  const UsbSetup setup = decodeSetup(bytes);
  EXPECT_EQ(setup.request_type, 0x81);
  EXPECT_EQ(setup.request, 6);
  EXPECT_EQ(setup.value, 0x2200);
  EXPECT_EQ(setup.index, 2);
  EXPECT_EQ(setup.length, 0x011b);
}

TEST_F(ControlPipeTest, DescriptorsAreCutToTheAskedLength) {
  EXPECT_EQ(ask(0x80, 6, 0x0100, 0, 8).data.size(), 8U);
  EXPECT_EQ(ask(0x80, 6, 0x0100, 0, 64).data.size(), 18U);
  EXPECT_EQ(ask(0x80, 6, 0x0200, 0, 9).data.size(), 9U);
  EXPECT_EQ(ask(0x80, 6, 0x0200, 0, 0xffff).data.size(), 441U);
  EXPECT_EQ(ask(0x80, 6, 0x0302, 0x0409, 255).data, stringDescriptor(kIdentity, 2));
  EXPECT_EQ(ask(0x81, 6, 0x2200, 2, 255).data, hidReportDescriptor());
  EXPECT_EQ(ask(0x81, 6, 0x2100, 2, 255).data, hidDescriptor());
}

TEST_F(ControlPipeTest, WhatIsNotThereStalls) {
  EXPECT_EQ(statusOf(0x80, 6, 0x0600, 0), kUsbStall) << "device qualifier";
  EXPECT_EQ(statusOf(0x80, 6, 0x0f00, 0), kUsbStall) << "BOS at high speed";
  EXPECT_EQ(statusOf(0x80, 6, 0x0201, 0), kUsbStall) << "second configuration";
  EXPECT_EQ(statusOf(0x80, 6, 0x0309, 0), kUsbStall) << "string 9";
  EXPECT_EQ(statusOf(0x81, 6, 0x2200, 1), kUsbStall) << "report descriptor of the video interface";
  EXPECT_EQ(statusOf(0x00, 9, 2, 0), kUsbStall) << "configuration 2";
  EXPECT_EQ(statusOf(0x01, 11, 1, 1), kUsbStall) << "no alternate setting at bulk";
  EXPECT_EQ(statusOf(0x01, 11, 0, 3), kUsbStall);
  EXPECT_EQ(statusOf(0x82, 0, 0, 0x84), kUsbStall) << "status of no endpoint";
  EXPECT_EQ(statusOf(0x02, 1, 0, 0x84), kUsbStall);
  EXPECT_EQ(statusOf(0x80, 99, 0, 0), kUsbStall);
  EXPECT_EQ(statusOf(0xc0, 1, 0, 0), kUsbStall) << "vendor request";
  EXPECT_EQ(statusOf(0xa1, 1, 0, 7), kUsbStall);
}

TEST_F(ControlPipeTest, StandardState) {
  EXPECT_EQ(ask(0x80, 8, 0, 0, 1).data, std::vector<uint8_t>{0});
  EXPECT_EQ(statusOf(0x00, 9, 1, 0), kUsbOk);
  EXPECT_EQ(ask(0x80, 8, 0, 0, 1).data, std::vector<uint8_t>{1});
  EXPECT_EQ(ask(0x80, 0, 0, 0, 2).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(ask(0x81, 0, 0, 2, 2).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(ask(0x82, 0, 0, 0x81, 2).data, (std::vector<uint8_t>{0, 0}));
  EXPECT_EQ(ask(0x81, 10, 0, 1, 1).data, std::vector<uint8_t>{0});
  EXPECT_EQ(statusOf(0x01, 11, 0, 1), kUsbOk);
  EXPECT_EQ(statusOf(0x00, 3, 1, 0), kUsbOk);
}

TEST_F(ControlPipeTest, SuperSpeedHasABosDescriptorAndLatencies) {
  reshape({UsbSpeed::kSuper, VideoTransfer::kBulk});
  EXPECT_EQ(ask(0x80, 6, 0x0f00, 0, 255).data, bosDescriptor());
  EXPECT_EQ(ask(0x00, 0x30, 0, 0, 6, {0, 0, 0, 0, 0, 0}).status, kUsbOk);
  EXPECT_EQ(statusOf(0x00, 0x31, 40, 0), kUsbOk);
}

TEST_F(ControlPipeTest, NegotiatesAndCommitsAVideoSetting) {
  std::vector<uint8_t> wish(kProbeBytes, 0);
  wish[2] = 3;  // NV12
  wish[3] = 2;  // 1920x1080
  wish[4] = 0xff;
  EXPECT_EQ(ask(0x21, 0x01, 0x0100, 1, kProbeBytes, wish).status, kUsbOk);
  for (const uint8_t request : {0x81, 0x82, 0x83, 0x87}) {
    const std::vector<uint8_t> answer = ask(0xa1, request, 0x0100, 1, kProbeBytes).data;
    ASSERT_EQ(answer.size(), kProbeBytes);
    EXPECT_EQ(answer[2], 3);
    EXPECT_EQ(answer[3], 2);
    EXPECT_EQ(readLittle32(answer, 4), 333333U);
    EXPECT_EQ(readLittle32(answer, 18), 1920U * 1080 * 3 / 2);
    EXPECT_EQ(readLittle32(answer, 22), 16384U);
  }
  EXPECT_FALSE(video_->streaming());
  EXPECT_EQ(ask(0x21, 0x01, 0x0200, 1, kProbeBytes, wish).status, kUsbOk);
  EXPECT_TRUE(video_->streaming());
  EXPECT_EQ(video_->setting().format(), TargetFormat::kNv12);
  EXPECT_EQ(ask(0xa1, 0x85, 0x0100, 1, 2).data, (std::vector<uint8_t>{34, 0}));
  EXPECT_EQ(ask(0xa1, 0x86, 0x0100, 1, 1).data, std::vector<uint8_t>{3});
  EXPECT_EQ(ask(0x02, 1, 0, 0x81, 0).status, kUsbOk);
  EXPECT_FALSE(video_->streaming()) << "the halt cleared on the video endpoint ends a bulk stream";
}

TEST_F(ControlPipeTest, AStalledVideoRequestTellsItsReason) {
  EXPECT_EQ(ask(0xa1, 0x81, 0x0500, 1, 8).status, kUsbStall);
  EXPECT_EQ(ask(0xa1, 0x81, 0x0200, 0, 1).data, std::vector<uint8_t>{6});
  EXPECT_EQ(ask(0x21, 0x01, 0x0100, 1, 4, {0, 0, 0, 0}).status, kUsbStall);
  EXPECT_EQ(ask(0xa1, 0x81, 0x0200, 0, 1).data, std::vector<uint8_t>{4});
  EXPECT_EQ(ask(0xa1, 0x99, 0x0100, 1, 8).status, kUsbStall);
  EXPECT_EQ(ask(0xa1, 0x81, 0x0200, 0, 1).data, std::vector<uint8_t>{7});
  EXPECT_EQ(ask(0xa1, 0x81, 0x0200, 0x0100, 1).status, kUsbStall) << "the terminals have no controls";
}

TEST_F(ControlPipeTest, AlternateSettingsStartAndStopAnIsochronousStream) {
  reshape({UsbSpeed::kHigh, VideoTransfer::kIsochronous});
  std::vector<uint8_t> wish(kProbeBytes, 0);
  EXPECT_EQ(ask(0x21, 0x01, 0x0200, 1, kProbeBytes, wish).status, kUsbOk);
  EXPECT_FALSE(video_->streaming());
  EXPECT_EQ(statusOf(0x01, 11, 1, 1), kUsbOk);
  EXPECT_TRUE(video_->streaming());
  EXPECT_EQ(ask(0x81, 10, 0, 1, 1).data, std::vector<uint8_t>{1});
  EXPECT_EQ(statusOf(0x01, 11, 0, 1), kUsbOk);
  EXPECT_FALSE(video_->streaming());
}

TEST_F(ControlPipeTest, HidClassRequests) {
  EXPECT_EQ(ask(0x21, 0x0a, 0x0500, 2, 0).status, kUsbOk);
  EXPECT_EQ(ask(0xa1, 0x02, 0, 2, 1).data, std::vector<uint8_t>{5});
  EXPECT_EQ(ask(0xa1, 0x01, 0x0100, 2, 64).data.size(), 64U);
  EXPECT_EQ(ask(0x21, 0x09, 0x0200, 2, 3, {1, 2, 3}).status, kUsbOk);
  EXPECT_EQ(reports_, (std::vector<std::vector<uint8_t>>{{1, 2, 3}}));
  EXPECT_EQ(ask(0x21, 0x09, 0x0300, 2, 1, {1}).status, kUsbStall) << "no feature report";
  EXPECT_EQ(ask(0x21, 0x0b, 0, 2, 0).status, kUsbOk);
  EXPECT_EQ(ask(0xa1, 0x03, 0, 2, 1).data, std::vector<uint8_t>{0});
}

TEST(VideoNegotiationTest, PutsWishesIntoRange) {
  std::vector<uint8_t> wish(26, 0);
  const auto negotiated = [&](uint8_t format, uint8_t frame, uint32_t interval) {
    wish[2] = format;
    wish[3] = frame;
    for (size_t i = 0; i < 4; ++i) wish[4 + i] = static_cast<uint8_t>(interval >> 8 * i);
    return *negotiateVideo(wish);
  };
  EXPECT_EQ(negotiated(0, 0, 0), (VideoSetting{1, 1, 333333}));
  EXPECT_EQ(negotiated(4, 3, 1), (VideoSetting{1, 1, 333333}));
  EXPECT_EQ(negotiated(2, 2, 600000), (VideoSetting{2, 2, 666666}));
  EXPECT_EQ(negotiated(3, 1, UINT32_MAX), (VideoSetting{3, 1, 1000000}));
  EXPECT_FALSE(negotiateVideo(std::vector<uint8_t>(7)).has_value());
}

}  // namespace
}  // namespace mirn
