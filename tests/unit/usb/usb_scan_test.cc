#include "usb/usb_scan.h"

#include <gtest/gtest.h>

#include "platform/mirn_identity.h"
#include "tests/unit/usb/usb_registry_double.h"
#include "usb/usb_monitor.h"

namespace mirn {
namespace {

const FakeUsbDevice kMirn = fakeDevice(g_vid, g_pid);

TEST(UsbScanTest, NothingAttached) {
  UsbRegistryDouble registry;
  EXPECT_FALSE(UsbDeviceAttached(registry));
  EXPECT_TRUE(registry.allGivenBack());
}

TEST(UsbScanTest, FindsTheDeviceAmongOthersAndWalksTheRestWithoutComparing) {
  UsbRegistryDouble registry;
  registry.attachQuietly(fakeDevice(1, 2));
  registry.attachQuietly(kMirn);
  registry.attachQuietly(fakeDevice(3, 4));
  registry.attachQuietly(kMirn);
  EXPECT_TRUE(UsbDeviceAttached(registry));
  const UsbRegistryDouble::Counts counts = registry.counts();
  EXPECT_EQ(counts.services_out, 4);
  EXPECT_EQ(counts.property_reads, 2);
  EXPECT_TRUE(registry.allGivenBack());
  EXPECT_EQ(registry.classes(), std::vector<std::string>{"IOUSBDevice"});
}

TEST(UsbScanTest, EntriesThatLackAnIdentifierAreSkipped) {
  UsbRegistryDouble registry;
  registry.attachQuietly({std::nullopt, UsbValue(int64_t{g_pid})});
  registry.attachQuietly({UsbValue(int64_t{g_vid}), std::nullopt});
  registry.attachQuietly(fakeDevice(g_vid, 0x8000));
  EXPECT_FALSE(UsbDeviceAttached(registry));
  registry.attachQuietly(kMirn);
  EXPECT_TRUE(UsbDeviceAttached(registry));
  EXPECT_TRUE(registry.allGivenBack());
}

TEST(UsbScanTest, IdentifiersCountAsReadOnlyWhenBothAre) {
  UsbRegistryDouble registry;
  const auto read = [&](const FakeUsbDevice& device) {
    const UsbIterator iterator = registry.iteratorOf({device});
    const UsbService service = registry.iteratorNext(iterator);
    uint16_t vid = 0;
    uint16_t pid = 0;
    const bool both = GetDeviceInfo(registry, service, &vid, &pid);
    registry.release(service);
    registry.release(iterator);
    EXPECT_TRUE(!both || (vid == 1 && pid == 2)) << vid << " " << pid;
    return both;
  };
  EXPECT_TRUE(read(fakeDevice(1, 2)));
  EXPECT_FALSE(read({std::nullopt, UsbValue(int64_t{2})}));
  EXPECT_FALSE(read({UsbValue(int64_t{1}), std::nullopt}));
  EXPECT_FALSE(read(fakeDevice(0x8000, 2)));
  EXPECT_FALSE(read(fakeDevice(1, 0x8000)));
  EXPECT_FALSE(read({UsbValue(int64_t{1}), UsbValue(int64_t{2}), false}));
  EXPECT_TRUE(registry.allGivenBack());
}

TEST(UsbScanTest, NoWhenTheRequestFails) {
  UsbRegistryDouble registry;
  registry.attachQuietly(kMirn);
  registry.services_result = -5;
  EXPECT_FALSE(UsbDeviceAttached(registry));
  registry.services_result = 0;
  registry.failing_matching = 2;
  EXPECT_FALSE(UsbDeviceAttached(registry));
  EXPECT_TRUE(registry.allGivenBack());
}

TEST(UsbScanTest, UsesTheRegistryInForce) {
  UsbRegistryDouble registry;
  registry.attachQuietly(kMirn);
  const ScopedUsbRegistry scoped(registry);
  EXPECT_TRUE(UsbDeviceAttached());
}

// One identifier of each device must be the vendor's, the other the product's.
TEST(UsbScanTest, IdentifiersDoNotCountCrosswise) {
  UsbRegistryDouble registry;
  registry.attachQuietly(fakeDevice(g_pid, g_vid));
  EXPECT_FALSE(UsbDeviceAttached(registry));
}

}  // namespace
}  // namespace mirn
