#include "virtual/virtual_target.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "platform/frame_converter.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

struct Case {
  TargetFormat format;
  FourCharCode code;
  int width;
  int height;
};

std::string nameOf(const ::testing::TestParamInfo<Case>& info) {
  return fourCharText(info.param.code) + std::to_string(info.param.height);
}

// A frame as everybody else in the process would see it.
PixelBufferRef converted(const std::vector<uint8_t>& bytes, const Case& test) {
  FrameConverter converter;
  FrameLayout layout;
  layout.pixelFormat = test.code;
  layout.width = test.width;
  layout.height = test.height;
  PixelBufferRef picture =
      PixelBuffer::create(static_cast<size_t>(test.width), static_cast<size_t>(test.height), kPixelFormatBGRA);
  EXPECT_EQ(converter.convert(bytes.data(), bytes.size(), layout, *picture), ConvertResult::kConverted);
  return picture;
}

std::optional<StripContent> stripOf(const PixelBufferRef& picture) {
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  const auto strip = readStripBgra(picture->baseAddress(), static_cast<int>(picture->width()),
                                   static_cast<int>(picture->height()), picture->bytesPerRow());
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  return strip;
}

// Largest and mean difference of the colour channels.
struct Difference {
  int largest = 0;
  double mean = 0;
};
Difference differenceOf(const PixelBufferRef& picture, const std::vector<uint8_t>& exact) {
  Difference difference;
  uint64_t sum = 0;
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  for (size_t y = 0; y < picture->height(); ++y) {
    const uint8_t* row = picture->baseAddress() + y * picture->bytesPerRow();
    for (size_t i = 0; i < picture->width() * 4; ++i) {
      const int delta = i % 4 == 3 ? 0 : std::abs(row[i] - exact[y * picture->width() * 4 + i]);
      difference.largest = std::max(difference.largest, delta);
      sum += static_cast<uint64_t>(delta);
    }
  }
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  difference.mean = static_cast<double>(sum) / static_cast<double>(picture->width() * picture->height() * 3);
  return difference;
}

class VirtualTargetFormats : public ::testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(All, VirtualTargetFormats,
                         ::testing::Values(Case{TargetFormat::kYuyv, fourCharCode("YUYV"), 1920, 1080},
                                           Case{TargetFormat::kNv12, fourCharCode("NV12"), 1920, 1080},
                                           Case{TargetFormat::kMjpeg, fourCharCode("MJPG"), 1920, 1080},
                                           Case{TargetFormat::kYuyv, fourCharCode("YUYV"), 1280, 720},
                                           Case{TargetFormat::kNv12, fourCharCode("NV12"), 1280, 720},
                                           Case{TargetFormat::kMjpeg, fourCharCode("MJPG"), 1280, 720}),
                         nameOf);

TEST_P(VirtualTargetFormats, EveryFrameIsNumberedAndSaysWhatInputItShows) {
  const Case& test = GetParam();
  VirtualTarget target;
  for (uint32_t frame = 0; frame < 20; ++frame) {
    target.pointerAbsolute(static_cast<int>(frame) * 1700, static_cast<int>(frame) * 1600, frame % 2 == 0 ? 1 : 0, 1);
    const std::array<uint8_t, 1> keys{static_cast<uint8_t>(0x04 + frame)};
    target.keyboard(static_cast<uint8_t>(frame), keys);
    const StripContent expected{frame, target.inputState().digest()};
    EXPECT_EQ(stripOf(converted(target.render(test.format, test.width, test.height), test)), expected);
  }
}

// What is kept between frames must give the very picture that a fresh target draws.
TEST_P(VirtualTargetFormats, WhatIsRedrawnInPartsEqualsWhatIsDrawnAtOnce) {
  const Case& test = GetParam();
  const auto play = [&](VirtualTarget& target, bool render_between) {
    std::vector<uint8_t> bytes;
    for (int i = 0; i < 24; ++i) {
      const std::array<uint8_t, 2> keys{static_cast<uint8_t>(0x04 + i), static_cast<uint8_t>(i % 5 == 0 ? 0x28 : 0)};
      target.keyboard(i % 3 == 0 ? 0x02 : 0, keys);
      target.keyboard(0, {});
      target.pointerAbsolute(i * 1400, 32767 - i * 1400, static_cast<uint8_t>(1 << (i % 3)), i % 4 - 1);
      target.led(static_cast<uint8_t>(i), static_cast<uint16_t>(i * 3));
      if (render_between) {
        target.render(test.format, test.width, test.height, bytes);
      }
    }
  };
  VirtualTarget stepwise;
  VirtualTarget at_once;
  play(stepwise, true);
  play(at_once, false);
  while (at_once.nextFrameNumber() < stepwise.nextFrameNumber()) {
    at_once.render(TargetFormat::kNv12, test.height == 1080 ? 1280 : 1920, test.height == 1080 ? 720 : 1080);
  }
  EXPECT_EQ(stepwise.render(test.format, test.width, test.height),
            at_once.render(test.format, test.width, test.height));
}

