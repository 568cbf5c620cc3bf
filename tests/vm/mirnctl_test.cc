// The main job on a real USB device as the kernel sees it: mirnctl as a user runs it, the device in this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "platform/capture.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "tests/support/png_picture.h"
#include "tests/vm/child_program.h"
#include "tests/vm/kernel_mirn.h"
#include "usb/usb_scan.h"

namespace mirn {
namespace {

struct Outcome {
  int status = -1;
  std::string output;  // both streams
};

// `user`: 0 is root. Ended by force after 50 s.
Outcome mirnctl(const std::string& arguments, int user = 0) {
  std::string command = builtFile("bin/mirnctl") + " " + arguments;
  if (user != 0) {
    const std::string number = std::to_string(user);
    command = "setpriv --reuid=" + number + " --regid=" + number + " --clear-groups " + command;
  }
  const auto begun = std::chrono::steady_clock::now();
  FILE* pipe = ::popen(("timeout -k 2 50 " + command + " 2>&1 < /dev/null").c_str(), "r");
  Outcome outcome;
  std::array<char, 512> bytes{};
  while (const size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
    outcome.output.append(bytes.data(), count);
  const int status = ::pclose(pipe);
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begun);
  std::cout << "mirnctl " << arguments << " -> " << outcome.status << " after " << took.count() << " ms\n"
            << outcome.output << std::endl;
  return outcome;
}

bool contains(const Outcome& outcome, const std::string& text) {
  return outcome.output.find(text) != std::string::npos;
}

bool nodesThere() {
  hid_device* device = hidFunctions().open(g_vid, g_pid, nullptr);
  if (device == nullptr) return false;
  hidFunctions().close(device);
  const auto cameras = captureSystem().devices();
  return std::any_of(cameras.begin(), cameras.end(),
                     [](const auto& camera) { return camera->localizedName() == kMirnProductName; });
}

// A firmware image that names its version; where it stands.
std::string writeFirmware(const std::string& version) {
  std::string file = "/dev/shm/firmware.bin";
  std::ofstream(file, std::ios::binary) << std::string(40000, 'x') << "MIRN-VERSION=" << version
                                        << std::string(1000, '\0');
  return file;
}

// Whether a snapshot shows what has been typed on this target, and not the empty page that it had before: compared are
// the pixels in which the two differ.
testing::AssertionResult showsText(const PngPicture& picture, VirtualTarget& target) {
  const std::vector<uint8_t> empty = VirtualTarget().picture(picture.width, picture.height);
  const std::vector<uint8_t> typed = target.picture(picture.width, picture.height);
  if (typed.size() != picture.bgra.size()) return testing::AssertionFailure() << "another size";
  constexpr int kClear = 100;  // levels; chroma subsampling and JPEG blur less than half of that
  size_t differing = 0;
  size_t shown = 0;
  // The upper half has the text and no frame number. Green stands for brightness.
  for (size_t i = 1; i < typed.size() / 2; i += 4) {
    if (std::abs(typed[i] - empty[i]) < kClear) continue;
    ++differing;
    shown += std::abs(picture.bgra[i] - typed[i]) < std::abs(picture.bgra[i] - empty[i]) ? 1 : 0;
  }
  constexpr size_t kLeastInk = 200;
  if (differing < kLeastInk) return testing::AssertionFailure() << "the text has only " << differing << " pixels";
  if (shown < differing * 95 / 100) {
    return testing::AssertionFailure() << shown << " of " << differing << " pixels show the text";
  }
  return testing::AssertionSuccess();
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
  const std::string file = "/dev/shm/snapshot.png";
  ASSERT_EQ(mirnctl("snapshot --timeout 30000 " + file).status, 0);
  const PngPicture picture = readPng(file);
  ASSERT_EQ(picture.width, 1920);
  EXPECT_TRUE(showsText(picture, device_.target()));
}

TEST_F(Mirnctl, UpgradeBringsTheNewVersion) {
  plugIn();
  const std::string file = writeFirmware("3.1.4");
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
  const std::string file = writeFirmware("3.1.4");
  const Outcome upgrade = mirnctl("upgrade --replug 1 --expect 3.1.4 " + file);
  EXPECT_EQ(upgrade.status, 9);
  EXPECT_TRUE(contains(upgrade, "was unplugged after 8 of 41 chunks")) << "the first of the ten is the greeting";
  EXPECT_EQ(device_.mirn().version(), "2.0.0");
  EXPECT_EQ(device_.mirn().firmware().completed, 0U);
  device_.unplug();
  device_.mirn().setFaultPlan({});
  plugIn();
  EXPECT_EQ(mirnctl("upgrade --expect 3.1.4 " + file).status, 0);
}

// What "watch" says of a device that comes and goes: its first state and two changes.
void expectWatched(const std::function<void()>& plug, const std::function<void()>& unplug) {
  auto watch = std::async(std::launch::async, [] { return mirnctl("watch --count 2 --seconds 40 --no-time"); });
  // Until it has reached the point where it waits for changes nothing shows that it runs: the changes go on meanwhile.
  const auto over = [&watch](std::chrono::seconds patience) {
    return watch.wait_for(patience) == std::future_status::ready;
  };
  constexpr std::chrono::seconds kEach{2};
  while (!over(std::chrono::seconds(0))) {
    plug();
    if (!waitFor([] { return UsbDeviceAttached(); }) || over(kEach)) break;
    unplug();
    if (!waitFor([] { return !UsbDeviceAttached(); }) || over(kEach)) break;
  }
  const Outcome outcome = watch.get();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output,
              testing::AnyOf("unplugged\nplugged-in\nunplugged\n", "plugged-in\nunplugged\nplugged-in\n"));
}

TEST_F(Mirnctl, WatchSeesPluggingAndUnplugging) {
  expectWatched([this] { device_.plug(); }, [this] { device_.unplug(); });
}

// The program mirn-virtual instead of the device in this process: what a user has who tries it all without hardware.
class MirnctlOnProgram : public KernelTest {};

TEST_F(MirnctlOnProgram, TellsTypesAndTakesAPicture) {
  Program program({"--name=from a program", "--firmware=4.5.6"});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor(nodesThere));
  const Outcome info = mirnctl("info --json");
  EXPECT_EQ(info.status, 0);
  EXPECT_TRUE(contains(info, "from a program"));
  EXPECT_TRUE(contains(info, "4.5.6"));
  EXPECT_EQ(mirnctl("type mirn").status, 0);
  const std::string file = "/dev/shm/program.png";
  ASSERT_EQ(mirnctl("snapshot --quality 720P --timeout 30000 " + file).status, 0);
  VirtualTarget expected;
  for (const uint8_t usage : {0x10, 0x0c, 0x15, 0x11}) {  // m i r n
    expected.keyboard(0, std::array<uint8_t, 6>{usage});
    expected.keyboard(0, std::array<uint8_t, 6>{});
  }
  ASSERT_EQ(expected.text(), "mirn");
  const PngPicture picture = readPng(file);
  ASSERT_EQ(picture.width, 1280);
  EXPECT_TRUE(showsText(picture, expected));
}

