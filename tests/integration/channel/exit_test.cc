// A process that ends in the middle of everything: cleanly, and without a word to the device.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "platform/hid_functions.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "tests/integration/channel/channel_world.h"

namespace mirn::test {
namespace {

// What goes to the device is also written here, 64 bytes of each report.
int g_record = -1;

int recordingWrite(hid_device* device, const unsigned char* data, size_t length) {
  unsigned char line[64] = {};
  std::memcpy(line, data, std::min(length, sizeof(line)));
  if (write(g_record, line, sizeof(line)) < 0) abort();
  return VirtualHid::functions().write(device, data, length);
}

HidFunctions recordingFunctions() {
  HidFunctions functions = VirtualHid::functions();
  functions.write = recordingWrite;
  return functions;
}

// Runs `body` in a child process up to its exit; what it printed to standard error comes with a failure.
int statusOfChild(const std::function<void()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    body();
    std::exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// Named so that it runs first: its children are forked while this process has no other thread.
class ProcessExitDeathTest : public testing::Test {
 protected:
  ProcessExitDeathTest() { path_ = testing::TempDir() + "exit" + std::to_string(getpid()); }
  ~ProcessExitDeathTest() override { std::filesystem::remove(path_); }

  // Everything below runs in the child. The objects stay alive until the process has ended.
  ChannelWorld& begin(const WorldOptions& options) {
    g_record = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    auto* world = new ChannelWorld(options);
    static const HidFunctions functions = recordingFunctions();
    hostInstallHidFunctions(&functions);
    EXPECT_EQ(world->reply("initKmProxy"), success(true));
    return *world;
  }

  std::string recorded() {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string path_;
};

TEST_F(ProcessExitDeathTest, WithAKeyAndAButtonHeldSendsNoRelease) {
  const int status = statusOfChild([this] {
    ChannelWorld& world = begin({});
    world.reply("keyDown", ValueMap{{"key", 65}});
    world.reply("mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}});
    world.eventually([&] { return !world.received<VirtualMouse>().empty(); });
    if (world.received<VirtualMouse>().empty()) _exit(9);
  });
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  // Handshake, information, key, button; and that was all.
  EXPECT_EQ(recorded().size(), 4U * 64);
}

TEST_F(ProcessExitDeathTest, WithTrafficRunningIsClean) {
  for (int round = 0; round < 5; ++round) {
    const int status = statusOfChild([this, round] {
      WorldOptions options;
      options.mirn.latency = std::chrono::milliseconds(2);
      ChannelWorld& world = begin(options);
      world.value("createTexture");
      world.reply("open");
      world.reply("isVidPidExist");
      for (int i = 0; i < 400; ++i) world.reply("keyDown", ValueMap{{"key", 65 + i % 26}});
      world.eventually([&] { return world.received<VirtualKeyboard>().size() > static_cast<size_t>(round); });
    });
    ASSERT_TRUE(WIFEXITED(status)) << "round " << round << ": status " << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
}

TEST_F(ProcessExitDeathTest, InTheMiddleOfAnUpgradeIsClean) {
  const std::string image = path_ + ".bin";
  std::ofstream(image) << std::string(200 * 1024, 'x');
  const int status = statusOfChild([this, &image] {
    WorldOptions options;
    options.mirn.latency = std::chrono::milliseconds(2);
    ChannelWorld& world = begin(options);
    world.reply("reqUpgradeFirmware", ValueMap{{"path", image}});
    world.eventually([&] { return world.received<VirtualFirmwareChunk>().size() > 2; });
  });
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  std::filesystem::remove(image);
}

TEST_F(ProcessExitDeathTest, WhileTheDeviceIsSilentIsClean) {
  const int status = statusOfChild([this] {
    ChannelWorld& world = begin({});
    FaultPlan plan;
    std::string error;
    FaultPlan::parse("drop@*", &plan, &error);
    world.mirn().setFaultPlan(plan);
    const size_t before = world.received<VirtualKeyboard>().size();
    for (int i = 0; i < 10; ++i) world.reply("keyDown", ValueMap{{"key", 65}});
    world.reply("keyUp", ValueMap{{"key", 65}});
    world.eventually([&] { return world.received<VirtualKeyboard>().size() > before; });
  });
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ProcessExitDeathTest, ACallFromAnExitHandlerFindsNobodyAndBreaksNothing) {
  static ChannelWorld* left = nullptr;
  const int status = statusOfChild([this] {
    // Registered before the manager's static objects could know: runs after them? Either order must do.
    std::atexit([] {
      if (left != nullptr) left->reply("keyDown", ValueMap{{"key", 65}});
    });
    left = &begin({});
    std::atexit([] { left->reply("keyUp", ValueMap{{"key", 65}}); });
  });
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace mirn::test
