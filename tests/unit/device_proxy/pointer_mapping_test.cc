// The arithmetic against models in exact integers.
#include "device/pointer_mapping.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

namespace mirn {
namespace {

using Wide = int64_t;  // holds every product here

// Low 16 bits as a signed number.
int16_t low16(Wide value) {
  int64_t low = static_cast<int64_t>(value % 65536);
  if (low < 0) low += 65536;
  return static_cast<int16_t>(low >= 32768 ? low - 65536 : low);
}

Wide magnitude(Wide value) {
  return value < 0 ? -value : value;
}

// A positive rational n / d, rounded to 24 significant bits, ties to even, as mantissa * 2^exponent: what single
// precision makes of it.
struct Rounded {
  Wide mantissa;
  int exponent;
};
Rounded roundTo24Bits(Wide n, Wide d) {
  int exponent = 0;
  while (n < (Wide{1} << 23) * d) {
    n *= 2;
    --exponent;
  }
  while (n >= (Wide{1} << 24) * d) {
    d *= 2;
    ++exponent;
  }
  Wide mantissa = n / d;
  const Wide rest = 2 * (n % d);
  if (rest > d || (rest == d && mantissa % 2 != 0)) ++mantissa;
  return {mantissa, exponent};
}
Wide scale(Wide mantissa, int exponent) {
  return exponent >= 0 ? mantissa << exponent : mantissa >> -exponent;  // positive: the shift truncates
}
// trunc((speed / 100) * delta) with each step in single precision.
int16_t scaledModel(int16_t delta, uint32_t speed) {
  if (delta == 0) return 0;
  const Rounded percent = roundTo24Bits(speed, 1);
  const Rounded factor = percent.exponent >= 0 ? roundTo24Bits(percent.mantissa << percent.exponent, 100)
                                               : roundTo24Bits(percent.mantissa, Wide{100} << -percent.exponent);
  const Rounded product = roundTo24Bits(factor.mantissa * magnitude(delta), 1);
  const Wide whole = scale(product.mantissa, product.exponent + factor.exponent);
  const int16_t result = low16(delta < 0 ? -whole : whole);
  return result != 0 ? result : static_cast<int16_t>(delta > 0 ? 1 : -1);
}

struct Random {
  std::mt19937_64 engine{1234};

