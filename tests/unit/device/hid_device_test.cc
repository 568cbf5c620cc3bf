#include "device/hid_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/mirn_identity.h"
#include "tests/unit/device/scripted_hid.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using Open = ScriptedHid::Open;

TEST(HidDevice, OpensByVendorAndProductWithoutASerialNumber) {
  ScriptedHid hid;
  hid.present = {{g_vid, g_pid}};
  const nuvra_hid_device device(g_vid, g_pid);
  EXPECT_NE(device.handle(), nullptr);
  EXPECT_THAT(hid.opens, ElementsAre(Open{g_vid, g_pid}));
  EXPECT_FALSE(hid.serial_given);
}

TEST(HidDevice, TriesTheSecondVendorWhenTheFirstHasNone) {
  ScriptedHid hid;
  hid.present = {{g_fallback_vid, 0x0042}};
  const nuvra_hid_device device(0x1111, 0x0042);
  EXPECT_NE(device.handle(), nullptr);
  EXPECT_THAT(hid.opens, ElementsAre(Open{0x1111, 0x0042}, Open{g_fallback_vid, 0x0042}));
}

TEST(HidDevice, ClosesWhatItOpened) {
  ScriptedHid hid;
  hid.present = {{g_vid, g_pid}};
  { const nuvra_hid_device device(g_vid, g_pid); }
  EXPECT_EQ(hid.closes, 1);
}

TEST(HidDevice, WithoutADeviceThereIsNothingToClose) {
  ScriptedHid hid;
  {
    const nuvra_hid_device device(g_vid, g_pid);
    EXPECT_EQ(device.handle(), nullptr);
    EXPECT_EQ(device.topology(), "");
  }
  EXPECT_EQ(hid.closes, 0);
}

TEST(HidDevice, SendReportsMissingHandleFailureAndSuccess) {
  ScriptedHid hid;
  const uint8_t report[] = {0, 1, 2};
  nuvra_hid_device absent(g_vid, g_pid);
  EXPECT_EQ(absent.send_data(report, sizeof(report), 100), -2);

  hid.present = {{g_vid, g_pid}};
  nuvra_hid_device device(g_vid, g_pid);
  EXPECT_EQ(device.send_data(report, sizeof(report), 100), 0);
  EXPECT_THAT(hid.writes, ElementsAre(ElementsAre(0, 1, 2)));
  hid.write_results = {-1};
  EXPECT_EQ(device.send_data(report, sizeof(report), 100), -1);
}

TEST(HidDevice, ReceiveReportsMissingHandleFailureTimeOutAndSuccess) {
  ScriptedHid hid;
  uint8_t buffer[65] = {};
  nuvra_hid_device absent(g_vid, g_pid);
  EXPECT_EQ(absent.recv_data(buffer, sizeof(buffer), 7), -2);

  hid.present = {{g_vid, g_pid}};
  nuvra_hid_device device(g_vid, g_pid);
  hid.reads = {{64, {9}}, {0, {}}, {-7, {}}};
  EXPECT_EQ(device.recv_data(buffer, sizeof(buffer), 7), 0);
  EXPECT_EQ(buffer[0], 9);
  EXPECT_EQ(device.recv_data(buffer, sizeof(buffer), 8), 0);
  EXPECT_EQ(device.recv_data(buffer, sizeof(buffer), 9), -7);
  EXPECT_THAT(hid.read_timeouts, ElementsAre(7, 8, 9));
}

TEST(HidDevice, StaysWithTheTableThatOpenedIt) {
  ScriptedHid hid;
  hid.present = {{g_vid, g_pid}};
  {
    const nuvra_hid_device device(g_vid, g_pid);
    setHidFunctions(nullptr);
    EXPECT_EQ(device.topology(), "9-9");
  }
  EXPECT_EQ(hid.closes, 1);
}

}  // namespace
}  // namespace mirn