TEST_P(VirtualTargetFormats, ThePictureSurvivesItsFormat) {
  const Case& test = GetParam();
  VirtualTarget target;
  target.firmware("1.2.3");
  const PixelBufferRef picture = converted(target.render(test.format, test.width, test.height), test);
  std::vector<uint8_t> exact = target.picture(test.width, test.height);
  // The strip numbers differ by one; everything above it is compared.
  const auto strip_top = static_cast<size_t>(test.height - test.height * kStripRows / 45);
  exact.resize(strip_top * static_cast<size_t>(test.width) * 4);
  PixelBufferRef above = PixelBuffer::create(static_cast<size_t>(test.width), strip_top, kPixelFormatBGRA);
  above->lockBaseAddress(kPixelBufferLockForWriting);
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  for (size_t y = 0; y < strip_top; ++y) {
    std::copy_n(picture->baseAddress() + y * picture->bytesPerRow(), test.width * 4,
                above->baseAddress() + y * above->bytesPerRow());
  }
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  above->unlockBaseAddress(kPixelBufferLockForWriting);
  EXPECT_LT(differenceOf(above, exact).mean, 3.0);
}

TEST(VirtualTarget, KeysTypeOnceHoweverLongTheyAreHeld) {
  VirtualTarget target;
  const std::array<uint8_t, 6> h{0x0B};
  const std::array<uint8_t, 6> hi{0x0B, 0x0C};
  target.keyboard(0x02, h);
  target.keyboard(0x02, h);
  target.keyboard(0, hi);
  target.keyboard(0, {});
  EXPECT_EQ(target.text(), "Hi");
  EXPECT_EQ(target.inputState().keys, (std::array<uint8_t, 6>{}));
}

TEST(VirtualTarget, CapsLockHoldsUntilItIsPressedAgain) {
  VirtualTarget target;
  const std::array<uint8_t, 1> caps{0x39};
  const std::array<uint8_t, 1> a{0x04};
  for (int i = 0; i < 2; ++i) {
    target.keyboard(0, caps);
    target.keyboard(0, {});
    target.keyboard(0, a);
    target.keyboard(0, {});
  }
  EXPECT_EQ(target.text(), "Aa");
}

TEST(VirtualTarget, ButtonsMarkWhereTheyWerePressed) {
  VirtualTarget target;
  target.pointerAbsolute(100, 200, 0, 0);
  target.pointerAbsolute(100, 200, kTargetLeftButton, 0);
  target.pointerAbsolute(500, 600, kTargetLeftButton, 0);
  target.pointerAbsolute(500, 600, kTargetLeftButton | kTargetRightButton, 0);
  target.pointerAbsolute(500, 600, 0, 0);
  const std::vector<TargetClick> expected = {{100, 200, kTargetLeftButton}, {500, 600, kTargetRightButton}};
  EXPECT_EQ(target.clicks(), expected);
}

TEST(VirtualTarget, RelativeMovesAreWholePixelsAndDontDrift) {
  VirtualTarget target;
  target.pointerAbsolute(0, 0, 0, 0);
  for (int i = 0; i < 1919; ++i) {
    target.pointerRelative(1, 0, 0, 0);
  }
  EXPECT_EQ(target.inputState().pointer_x, kTargetFullScale);
  for (int i = 0; i < 959; ++i) {
    target.pointerRelative(-1, 1, 0, 0);
  }
  EXPECT_EQ(target.inputState().pointer_x, (960 * kTargetFullScale + 959) / 1919);
  target.pointerRelative(-100000, 100000, 0, 0);
  EXPECT_EQ(target.inputState().pointer_x, 0);
  EXPECT_EQ(target.inputState().pointer_y, kTargetFullScale);
}

TEST(VirtualTarget, TheWheelScrollsTheListWithinItsEnds) {
  VirtualTarget target;
  target.pointerAbsolute(0, 0, 0, -5);
  EXPECT_EQ(target.scrollRow(), 0);
  target.pointerAbsolute(0, 0, 0, 2);
  EXPECT_EQ(target.scrollRow(), 6);
  target.pointerAbsolute(0, 0, 0, 2147483647);
  EXPECT_EQ(target.scrollRow(), 999);
}

