// Picture and keyboard of one Mirn, and of two: what is typed must go to the computer that is on the screen.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "apps/common/topology_check.h"
#include "platform/capture.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_host.h"
#include "plugin/mirn_manager.h"
#include "tests/vm/kernel_mirn.h"

namespace mirn {
namespace {

VirtualMirnSettings withSerial(const char* serial) {
  VirtualMirnSettings settings;
  settings.serial = serial;
  return settings;
}

// Where the Mirns' cameras are plugged in.
std::set<std::string> cameraPlaces() {
  std::set<std::string> places;
  for (const auto& device : captureSystem().devices()) {
    if (device->localizedName() == kMirnProductName) places.insert(device->topologyPath());
  }
  return places;
}

// Where the HID interface with this serial is plugged in: its last part names the place on the bus. "" when it isn't.
std::string hidPlace(const wchar_t* serial) {
  hid_device* device = hidFunctions().open(g_vid, g_pid, serial);
  if (device == nullptr) return "";
  const std::string path = hidFunctions().topology(device);
  hidFunctions().close(device);
  return path.substr(path.rfind('/') + 1);
}

// The library as an application drives it.
class Whole : public KernelTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(KernelTest::SetUp());
    createManager();
  }
  void TearDown() override {
    mirn_->close();
    hostReleaseProxy();
    releaseManager();
  }
  static MirnManager& manager() { return *mirn_; }
  // A busy machine may answer one greeting too late; whoever uses the console tries again, too.
  static bool openKeyboard() {
    return waitFor([] { return manager().initKmProxy(); });
  }
  static TopologyVerdict verdict() { return compareTopology(hostHidTopologyPath(), hostCaptureTopologyPath()); }
};

TEST_F(Whole, PictureAndKeyboardOfOneMirnAreAtOnePlace) {
  KernelMirn device;
  device.plug();
  ASSERT_TRUE(waitFor([] { return cameraPlaces().size() == 1 && !hidPlace(nullptr).empty(); }));
  EXPECT_FALSE(verdict().same) << "nothing is open yet";
  ASSERT_TRUE(manager().open());
  EXPECT_FALSE(verdict().same) << "the keyboard is not open yet";
  ASSERT_TRUE(openKeyboard());
  EXPECT_EQ(hostHidTopologyPath(), hostCaptureTopologyPath());
  EXPECT_EQ(hostCaptureTopologyPath(), *cameraPlaces().begin());
  EXPECT_TRUE(verdict().same) << verdict().reason;
  constexpr int32_t kVirtualKeyA = 0x41;
  manager().keyDown(kVirtualKeyA);
  manager().keyUp(kVirtualKeyA);
  EXPECT_TRUE(waitFor([&] { return device.target().text() == "a"; }));
}

TEST_F(Whole, EachOfTwoMirnsHasBothHalvesAtItsOwnPlace) {
  KernelMirn first(withSerial("first"));
  KernelMirn second(withSerial("second"));
  first.plug();
  second.plug();
  ASSERT_TRUE(waitFor([] { return cameraPlaces().size() == 2; }));
  ASSERT_TRUE(waitFor([] { return !hidPlace(L"first").empty() && !hidPlace(L"second").empty(); }));
  EXPECT_EQ(cameraPlaces(), (std::set<std::string>{hidPlace(L"first"), hidPlace(L"second")}));
  second.unplug();
  EXPECT_TRUE(waitFor([] { return cameraPlaces() == std::set<std::string>{hidPlace(L"first")}; }));
}

TEST_F(Whole, ThePictureOfOneAndTheKeyboardOfAnotherAreToldApart) {
  // The first match of a walk over the bus is the device on the lower port. So the picture is taken from the only one
  // there is, and the keyboard after one has been put before it.
  KernelMirn shown(withSerial("shown"), {}, 1);
  KernelMirn other(withSerial("other"), {}, 0);
  shown.plug();
  ASSERT_TRUE(waitFor([] { return cameraPlaces().size() == 1 && !hidPlace(L"shown").empty(); }));
  ASSERT_TRUE(manager().open());
  other.plug();
  ASSERT_TRUE(waitFor([] { return !hidPlace(L"other").empty(); }));
  ASSERT_EQ(hidPlace(nullptr), hidPlace(L"other")) << "the other one comes first now";
  ASSERT_TRUE(openKeyboard());
  EXPECT_EQ(hostCaptureTopologyPath(), hidPlace(L"shown"));
  EXPECT_EQ(hostHidTopologyPath(), hidPlace(L"other"));
  EXPECT_FALSE(verdict().same);
  EXPECT_NE(verdict().reason.find(hidPlace(L"other")), std::string::npos) << verdict().reason;
  // The advice is to unplug one of them.
  other.unplug();
  ASSERT_TRUE(waitFor([] { return hidPlace(L"other").empty(); }));
  ASSERT_TRUE(openKeyboard());
  EXPECT_TRUE(verdict().same) << verdict().reason;
}

}  // namespace
}  // namespace mirn
