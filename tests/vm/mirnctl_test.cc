// The main job on a real USB device as the kernel sees it: mirnctl as a user runs it, the device in this process.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "tests/support/png_picture.h"
#include "tests/vm/kernel_mirn.h"
#include "usb/usb_scan.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

struct Outcome {
  int status = -1;
  std::string output;  // both streams
};

// `user`: 0 is root. Ended by force after 50 s.
Outcome mirnctl(const std::string& arguments, int user = 0) {
  const char* build = std::getenv("MIRN_VM_BUILD");
  std::string command = std::string(build != nullptr ? build : ".") + "/bin/mirnctl " + arguments;
  if (user != 0) {
    const std::string number = std::to_string(user);
    command = "setpriv --reuid=" + number + " --regid=" + number + " --clear-groups " + command;
  }
  FILE* pipe = ::popen(("timeout -k 2 50 " + command + " 2>&1 < /dev/null").c_str(), "r");
  Outcome outcome;
  std::array<char, 512> bytes{};
  while (const size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
    outcome.output.append(bytes.data(), count);
  const int status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  std::cout << "mirnctl " << arguments << " -> " << outcome.status << "\n" << outcome.output << std::endl;
  return outcome;
}

bool contains(const Outcome& outcome, const std::string& text) {
  return outcome.output.find(text) != std::string::npos;
}

bool nodesThere() {
  hid_device* device = hidFunctions().open(g_vid, g_pid, nullptr);
  if (device == nullptr) return false;
  hidFunctions().close(device);
  return ::access("/dev/video0", F_OK) == 0 || ::access("/dev/video2", F_OK) == 0;
}

class Mirnctl : public KernelTest {
 protected:
  static VirtualMirnSettings settings() {
    VirtualMirnSettings result;
    result.version = "2.0.0";
    result.name = "kernel device";
    return result;
  }
  void plugIn() {
    device_.plug();
    ASSERT_TRUE(waitFor(nodesThere));
  }

  KernelMirn device_{settings()};
};

TEST_F(Mirnctl, InfoTellsWhatTheDeviceTells) {
  plugIn();
  const Outcome info = mirnctl("info --json");
  EXPECT_EQ(info.status, 0);
  EXPECT_TRUE(contains(info, "kernel device"));
  EXPECT_TRUE(contains(info, "2.0.0"));
}

TEST_F(Mirnctl, WithoutADeviceSaysSo) {
  EXPECT_EQ(mirnctl("info").status, 3);
  EXPECT_EQ(mirnctl("doctor").status, 3);
}

TEST_F(Mirnctl, TypedTextStandsInTheTargetAndInTheSnapshot) {
  plugIn();
  EXPECT_EQ(mirnctl("type 'Hello, Mirn 42'").status, 0);
  EXPECT_EQ(device_.target().text(), "Hello, Mirn 42");
  const std::string file = "/tmp/snapshot.png";
  ASSERT_EQ(mirnctl("snapshot --timeout 30000 " + file).status, 0);
  // The strip's digest says which input the picture shows; the text area is compared with a picture of the same target.
  const PngPicture picture = readPng(file);
  ASSERT_EQ(picture.width, 1920);
  const auto strip =
      readStripBgra(picture.bgra.data(), picture.width, picture.height, static_cast<size_t>(picture.width) * 4);
  ASSERT_TRUE(strip.has_value());
  EXPECT_EQ(strip->input_digest, device_.target().inputState().digest());
  const std::vector<uint8_t> drawn = device_.target().picture(1920, 1080);
  size_t different = 0;
  // The upper half has the text and no frame number; colours went through chroma subsampling and JPEG.
  for (size_t i = 1; i < drawn.size() / 2; i += 4) {
    if (std::abs(drawn[i] - picture.bgra[i]) > 64) ++different;
  }
  EXPECT_LT(different, drawn.size() / 2 / 4 / 50);
}

TEST_F(Mirnctl, UpgradeBringsTheNewVersion) {
  plugIn();
  const std::string file = "/tmp/firmware.bin";
  std::ofstream(file, std::ios::binary) << std::string(40000, 'x') << "MIRN-VERSION=3.1.4" << std::string(1000, '\0');
  const Outcome upgrade = mirnctl("upgrade --expect 3.1.4 " + file);
  EXPECT_EQ(upgrade.status, 0);
  EXPECT_EQ(device_.mirn().version(), "3.1.4");
  EXPECT_EQ(device_.mirn().firmware().completed, 1U);
}

TEST_F(Mirnctl, UpgradeWithThePlugPulledIsNoUpgrade) {
  plugIn();
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("unplug-after@10/c7", &plan, &error)) << error;
  device_.mirn().setFaultPlan(plan);
  const std::string file = "/tmp/firmware.bin";
  std::ofstream(file, std::ios::binary) << std::string(40000, 'x') << "MIRN-VERSION=3.1.4" << std::string(1000, '\0');
  const Outcome upgrade = mirnctl("upgrade --replug 1 --expect 3.1.4 " + file);
  EXPECT_NE(upgrade.status, 0);
  EXPECT_EQ(device_.mirn().version(), "2.0.0");
  EXPECT_EQ(device_.mirn().firmware().completed, 0U);
  device_.unplug();
  device_.mirn().setFaultPlan({});
  plugIn();
  EXPECT_EQ(mirnctl("upgrade --expect 3.1.4 " + file).status, 0);
}

TEST_F(Mirnctl, WatchSeesPluggingAndUnplugging) {
  auto watch = std::async(std::launch::async, [] { return mirnctl("watch --count 2 --seconds 40 --no-time"); });
  // Until it has reached the point where it waits for changes nothing shows that it runs: the changes go on meanwhile.
  while (watch.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready) {
    device_.plug();
    if (!waitFor([] { return UsbDeviceAttached(); })) break;
    if (watch.wait_for(std::chrono::seconds(2)) == std::future_status::ready) break;
    device_.unplug();
    if (!waitFor([] { return !UsbDeviceAttached(); })) break;
    if (watch.wait_for(std::chrono::seconds(2)) == std::future_status::ready) break;
  }
  const Outcome outcome = watch.get();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_GE(std::count(outcome.output.begin(), outcome.output.end(), '\n'), 2);
}

TEST_F(Mirnctl, DoctorFindsNothingWrongForRoot) {
  plugIn();
  EXPECT_EQ(mirnctl("doctor").status, 0);
}

TEST_F(Mirnctl, DoctorTellsAnOrdinaryUserThatThePermissionIsMissing) {
  plugIn();
  constexpr int kNobody = 65534;
  const Outcome doctor = mirnctl("doctor", kNobody);
  EXPECT_EQ(doctor.status, 4);
  EXPECT_TRUE(contains(doctor, "rule")) << "the next step is the udev rule";
}

}  // namespace
}  // namespace mirn
