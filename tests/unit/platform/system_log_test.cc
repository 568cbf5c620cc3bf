#include "platform/system_log.h"

#include <gtest/gtest.h>

#include "tests/support/video/log_capture.h"

namespace mirn {
namespace {

TEST(SystemLogTest, ALineReachesTheSinkFormatted) {
  test::LogCapture log;
  systemLog("%s has %d", "node", 3);
  ASSERT_EQ(test::LogCapture::lines().size(), 1U);
  EXPECT_EQ(test::LogCapture::lines()[0], "node has 3");
}

TEST(SystemLogTest, AnEndlessLineIsCut) {
  test::LogCapture log;
  systemLog("%s", std::string(10000, 'x').c_str());
  ASSERT_EQ(test::LogCapture::lines().size(), 1U);
  EXPECT_EQ(test::LogCapture::lines()[0], std::string(2047, 'x'));
}

TEST(SystemLogTest, NothingGoesToStandardOutput) {
  testing::internal::CaptureStdout();
  systemLog("a line for syslog");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

}  // namespace
}  // namespace mirn
