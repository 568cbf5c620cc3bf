// The console's parts that need no window: the overlay's figures, the input's echo, the pace of asking a silent device.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "apps/common/input_echo.h"
#include "apps/console/overlay_text.h"
#include "apps/console/retry_pace.h"
#include "platform/pixel_buffer.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

OverlayFigures figures(milliseconds at, uint64_t captured) {
  OverlayFigures now;
  now.session.open = true;
  now.session.width = 1920;
  now.session.height = 1080;
  now.session.pixelFormat = fourCharCode("NV12");
  now.session.framesPerSecond = 60;
  now.session.framesCaptured = captured;
  now.session.droppedLate = 7;
  now.session.droppedDamaged = 2;
  now.shown_width = 960;
  now.shown_height = 540;
  now.at = std::chrono::steady_clock::time_point{} + at;
  return now;
}

TEST(OverlayText, SaysSizeFormatRatesDropsAndPlace) {
  OverlayText overlay;
  overlay.compose(figures(milliseconds{10000}, 100));
  OverlayFigures now = figures(milliseconds{10500}, 130);
  now.changed = 5;
  now.drawn = 4;
  EXPECT_EQ(overlay.compose(now),
            "1920 x 1080  NV12  60 fps offered\n"
            "60.0 pictures/s, 10.0 changed/s, 8.0 drawn/s\n"
            "dropped: 7 late, 2 damaged\n"
            "shown 960 x 540\n"
            "input to picture: no input yet");
}

TEST(OverlayText, KeepsTheNewestLatencyUntilAnotherComes) {
  OverlayText overlay;
  OverlayFigures now = figures(milliseconds{1000}, 0);
  now.latency = std::chrono::microseconds{34500};
  EXPECT_NE(overlay.compose(now).find("input to picture: 34.5 ms"), std::string::npos);
  EXPECT_NE(overlay.compose(figures(milliseconds{2000}, 0)).find("input to picture: 34.5 ms"), std::string::npos);
}

TEST(OverlayText, ANewSessionsSmallerCountsAreNoNegativeRate) {
  OverlayText overlay;
  overlay.compose(figures(milliseconds{1000}, 500));
  EXPECT_NE(overlay.compose(figures(milliseconds{1500}, 3)).find("\n0.0 pictures/s"), std::string::npos);
}

TEST(OverlayText, SaysThatThereIsNoPicture) {
  OverlayFigures now = figures(milliseconds{1000}, 0);
  now.session.open = false;
  EXPECT_NE(OverlayText().compose(now).find("no picture"), std::string::npos);
}

// A picture with a strip of this digest; without one when it is 0.
PixelBufferRef pictureWith(uint32_t frame, uint32_t digest) {
  constexpr int kWidth = 640;
  constexpr int kHeight = 360;
  PixelBufferRef picture = PixelBuffer::create(kWidth, kHeight, kPixelFormatBGRA);
  picture->lockBaseAddress(kPixelBufferLockForWriting);
  StripBits bits = encodeStrip({frame, digest});
  StripGeometry place = stripGeometry(kWidth, kHeight);
  for (int y = 0; y < kHeight; ++y) {
    uint8_t* row = picture->baseAddress() + static_cast<size_t>(y) * picture->bytesPerRow();
    for (int x = 0; x < kWidth; ++x) {
      auto column = static_cast<int>((x - place.left) / place.cell);
      auto line = static_cast<int>((y - place.top) / place.cell);
      bool inside = digest != 0 && x >= place.left && y >= place.top && column < kStripColumns && line < kStripRows;
      bool white = inside && bits.at(static_cast<size_t>(line) * kStripColumns + static_cast<size_t>(column));
      std::fill_n(row + static_cast<size_t>(x) * 4, 4, white ? 255 : static_cast<uint8_t>(frame & 1));
    }
  }
  picture->unlockBaseAddress(kPixelBufferLockForWriting);
  return picture;
}

TEST(InputEcho, AStripIsJudgedByItsDigestAlone) {
  InputEcho echo;
  echo.changedPicture(pictureWith(1, 10));
  ASSERT_TRUE(echo.judgedByStrip());
  echo.sent();
  echo.changedPicture(pictureWith(2, 10));
  EXPECT_FALSE(echo.takeOutcome().has_value()) << "another frame, the same input";
  echo.changedPicture(pictureWith(3, 11));
  EXPECT_TRUE(echo.takeOutcome().has_value());
  EXPECT_FALSE(echo.takeOutcome().has_value()) << "once for each wait";
}

TEST(InputEcho, TheFirstStripShowsNoInput) {
  InputEcho echo;
  echo.sent();
  echo.changedPicture(pictureWith(1, 10));
  EXPECT_FALSE(echo.takeOutcome().has_value());
}

TEST(InputEcho, AnyOtherTargetIsJudgedByTheFirstPictureThatDiffers) {
  InputEcho echo;
  echo.changedPicture(pictureWith(1, 0));
  EXPECT_FALSE(echo.judgedByStrip());
  EXPECT_FALSE(echo.takeOutcome().has_value()) << "nothing was sent";
  echo.sent();
  echo.changedPicture(pictureWith(2, 0));
  EXPECT_TRUE(echo.takeOutcome().has_value());
}

TEST(InputEcho, AWaitGoesOnFromItsOwnStartAndCanBeForgotten) {
  InputEcho echo;
  InputEcho::Clock::time_point begin = InputEcho::Clock::now();
  echo.sent();
  InputEcho::Clock::time_point between = InputEcho::Clock::now();
  while (InputEcho::Clock::now() - between < milliseconds{2}) {
  }
  echo.sent();
  echo.changedPicture(pictureWith(1, 0));
  auto outcome = echo.takeOutcome();
  ASSERT_TRUE(outcome.has_value());
  EXPECT_GE(*outcome, milliseconds{2});
  EXPECT_LE(*outcome, InputEcho::Clock::now() - begin);
  echo.sent();
  echo.reset();
  echo.changedPicture(pictureWith(2, 0));
  EXPECT_FALSE(echo.takeOutcome().has_value());
}

TEST(RetryPace, EachFailureInARowMakesThePauseLonger) {
  RetryPace pace;
  RetryPace::Time now{};
  EXPECT_TRUE(pace.due(now)) << "the first question comes at once";
  EXPECT_TRUE(pace.fresh());
  for (seconds pause : {seconds{3}, seconds{10}, seconds{30}, seconds{30}}) {
    pace.failed(now);
    EXPECT_EQ(pace.pause(now), pause);
    EXPECT_FALSE(pace.due(now + pause - milliseconds{1}));
    now += pause;
    EXPECT_TRUE(pace.due(now));
    EXPECT_FALSE(pace.fresh()) << "due again is not due for the first time";
  }
  EXPECT_EQ(pace.failures(), 4U);
}

TEST(RetryPace, AnAnswerAPersonOrAPlugEndTheLongPause) {
  RetryPace pace;
  RetryPace::Time now{};
  pace.failed(now);
  pace.failed(now);
  pace.reset();
  EXPECT_TRUE(pace.due(now));
  EXPECT_TRUE(pace.fresh());
  pace.failed(now);
  EXPECT_EQ(pace.pause(now), seconds{3}) << "the shortest again";
  pace.failed(now);
  pace.succeeded(now);
  EXPECT_EQ(pace.pause(now), seconds{3});
  EXPECT_EQ(pace.failures(), 0U);
}

}  // namespace
}  // namespace mirn
