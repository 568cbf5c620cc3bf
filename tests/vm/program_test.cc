// The program mirn-virtual as a user runs it: commands, signals, faults, exit statuses, and that nothing stays attached
// however it ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "device/hard_key_mouse.h"
#include "platform/capture.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "tests/vm/child_program.h"
#include "tests/vm/kernel_mirn.h"
#include "usb/usb_scan.h"
#include "virtual/usb/vhci_host.h"

namespace mirn {
namespace {

bool nothingAttached() {
  const std::vector<VhciPort> ports = VhciHost().ports();
  return !UsbDeviceAttached() &&
         std::all_of(ports.begin(), ports.end(), [](const VhciPort& port) { return port.free; });
}

bool answers() {
  hid_device* device = hidFunctions().open(g_vid, g_pid, nullptr);
  if (device == nullptr) return false;
  hidFunctions().close(device);
  hard_key_mouse layer(g_vid, g_pid);
  return !layer.version_text().empty();
}

class ProgramTest : public KernelTest {};

TEST_F(ProgramTest, PlugsUnplugsAndReplugsByCommand) {
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  EXPECT_TRUE(waitFor(answers));
  EXPECT_EQ(program.ask("unplug"), "ok");
  EXPECT_TRUE(waitFor(nothingAttached));
  EXPECT_EQ(program.ask("replug"), "ok");
  EXPECT_TRUE(waitFor(answers));
  EXPECT_EQ(program.ask("status").substr(0, 24), "device 1: plugged, port ");
  EXPECT_EQ(program.ask("unplug 2"), "error: there is no such device");
  EXPECT_EQ(program.ask("faults nonsense").substr(0, 7), "error: ");
  EXPECT_EQ(program.ask("dance").substr(0, 7), "error: ");
  EXPECT_EQ(program.ask("quit"), "ok");
  EXPECT_EQ(program.wait(), 0);
  EXPECT_TRUE(waitFor(nothingAttached));
}

TEST_F(ProgramTest, PlugsAndUnplugsBySignal) {
  Program program({"--no-stdin"});
  ASSERT_TRUE(program.waitForLine("ready"));
  program.send(SIGUSR1);
  EXPECT_TRUE(program.waitForLine("all unplugged"));
  EXPECT_TRUE(waitFor(nothingAttached));
  program.send(SIGUSR2);
  EXPECT_TRUE(program.waitForLine("all plugged"));
  EXPECT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
}

class ProgramEnd : public KernelTest, public testing::WithParamInterface<int> {};

TEST_P(ProgramEnd, LeavesNothingAttached) {
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  program.send(GetParam());
  EXPECT_EQ(program.wait(), GetParam() == SIGKILL || GetParam() == SIGSEGV ? -GetParam() : 0);
  EXPECT_TRUE(waitFor(nothingAttached));
}

INSTANTIATE_TEST_SUITE_P(Signals, ProgramEnd, testing::Values(SIGTERM, SIGINT, SIGHUP, SIGKILL, SIGSEGV),
                         [](const auto& number) { return std::string("By") + sigabbrev_np(number.param); });

TEST_F(ProgramTest, EndsBySignalWhileNobodyReadsItsOutput) {
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  program.askWithoutReading("status");
  constexpr int kNearlyAPipe = 50000;  // of 65536 bytes
  ASSERT_TRUE(waitFor([&] { return program.unread() > kNearlyAPipe; }));
  program.send(SIGTERM);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_TRUE(waitFor(nothingAttached));
}

TEST_F(ProgramTest, SeveralDevicesOnPortsOfTheirOwn) {
  Program program({"--devices=2", "--port=2", "--serial=twin"});
  ASSERT_TRUE(program.waitForLine("device 1: plugged, port 2"));
  ASSERT_TRUE(program.waitForLine("device 2: plugged, port 3"));
  for (const wchar_t* serial : {L"twin", L"twin-2"}) {
    EXPECT_TRUE(waitFor([serial] {
      hid_device* device = hidFunctions().open(g_vid, g_pid, serial);
      if (device != nullptr) hidFunctions().close(device);
      return device != nullptr;
    }));
  }
  EXPECT_TRUE(program.waitForLine("ready"));
  EXPECT_EQ(program.ask("unplug 1"), "ok");
  EXPECT_TRUE(waitFor([] { return hidFunctions().open(g_vid, g_pid, L"twin") == nullptr; }));
}

TEST_F(ProgramTest, TakesAFaultPlanAndSaysWhenTheDeviceLeaves) {
  Program program({"--faults=unplug@3", "--firmware=2.3.4"});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  ASSERT_TRUE(waitFor([] {
    hid_device* device = hidFunctions().open(g_vid, g_pid, nullptr);
    if (device != nullptr) hidFunctions().close(device);
    return device != nullptr;
  }));
  hard_key_mouse layer(g_vid, g_pid);
  EXPECT_EQ(layer.version_text(), "2.3.4");
  EXPECT_EQ(layer.send_keyboard({}), 0);
  EXPECT_EQ(layer.send_keyboard({}), -1);
  EXPECT_TRUE(program.waitForLine("device 1: left the bus"));
  EXPECT_TRUE(waitFor(nothingAttached));
  EXPECT_EQ(program.ask("faults"), "ok");
  EXPECT_EQ(program.ask("replug"), "ok");
  EXPECT_TRUE(waitFor(answers));
}

TEST_F(ProgramTest, TakenAndMissingPortsAreOneLineAndStatus5) {
  Program first({"--port=0"});
  ASSERT_TRUE(first.waitForLine("ready"));
  Program second({"--port=0"});
  EXPECT_EQ(second.line(), "mirn-virtual: port 0 of vhci-hcd is taken");
  EXPECT_EQ(second.wait(), 5);
  Program third({"--port=900"});
  EXPECT_EQ(third.line(), "mirn-virtual: vhci-hcd has no port 900");
  EXPECT_EQ(third.wait(), 5);
}

TEST_F(ProgramTest, AControlPathThatCanNotBeTakenIsOneLineAndStatus1) {
  Program program({"--control=/nonexistent/socket"});
  EXPECT_EQ(program.line(), "mirn-virtual: /nonexistent/socket: No such file or directory");
  EXPECT_EQ(program.wait(), 1);
  EXPECT_TRUE(nothingAttached());
}

TEST_F(ProgramTest, WithoutRootIsOneLineAndStatus3) {
  constexpr uid_t kNobody = 65534;
  Program program({}, kNobody);
  EXPECT_EQ(program.line(), "mirn-virtual: only root may plug a device into the kernel");
  EXPECT_EQ(program.wait(), 3);
}

TEST_F(ProgramTest, LoadsTheModuleOrSaysThatItIsMissing) {
  ASSERT_EQ(std::system("modprobe -r vhci_hcd"), 0);
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", "/nowhere", 1);
  Program helpless({});
  ::setenv("PATH", path.c_str(), 1);
  EXPECT_EQ(helpless.line(), "mirn-virtual: the kernel module vhci-hcd is missing and could not be loaded");
  EXPECT_EQ(helpless.wait(), 4);
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  EXPECT_TRUE(waitFor(answers));
}

TEST_F(ProgramTest, TakesCommandsOnASocketToo) {
  const std::string path = "/dev/shm/mirn-virtual.socket";
  Program program({"--no-stdin", "--control=" + path, "--unplugged"});
  ASSERT_TRUE(program.waitForLine("ready"));
  EXPECT_TRUE(nothingAttached());
  const int connection = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  ASSERT_EQ(::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::write(connection, "replug\n", 7), 7);
  std::array<char, 64> answer{};
  ASSERT_GT(::read(connection, answer.data(), answer.size() - 1), 0);
  EXPECT_STREQ(answer.data(), "ok\n");
  EXPECT_TRUE(waitFor([] { return UsbDeviceAttached(); }));
  ASSERT_EQ(::write(connection, "quit\n", 5), 5);
  EXPECT_EQ(program.wait(), 0);
  EXPECT_NE(::access(path.c_str(), F_OK), 0);
  ::close(connection);
}

// The test pattern's frame with this number.
std::vector<uint8_t> pattern(uint32_t number) {
  TestPattern source;
  std::vector<uint8_t> frame;
  for (uint32_t i = 0; i <= number; ++i) source.nextFrame(TargetFormat::kYuyv, 1280, 720, frame);
  return frame;
}

class ProgramPictures : public KernelTest, public testing::WithParamInterface<const char*> {};

// A camera program that knows nothing of a Mirn.
TEST_P(ProgramPictures, ReachAnyCameraProgram) {
  Program program({"--picture=pattern", GetParam()});
  ASSERT_TRUE(program.waitForLine("ready"));
  std::string node;
  ASSERT_TRUE(waitFor([&] {
    for (const auto& device : captureSystem().devices()) {
      if (device->localizedName() == kMirnProductName) node = device->nodeName();
    }
    return !node.empty();
  }));
  const std::string file = "/dev/shm/frames.yuyv";
  const std::string command = "timeout 40 v4l2-ctl -d " + node +
                              " --set-fmt-video=width=1280,height=720,pixelformat=YUYV --stream-mmap"
                              " --stream-count=3 --stream-to=" +
                              file;
  EXPECT_EQ(std::system(command.c_str()), 0);
  constexpr size_t kFrameBytes = size_t{1280} * 720 * 2;
  std::vector<uint8_t> frame(kFrameBytes);
  std::ifstream frames(file, std::ios::binary);
  uint32_t before = 0;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(frames.read(reinterpret_cast<char*>(frame.data()), kFrameBytes)) << "frame " << i;
    const uint32_t number = TestPattern::numberIn(TargetFormat::kYuyv, frame);
    if (i > 0) {
      EXPECT_GT(number, before);
    }
    before = number;
    EXPECT_TRUE(frame == pattern(number)) << "frame " << i << " is not whole";
  }
}

INSTANTIATE_TEST_SUITE_P(Each, ProgramPictures,
                         testing::Values("--transfer=bulk", "--transfer=isochronous", "--speed=super"),
                         [](const auto& option) {
                           std::string name = option.param;
                           name.erase(0, name.find('=') + 1);
                           return name;
                         });

TEST_F(ProgramTest, AnOrdinaryUserCannotOpenTheNodeWithoutARule) {
  Program program({});
  ASSERT_TRUE(program.waitForLine("ready"));
  ASSERT_TRUE(waitFor(answers));
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setuid(65534) != 0) ::_exit(99);
    const hard_key_mouse layer(g_vid, g_pid);
    ::_exit(layer.device_opened() ? 1 : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace mirn