TEST_F(MirnctlOnProgram, WatchSeesPluggingAndUnplugging) {
  Program program({"--unplugged"});
  ASSERT_TRUE(program.waitForLine("ready"));
  expectWatched([&program] { EXPECT_EQ(program.ask("replug"), "ok"); },
                [&program] { EXPECT_EQ(program.ask("unplug"), "ok"); });
}

TEST_F(MirnctlOnProgram, DoctorFindsNothingWrongForRoot) {
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor(nodesThere));
  const Outcome doctor = mirnctl("doctor");
  EXPECT_EQ(doctor.status, 0);
  EXPECT_TRUE(contains(doctor, "all four picture formats are offered"));
}

TEST_F(MirnctlOnProgram, UpgradeBringsTheNewVersion) {
  Program program({"--firmware=2.0.0"});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor(nodesThere));
  EXPECT_EQ(mirnctl("upgrade --expect 3.1.4 " + writeFirmware("3.1.4")).status, 0);
  EXPECT_TRUE(program.ask("status").ends_with("firmware 3.1.4"));
}

TEST_F(MirnctlOnProgram, SurvivesThePulledPlugInAnUpgrade) {
  Program program({"--firmware=1.0.0", "--faults=unplug-after@10/c7"});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor(nodesThere));
  const Outcome upgrade = mirnctl("upgrade --replug 1 --expect 7.7.7 " + writeFirmware("7.7.7"));
  EXPECT_EQ(upgrade.status, 9);
  EXPECT_TRUE(contains(upgrade, "was unplugged after 9 of 41 chunks")) << "firmware 1.0.0 is not greeted";
  EXPECT_TRUE(program.waitForLine("device 1: left the bus"));
  EXPECT_EQ(program.ask("faults"), "ok");
  EXPECT_EQ(program.ask("replug"), "ok");
  ASSERT_TRUE(waitFor(nodesThere));
  EXPECT_TRUE(contains(mirnctl("info --json"), "1.0.0"));
}

TEST_F(Mirnctl, DoctorFindsNothingWrongForRoot) {
  plugIn();
  const Outcome doctor = mirnctl("doctor");
  EXPECT_EQ(doctor.status, 0);
  EXPECT_TRUE(contains(doctor, "all four picture formats are offered"));
}

TEST_F(Mirnctl, DoctorTellsAnOrdinaryUserThatThePermissionIsMissing) {
  plugIn();
  constexpr int kNobody = 65534;
  const Outcome doctor = mirnctl("doctor", kNobody);
  EXPECT_EQ(doctor.status, 4);
  EXPECT_TRUE(contains(doctor, "rule")) << "the next step is the udev rule";
}

// The rule that the package installs, with the udev daemon running.
class UdevRule : public Mirnctl {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(Mirnctl::SetUp());
    std::filesystem::create_directories("/run/udev/rules.d");
    std::filesystem::copy_file(builtFile("packaging/70-mirn.rules"), kRule);
    ASSERT_EQ(std::system("udevadm control --reload"), 0);
  }
  void TearDown() override { std::filesystem::remove(kRule); }

  // Whether udev has tagged a node of this class for the person at the computer.
  static bool tagged(const std::string& node_class) {
    for (const auto& node : std::filesystem::directory_iterator("/sys/class/" + node_class)) {
      const std::string command = "udevadm info --query=property --path=" + node.path().string();
      if (std::system((command + " | grep -q '^CURRENT_TAGS=.*:uaccess:'").c_str()) == 0) return true;
    }
    return false;
  }

  static constexpr const char* kRule = "/run/udev/rules.d/70-mirn.rules";
};

TEST_F(UdevRule, GivesBothNodesToThePersonAtTheComputer) {
  plugIn();
  EXPECT_TRUE(waitFor([] { return tagged("hidraw"); }));
  EXPECT_TRUE(waitFor([] { return tagged("video4linux"); }));
  const Outcome doctor = mirnctl("doctor");
  EXPECT_EQ(doctor.status, 0);
  EXPECT_TRUE(contains(doctor, kRule));
}

}  // namespace
}  // namespace mirn
