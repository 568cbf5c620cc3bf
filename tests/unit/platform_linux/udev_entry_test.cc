#include "platform/linux/udev_entry.h"

#include <gtest/gtest.h>

namespace mirn {
namespace {

using Identifiers = std::pair<int64_t, int64_t>;

TEST(UdevProductTest, ReadsHexadecimalWithoutLeadingZeros) {
  EXPECT_EQ(parseUsbProduct("1209/1/100"), Identifiers(0x1209, 0x0001));
  EXPECT_EQ(parseUsbProduct("ffff/FFFF/0"), Identifiers(0xffff, 0xffff));
  EXPECT_EQ(parseUsbProduct("0/0/0"), Identifiers(0, 0));
  EXPECT_EQ(parseUsbProduct("08ff/0001/00ff"), Identifiers(0x8ff, 1));
}

TEST(UdevProductTest, AnythingElseIsNoIdentifier) {
  for (const char* text :
       {"", "/", "//", "1209", "1209/", "1209/1", "/1/100", "1209//100", "x/1/100", "1209/1x/100", " 1209/1/100",
        "10000/1/100", "1209/10000/1", "-1/1/100", "+1/1/100", "0x1209/1/100", "ffffffffffffffffffff/1/1"}) {
    EXPECT_FALSE(parseUsbProduct(text)) << text;
  }
}

}  // namespace
}  // namespace mirn
