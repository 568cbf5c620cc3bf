#include "platform/hid_functions.h"

#include <gtest/gtest.h>

namespace mirn {
namespace {

TEST(HidFunctions, HidapiIsTheDefault) {
  EXPECT_EQ(&hidFunctions(), &defaultHidFunctions());
}

TEST(HidFunctions, AnotherTableStandsInUntilItIsTakenAway) {
  HidFunctions other = defaultHidFunctions();
  setHidFunctions(&other);
  EXPECT_EQ(&hidFunctions(), &other);
  setHidFunctions(nullptr);
  EXPECT_EQ(&hidFunctions(), &defaultHidFunctions());
}

TEST(HidFunctions, EveryCallOfTheDefaultIsThere) {
  const HidFunctions& hid = defaultHidFunctions();
  EXPECT_NE(hid.init, nullptr);
  EXPECT_NE(hid.open, nullptr);
  EXPECT_NE(hid.write, nullptr);
  EXPECT_NE(hid.read_timeout, nullptr);
  EXPECT_NE(hid.close, nullptr);
  EXPECT_NE(hid.topology, nullptr);
  EXPECT_NE(hid.refusal, nullptr);
}

TEST(HidFunctions, HidapiStartsAndFindsNoDeviceThatIsNotThere) {
  const HidFunctions& hid = defaultHidFunctions();
  EXPECT_EQ(hid.init(), 0);
  // identifiers that no device has
  EXPECT_EQ(hid.open(0xFFFF, 0xFFFF, nullptr), nullptr);
  EXPECT_EQ(hid.refusal(0xFFFF, 0xFFFF).code, 0) << "what isn't there is refused to nobody";
}

}  // namespace
}  // namespace mirn