TEST(VirtualTarget, TheDigestSeesEveryPartOfTheInput) {
  std::vector<uint32_t> digests{TargetInputState{}.digest()};
  const auto add = [&](const std::function<void(TargetInputState&)>& change) {
    TargetInputState state;
    change(state);
    digests.push_back(state.digest());
  };
  add([](TargetInputState& s) { s.modifiers = 1; });
  add([](TargetInputState& s) { s.caps_lock = true; });
  add([](TargetInputState& s) { s.pointer_x += 1; });
  add([](TargetInputState& s) { s.pointer_y += 1; });
  add([](TargetInputState& s) { s.buttons = 1; });
  add([](TargetInputState& s) { s.wheel = -1; });
  add([](TargetInputState& s) { s.led_status = 1; });
  add([](TargetInputState& s) { s.led_param = 1; });
  for (size_t i = 0; i < 6; ++i) {
    add([i](TargetInputState& s) { s.keys[i] = 4; });
  }
  std::sort(digests.begin(), digests.end());
  EXPECT_EQ(std::adjacent_find(digests.begin(), digests.end()), digests.end());
}

TEST(VirtualTarget, WhatIsTypedAndPointedAtIsVisible) {
  VirtualTarget target;
  const std::vector<uint8_t> before = target.picture(1280, 720);
  const auto changedPixels = [&] {
    const std::vector<uint8_t> now = target.picture(1280, 720);
    size_t count = 0;
    for (size_t i = 0; i < static_cast<size_t>(1280) * 688 * 4; i += 4) {
      count +=
          !std::equal(now.begin() + static_cast<std::ptrdiff_t>(i), now.begin() + static_cast<std::ptrdiff_t>(i) + 4,
                      before.begin() + static_cast<std::ptrdiff_t>(i))
              ? 1
              : 0;
    }
    return count;
  };
  EXPECT_EQ(changedPixels(), 0U);
  const std::array<uint8_t, 1> a{0x04};
  target.keyboard(0, a);
  const size_t after_key = changedPixels();
  EXPECT_GT(after_key, 20U);
  target.pointerAbsolute(1000, 1000, 0, 0);
  const size_t after_move = changedPixels();
  EXPECT_GT(after_move, after_key + 100);
  target.pointerAbsolute(1000, 1000, 0, 1);
  EXPECT_GT(changedPixels(), after_move + 1000);
  target.reset();
  EXPECT_EQ(changedPixels(), 0U);
}

TEST(VirtualTarget, OtherSizesAreRefused) {
  VirtualTarget target;
  std::vector<uint8_t> bytes{1, 2, 3};
  EXPECT_FALSE(target.render(TargetFormat::kYuyv, 640, 480, bytes));
  EXPECT_EQ(bytes.size(), 3U);
  EXPECT_TRUE(target.picture(0, 0).empty());
  EXPECT_EQ(target.nextFrameNumber(), 0U);
}

TEST(VirtualTarget, AStillPictureChangesWithTheInputAlone) {
  VirtualTarget target;
  target.setStill(true);
  const std::vector<uint8_t> first = target.render(TargetFormat::kYuyv, 1280, 720);
  EXPECT_EQ(target.render(TargetFormat::kYuyv, 1280, 720), first);
  EXPECT_EQ(target.nextFrameNumber(), 1U);
  target.pointerAbsolute(100, 100, 0, 0);
  EXPECT_NE(target.render(TargetFormat::kYuyv, 1280, 720), first);
  EXPECT_EQ(target.nextFrameNumber(), 2U);
  target.setStill(false);
  static_cast<void>(target.render(TargetFormat::kYuyv, 1280, 720));
  EXPECT_EQ(target.nextFrameNumber(), 3U);
}

TEST(VirtualTarget, TextFromTheDeviceIsShownHoweverOddItIs) {
  VirtualTarget target;
  target.firmware("\xFF\xFE\n\x01 a very long version text that goes on");
  target.led(255, 65535);
  EXPECT_FALSE(target.render(TargetFormat::kMjpeg, 1280, 720).empty());
}

TEST(VirtualTarget, InputAndPicturesMayComeFromManyThreads) {
#ifdef MIRN_SANITIZED
  constexpr int kRounds = 20;
#else
  constexpr int kRounds = 100;
#endif
  VirtualTarget target;
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&target, t] {
      std::vector<uint8_t> bytes;
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_TRUE(target.render(t == 0 ? TargetFormat::kYuyv : TargetFormat::kNv12, 1280, 720, bytes));
      }
    });
    threads.emplace_back([&target] {
      for (int i = 0; i < kRounds; ++i) {
        const std::array<uint8_t, 1> key{static_cast<uint8_t>(0x04 + i % 20)};
        target.keyboard(0, key);
        target.pointerRelative(3, 2, static_cast<uint8_t>(i % 8), 1);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(target.nextFrameNumber(), 2U * kRounds);
}

}  // namespace
}  // namespace mirn
