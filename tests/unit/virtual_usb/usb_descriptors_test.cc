#include "virtual/usb/usb_descriptors.h"

#include <gtest/gtest.h>

#include <set>

namespace mirn {
namespace {

const UsbIdentity kIdentity = {0x1209, 0x0001, "Nuvra", "Nuvra Mirn", "VM01"};
constexpr UsbShape kShapes[] = {{UsbSpeed::kHigh, VideoTransfer::kBulk},
                                {UsbSpeed::kSuper, VideoTransfer::kBulk},
                                {UsbSpeed::kHigh, VideoTransfer::kIsochronous}};

// Each descriptor of a configuration, in order.
std::vector<std::vector<uint8_t>> split(const std::vector<uint8_t>& bytes) {
  std::vector<std::vector<uint8_t>> parts;
  for (size_t at = 0; at < bytes.size();) {
    const size_t length = bytes[at];
    EXPECT_GE(length, 2U);
    EXPECT_LE(at + length, bytes.size());
    if (length < 2 || at + length > bytes.size()) break;
    parts.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                       bytes.begin() + static_cast<std::ptrdiff_t>(at + length));
    at += length;
  }
  return parts;
}

TEST(UsbDescriptorsTest, DeviceAtHighSpeed) {
  EXPECT_EQ(deviceDescriptor(kIdentity, kShapes[0]), (std::vector<uint8_t>{18, 0x01, 0x00, 0x02,  // USB 2.00
                                                                           0xef, 0x02, 0x01,  // interface associations
                                                                           64,                // endpoint 0
                                                                           0x09, 0x12,        // vendor
                                                                           0x01, 0x00,        // product
                                                                           0x00, 0x01,        // release 1.00
                                                                           1, 2, 3,           // strings
                                                                           1}));              // configurations
}

TEST(UsbDescriptorsTest, DeviceAtSuperSpeedTellsAnExponent) {
  const std::vector<uint8_t> bytes = deviceDescriptor(kIdentity, kShapes[1]);
  EXPECT_EQ(bytes[2] | bytes[3] << 8, 0x0300);
  EXPECT_EQ(bytes[7], 9);
}

TEST(UsbDescriptorsTest, ConfigurationsAreAsLongAsTheySay) {
  for (const UsbShape& shape : kShapes) {
    const std::vector<uint8_t> bytes = configurationDescriptor(shape);
    EXPECT_EQ(static_cast<size_t>(bytes[2] | bytes[3] << 8), bytes.size());
    size_t total = 0;
    for (const auto& part : split(bytes)) total += part.size();
    EXPECT_EQ(total, bytes.size());
  }
  EXPECT_EQ(configurationDescriptor(kShapes[0]).size(), 441U);
  EXPECT_EQ(configurationDescriptor(kShapes[1]).size(), 441U + 3 * 6) << "a companion for each endpoint";
  EXPECT_EQ(configurationDescriptor(kShapes[2]).size(), 441U + 9) << "one more alternate setting";
}

TEST(UsbDescriptorsTest, ClassSpecificTotalsAreRight) {
  const auto parts = split(configurationDescriptor(kShapes[0]));
  // The video control header says how long the units and terminals are, the input header how long the formats.
  size_t control = 0;
  size_t streaming = 0;
  int interface = -1;
  size_t control_said = 0;
  size_t streaming_said = 0;
  for (const auto& part : parts) {
    if (part[1] == 0x04) interface = part[2];
    if (part[1] != 0x24) continue;
    (interface == 0 ? control : streaming) += part.size();
    if (part[2] == 0x01) {
      (interface == 0 ? control_said : streaming_said) =
          interface == 0 ? static_cast<size_t>(part[5] | part[6] << 8) : static_cast<size_t>(part[4] | part[5] << 8);
    }
  }
  EXPECT_EQ(control, control_said);
  EXPECT_EQ(streaming, streaming_said);
}

TEST(UsbDescriptorsTest, EachFormatNamesTheMatrixOfItsPixels) {
  for (const UsbShape& shape : kShapes) {
    size_t formats = 0;
    std::vector<std::vector<uint8_t>> colours;
    for (const auto& part : split(configurationDescriptor(shape))) {
      if (part[1] != 0x24) continue;
      if (part.size() == 27 || part.size() == 11) ++formats;
      if (part.size() == 6) {
        EXPECT_EQ(colours.size() + 1, formats) << "it stands behind its format's frames";
        colours.push_back(part);
      }
    }
    // Primaries and transfer of BT.709, as displays have them; the matrix is number 4, that of BT.601.
    EXPECT_EQ(colours, std::vector<std::vector<uint8_t>>(3, {6, 0x24, 0x0d, 1, 1, 4}));
  }
}

TEST(UsbDescriptorsTest, EndpointsAreWhereTheDriversLook) {
  const auto endpoints = [](const UsbShape& shape) {
    std::vector<std::vector<uint8_t>> found;
    for (const auto& part : split(configurationDescriptor(shape))) {
      if (part[1] == 0x05) found.push_back(part);
    }
    return found;
  };
  EXPECT_EQ(endpoints(kShapes[0]),
            (std::vector<std::vector<uint8_t>>{
                {7, 5, 0x81, 2, 0x00, 0x02, 0}, {7, 5, 0x82, 3, 64, 0, 1}, {7, 5, 0x03, 3, 64, 0, 1}}));
  EXPECT_EQ(endpoints(kShapes[1])[0], (std::vector<uint8_t>{7, 5, 0x81, 2, 0x00, 0x04, 0}));
  EXPECT_EQ(endpoints(kShapes[2])[0], (std::vector<uint8_t>{7, 5, 0x81, 5, 0x00, 0x14, 1}))
      << "1024 bytes, three times in a microframe";
}

TEST(UsbDescriptorsTest, InterfacesAreNumberedAndCounted) {
  const auto parts = split(configurationDescriptor(kShapes[2]));
  std::set<int> numbers;
  for (const auto& part : parts) {
    if (part[1] == 0x04) numbers.insert(part[2]);
  }
  EXPECT_EQ(numbers, (std::set<int>{0, 1, 2}));
  EXPECT_EQ(parts[0][4], 3);
}

TEST(UsbDescriptorsTest, HidReportDescriptorIsTheOneThatWasTriedOut) {
  EXPECT_EQ(hidReportDescriptor(),
            (std::vector<uint8_t>{0x06, 0x00, 0xff, 0x09, 0x01, 0xa1, 0x01, 0x15, 0x00, 0x26, 0xff, 0x00, 0x75, 0x08,
                                  0x95, 0x40, 0x09, 0x01, 0x81, 0x02, 0x95, 0x40, 0x09, 0x01, 0x91, 0x02, 0xc0}));
  EXPECT_EQ(hidDescriptor(), (std::vector<uint8_t>{9, 0x21, 0x11, 0x01, 0, 1, 0x22, 27, 0}));
}

TEST(UsbDescriptorsTest, BosIsAsLongAsItSays) {
  const std::vector<uint8_t> bytes = bosDescriptor();
  EXPECT_EQ(static_cast<size_t>(bytes[2] | bytes[3] << 8), bytes.size());
  EXPECT_EQ(split(bytes).size(), static_cast<size_t>(bytes[4]) + 1);
}

TEST(UsbDescriptorsTest, Strings) {
  EXPECT_EQ(stringDescriptor(kIdentity, 0), (std::vector<uint8_t>{4, 3, 0x09, 0x04}));
  EXPECT_EQ(stringDescriptor(kIdentity, 3), (std::vector<uint8_t>{10, 3, 'V', 0, 'M', 0, '0', 0, '1', 0}));
  EXPECT_TRUE(stringDescriptor(kIdentity, 4).empty());
  UsbIdentity odd = kIdentity;
  odd.product_name = std::string(300, 'x');
  odd.serial = "a\xc3\xa4\n";
  EXPECT_EQ(stringDescriptor(odd, 2).size(), 2U + 2 * 126);
  EXPECT_EQ(stringDescriptor(odd, 3), (std::vector<uint8_t>{10, 3, 'a', 0, '?', 0, '?', 0, '?', 0}));
}

}  // namespace
}  // namespace mirn