  int64_t between(int64_t low, int64_t high) { return std::uniform_int_distribution<int64_t>(low, high)(engine); }
  // Mostly ordinary values, sometimes the edges of every width that matters.
  int number() {
    static constexpr int kEdges[] = {0,
                                     1,
                                     -1,
                                     32766,
                                     32767,
                                     32768,
                                     -32768,
                                     -32769,
                                     65535,
                                     65536,
                                     std::numeric_limits<int>::max(),
                                     std::numeric_limits<int>::min()};
    switch (between(0, 3)) {
      case 0:
        return kEdges[between(0, std::size(kEdges) - 1)];
      case 1:
        return static_cast<int>(between(std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
      default:
        return static_cast<int>(between(-100, 33000));
    }
  }
  tagRECT monitor() {
    if (between(0, 9) == 0) return {number(), number(), number(), number()};
    const auto left = static_cast<int32_t>(between(-8000, 8000));
    const auto top = static_cast<int32_t>(between(-8000, 8000));
    return {left, top, left + static_cast<int32_t>(between(0, 4096)), top + static_cast<int32_t>(between(0, 4096))};
  }
  std::vector<tagRECT> monitors() {
    std::vector<tagRECT> result(static_cast<size_t>(between(1, 6)));
    for (tagRECT& rect : result) rect = monitor();
    return result;
  }
};

#ifdef MIRN_SANITIZED
constexpr int kLayouts = 2000;
#else
constexpr int kLayouts = 20000;
#endif

struct Box {
  int16_t left = 0;
  int16_t top = 0;
  int16_t right = 0;
  int16_t bottom = 0;
};
Box boxAround(const std::vector<tagRECT>& monitors) {
  Box box;
  for (const tagRECT& rect : monitors) {
    box.right = std::max(box.right, low16(rect.right));
    box.bottom = std::max(box.bottom, low16(rect.bottom));
    box.left = std::min(box.left, low16(rect.left));
    box.top = std::min(box.top, low16(rect.top));
  }
  return box;
}

TEST(PointerMapping, TwoMonitorsSideBySide) {
  PointerMapping mapping;
  mapping.setMonitors({{0, 0, 1920, 1080}, {-1280, 0, 0, 1024}}, 0);
  EXPECT_EQ(mapping.monitor_width, 1920);
  EXPECT_EQ(mapping.monitor_height, 1080);
  EXPECT_EQ(mapping.desktop_width, 3200);
  EXPECT_EQ(mapping.desktop_height, 1080);
  ASSERT_EQ(mapping.offsets.size(), 2u);
  EXPECT_EQ(mapping.offsets[0].left, 1280);
  EXPECT_EQ(mapping.offsets[0].top, 0);
  EXPECT_EQ(mapping.offsets[0].right, 1920);
  EXPECT_EQ(mapping.offsets[0].bottom, 1080);
  EXPECT_EQ(mapping.offsets[1].left, 0);
  EXPECT_EQ(mapping.offsets[1].top, 0);
}

TEST(PointerMapping, ABadIndexZeroesTheDesktopAndChangesNothingElse) {
  PointerMapping mapping;
  mapping.setMonitors({{0, 0, 800, 600}}, 0);
  mapping.desktop_wide = true;
  for (const int index : {1, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
    EXPECT_THROW(mapping.setMonitors({{0, 0, 1, 1}}, index), std::out_of_range) << index;
    EXPECT_EQ(mapping.desktop_width, 0);
    EXPECT_EQ(mapping.desktop_height, 0);
    EXPECT_EQ(mapping.monitor_width, 800);
    EXPECT_EQ(mapping.offsets.size(), 1u);
    EXPECT_THROW((void)mapping.absolute(1, 1, index), std::out_of_range) << index;
  }
  EXPECT_THROW(mapping.setMonitors({}, 0), std::out_of_range);
  const PointerPosition position = mapping.absolute(5000, 6000, 0);
  EXPECT_EQ(position.x, 0) << "a desktop without a size";
  EXPECT_EQ(position.y, 0);
}

TEST(PointerMapping, ADesktopBeyond32767PixelsDividesAsUnsigned) {
  PointerMapping mapping;
  mapping.setMonitors({{-20000, 0, 20000, 100}}, 0);
  EXPECT_EQ(static_cast<uint16_t>(mapping.desktop_width), 40000);
  mapping.desktop_wide = true;
  // The monitor's width as 16 bits is -25536.
  EXPECT_EQ(mapping.absolute(32767, 0, 0).x, -25536LL * 32767 / 40000);
}

TEST(PointerMapping, LayoutsMatchTheModel) {
  Random random;
  for (int i = 0; i < kLayouts; ++i) {
    const std::vector<tagRECT> monitors = random.monitors();
    const auto index = static_cast<int>(random.between(0, static_cast<int64_t>(monitors.size()) - 1));
    PointerMapping mapping;
    mapping.setMonitors(monitors, index);
    const tagRECT& selected = monitors[static_cast<size_t>(index)];
    ASSERT_EQ(mapping.monitor_width, low16(Wide{selected.right} - selected.left));
    ASSERT_EQ(mapping.monitor_height, low16(Wide{selected.bottom} - selected.top));
    const Box box = boxAround(monitors);
    ASSERT_EQ(mapping.desktop_width, low16(Wide{box.right} - box.left));
    ASSERT_EQ(mapping.desktop_height, low16(Wide{box.bottom} - box.top));
    ASSERT_EQ(mapping.offsets.size(), monitors.size());
    for (size_t m = 0; m < monitors.size(); ++m) {
      const Wide left = Wide{monitors[m].left} - box.left;
      const Wide top = Wide{monitors[m].top} - box.top;
      ASSERT_EQ(low16(mapping.offsets[m].left), low16(left));
      ASSERT_EQ(low16(mapping.offsets[m].top), low16(top));
      if (magnitude(left) <= std::numeric_limits<int32_t>::max()) {
        ASSERT_EQ(mapping.offsets[m].left, left);
      }
      ASSERT_EQ(mapping.offsets[m].right, monitors[m].right);
      ASSERT_EQ(mapping.offsets[m].bottom, monitors[m].bottom);
    }
  }
}

TEST(PointerMapping, RelativePositionsMatchTheModel) {
  Random random;
  for (int i = 0; i < kLayouts; ++i) {
    PointerMapping mapping;
    mapping.setMonitors(random.monitors(), 0);
    const int origin_x = random.number();
    const int origin_y = random.number();
    mapping.setOrigin(origin_x, origin_y);
    // p / 32767.0 + 0.5, truncated. Its distance from the next integer is at least 1 / 65534, far above what double
    // precision loses, so the exact quotient says the same.
    const auto origin = [](int value, int16_t size) { return low16((2 * Wide{low16(value)} * size + 32767) / 65534); };
    ASSERT_EQ(mapping.origin_x, origin(origin_x, mapping.monitor_width)) << origin_x << " " << mapping.monitor_width;
    ASSERT_EQ(mapping.origin_y, origin(origin_y, mapping.monitor_height));
    const int x = random.number();
    const int y = random.number();
    const PointerPosition position = mapping.relative(x, y);
    ASSERT_EQ(position.x, low16(Wide{x} * mapping.monitor_width / 32767 - mapping.origin_x)) << x;
    ASSERT_EQ(position.y, low16(Wide{y} * mapping.monitor_height / 32767 - mapping.origin_y)) << y;
  }
}

TEST(PointerMapping, AbsolutePositionsMatchTheModel) {
  Random random;
  for (int i = 0; i < kLayouts; ++i) {
    const std::vector<tagRECT> monitors = random.monitors();
    const auto index = static_cast<int>(random.between(0, static_cast<int64_t>(monitors.size()) - 1));
    PointerMapping mapping;
    mapping.setMonitors(monitors, index);
    const int x = random.number();
    const int y = random.number();
    const PointerPosition plain = mapping.absolute(x, y, -5);
    ASSERT_EQ(plain.x, low16(x));
    ASSERT_EQ(plain.y, low16(y));
    mapping.desktop_wide = true;
    const MonitorOffset& offset = mapping.offsets[static_cast<size_t>(index)];
    const auto model = [](int value, int16_t size, int32_t shift, int16_t desktop) -> int16_t {
      const Wide divisor = static_cast<uint16_t>(desktop);
      return divisor == 0 ? int16_t{0} : low16((Wide{size} * value + Wide{shift} * 32767) / divisor);
    };
    const PointerPosition wide = mapping.absolute(x, y, index);
    ASSERT_EQ(wide.x, model(x, mapping.monitor_width, offset.left, mapping.desktop_width)) << x;
    ASSERT_EQ(wide.y, model(y, mapping.monitor_height, offset.top, mapping.desktop_height)) << y;
  }
}

TEST(PointerMapping, ScaledDeltasMatchTheModel) {
  Random random;
  PointerMapping mapping;
  const auto check = [&mapping](int16_t x, int16_t y) {
    const PointerPosition scaled = mapping.scaled({x, y});
    ASSERT_EQ(scaled.x, scaledModel(x, mapping.speed)) << x << " at " << mapping.speed;
    ASSERT_EQ(scaled.y, scaledModel(y, mapping.speed)) << y << " at " << mapping.speed;
  };
  for (mapping.speed = 1; mapping.speed <= 400; ++mapping.speed) {
    for (int delta = -130; delta <= 130; ++delta) check(static_cast<int16_t>(delta), static_cast<int16_t>(-delta));
  }
  for (int i = 0; i < kLayouts; ++i) {
    mapping.speed = static_cast<uint32_t>(random.between(1, i % 4 == 0 ? 0xFFFFFFFF : 1000));
    check(low16(random.number()), low16(random.number()));
  }
}

}  // namespace
}  // namespace mirn
