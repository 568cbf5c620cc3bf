#include "platform/linux/v4l2_catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace mirn {
namespace {

TEST(NaturalOrderTest, PortsCompareAsNumbers) {
  std::vector<std::string> ports = {"usb1/1-10", "usb1/1-2", "usb10/10-1", "usb2/2-1", "usb1/1-2.10", "usb1/1-2.9"};
  std::sort(ports.begin(), ports.end(), naturalLess);
  EXPECT_EQ(ports,
            (std::vector<std::string>{"usb1/1-2", "usb1/1-2.9", "usb1/1-2.10", "usb1/1-10", "usb2/2-1", "usb10/10-1"}));
}

TEST(NaturalOrderTest, IsAnOrder) {
  const std::vector<std::string> texts = {"",  "a",  "a0", "a00", "a1", "a01", "b",
                                          "1", "01", "1a", "10",  "2",  "a-1", "a.1"};
  for (const std::string& left : texts) {
    EXPECT_FALSE(naturalLess(left, left)) << left;
    for (const std::string& right : texts) {
      EXPECT_FALSE(naturalLess(left, right) && naturalLess(right, left)) << left << " " << right;
      for (const std::string& third : texts) {
        EXPECT_TRUE(!naturalLess(left, right) || !naturalLess(right, third) || naturalLess(left, third))
            << left << " " << right << " " << third;
      }
    }
  }
}

TEST(NaturalOrderTest, LongRunsOfDigitsDontOverflow) {
  EXPECT_TRUE(naturalLess("9" + std::string(50, '0'), "1" + std::string(51, '0')));
  EXPECT_FALSE(naturalLess("1" + std::string(51, '0'), "9" + std::string(50, '0')));
}

TEST(CaptureUniqueIdTest, IsControllerPortAndSerialWithoutTheBusNumber) {
  const std::string onBus1 =
      captureUniqueId("/sys/devices/pci0000:00/0000:00:14.0/usb1/1-4/1-4.2/1-4.2:1.0/video4linux/video0", "A1", 0);
  EXPECT_EQ(onBus1, "0000:00:14.0-usb-0:4.2:1.0-A1");
  EXPECT_EQ(
      captureUniqueId("/sys/devices/pci0000:00/0000:00:14.0/usb3/3-4/3-4.2/3-4.2:1.0/video4linux/video7", "A1", 0),
      onBus1);
}

TEST(CaptureUniqueIdTest, WorksOnVirtualControllersAndWithoutUsb) {
  EXPECT_EQ(captureUniqueId("/sys/devices/platform/vhci_hcd.0/usb1/1-1/1-1:1.0/video4linux/video1", "", 1),
            "vhci_hcd.0-usb-0:1:1.0-index1");
  EXPECT_EQ(captureUniqueId("/sys/devices/virtual/video4linux/video3", "", 0), "virtual");
  EXPECT_EQ(captureUniqueId("", "", 0), "");
}

TEST(V4l2CatalogTest, ListsThisMachineTwiceTheSame) {
  const auto first = systemV4l2Catalog()->list();
  const auto second = systemV4l2Catalog()->list();
  ASSERT_EQ(first.size(), second.size());
  for (size_t i = 0; i < first.size(); ++i) {
    EXPECT_EQ(first[i].key, second[i].key);
    EXPECT_FALSE(first[i].path.empty());
  }
}

}  // namespace
}  // namespace mirn
