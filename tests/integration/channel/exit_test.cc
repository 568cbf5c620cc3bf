// A process that ends in the middle of everything: cleanly, and without a word to the device.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "platform/hid_functions.h"
#include "plugin/mirn_host.h"
#include "plugin/registration.h"
#include "tests/integration/channel/channel_world.h"
#include "virtual/wire.h"

namespace mirn::test {
namespace {

// What goes to the device is also written here, as it travels.
int g_record = -1;

int recordingWrite(hid_device* device, const unsigned char* data, size_t length) {
  if (write(g_record, data, length) != static_cast<ssize_t>(length)) abort();
  return VirtualHid::functions().write(device, data, length);
}

HidFunctions recordingFunctions() {
  HidFunctions functions = VirtualHid::functions();
  functions.write = recordingWrite;
  return functions;
}

// A child's exit statuses besides 0. What a child finds out reaches its parent by these alone.
constexpr int kNoConnection = 8;
constexpr int kStateNotReached = 9;
constexpr int kAnsweredWrongly = 10;

// Ends the child at once unless it holds.
void demand(bool holds, int status) {
  if (!holds) _exit(status);
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

// A world of a child; here for the calls that come after the end.
ChannelWorld* g_left = nullptr;

// What a child's main thread still does while another thread has called exit().
enum class MainThread { kUninvolved, kWorking, kDone };
std::atomic<MainThread> g_main_thread{MainThread::kUninvolved};

// Goes after every other static object: there is no manager any more, unless the main thread is still at work with it.
struct AfterTheManager {
  ~AfterTheManager() {
    if (g_main_thread != MainThread::kUninvolved) {
      while (g_main_thread != MainThread::kDone) std::this_thread::yield();
    } else if (g_left != nullptr)
      demand(g_left->reply("keyDown", ValueMap{{"key", 67}}) == "not-implemented", kAnsweredWrongly);
  }
};
[[gnu::init_priority(101)]] AfterTheManager g_after_the_manager;

// Named so that it runs first: its children are forked while this process has no other thread.
class ProcessExitDeathTest : public testing::Test {
 protected:
  ProcessExitDeathTest() { path_ = testing::TempDir() + "exit" + std::to_string(getpid()); }
  ~ProcessExitDeathTest() override { std::filesystem::remove(path_); }

  // Everything below runs in the child. The objects stay alive until the process has ended.
  ChannelWorld& begin(const WorldOptions& options) {
    g_record = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    auto* world = new ChannelWorld(options);
    static const HidFunctions functions = recordingFunctions();
    hostInstallHidFunctions(&functions);
    demand(world->reply("initKmProxy") == success(true), kNoConnection);
    return *world;
  }

  // The frames that the child has sent, behind the handshake and the question for information.
  std::vector<WireFrame> sent() {
    std::ifstream file(path_, std::ios::binary);
    WireParser parser;
    std::vector<WireFrame> frames;
    for (std::istreambuf_iterator<char> byte(file), end; byte != end; ++byte) {
      if (parser.take(static_cast<uint8_t>(*byte))) frames.push_back(parser.frame());
    }
    EXPECT_FALSE(parser.inFrame());
    EXPECT_EQ(parser.counters().bad_frames, 0U);
    EXPECT_GE(frames.size(), 2U);
    if (frames.size() < 2) return {};
    EXPECT_EQ(frames[0].command, kShakeHand);
    EXPECT_EQ(frames[1].command, kGetInfo);
    frames.erase(frames.begin(), frames.begin() + 2);
    return frames;
  }

  // The case holds key 65 all the time, and no button was touched: a report without the key, or one of the pointer,
  // would be a release that the exit has sent.
  void expectNoRelease() {
    for (const WireFrame& frame : sent()) {
      ASSERT_EQ(frame.command, kKeyboard);
      ASSERT_EQ(frame.payload.size(), 7U);
      EXPECT_EQ(frame.payload[kFirstKey], kUsageOfA);
    }
  }

  static constexpr uint8_t kShakeHand = 1;
  static constexpr uint8_t kAbsoluteMouse = 2;
  static constexpr uint8_t kKeyboard = 3;
  static constexpr uint8_t kFirmware = 7;
  static constexpr uint8_t kGetInfo = 9;
  static constexpr size_t kFirstKey = 1;
  static constexpr uint8_t kUsageOfA = 0x04;

  std::string path_;
};

void expectClean(int status) {
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ProcessExitDeathTest, WithAKeyAndAButtonHeldSendsNoRelease) {
  expectClean(statusOfChild([this] {
    ChannelWorld& world = begin({});
    world.reply("keyDown", ValueMap{{"key", 65}});
    world.reply("mouseEventButtons", ValueMap{{"x", 1}, {"y", 1}, {"type", "lbdown"}});
    demand(world.eventually([&] { return !world.received<VirtualMouse>().empty(); }), kStateNotReached);
  }));
  // The key and the button; and that was all.
  const std::vector<WireFrame> frames = sent();
  ASSERT_EQ(frames.size(), 2U);
  EXPECT_EQ(frames[0].command, kKeyboard);
  EXPECT_EQ(frames[1].command, kAbsoluteMouse);
}

TEST_F(ProcessExitDeathTest, WithTrafficRunningIsCleanAndSendsNoRelease) {
  for (size_t round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    expectClean(statusOfChild([this, round] {
      WorldOptions options;
      options.mirn.latency = std::chrono::milliseconds(20);
      ChannelWorld& world = begin(options);
      world.value("createTexture");
      demand(world.reply("open") == success(true), kAnsweredWrongly);
      demand(world.reply("isVidPidExist") == success(true), kAnsweredWrongly);
      world.reply("keyDown", ValueMap{{"key", 65}});
      for (int i = 0; i < 400; ++i) world.reply(i % 2 == 0 ? "keyDown" : "keyUp", ValueMap{{"key", 66}});
      demand(world.eventually([&] { return world.received<VirtualKeyboard>().size() > round; }), kStateNotReached);
    }));
    EXPECT_GT(sent().size(), round);
    EXPECT_LT(sent().size(), 401U) << "the traffic was over before the exit";
    expectNoRelease();
  }
}

TEST_F(ProcessExitDeathTest, InTheMiddleOfAnUpgradeIsCleanAndSendsChunksAlone) {
  constexpr size_t kChunks = 200;
  const std::string image = path_ + ".bin";
  std::ofstream(image) << std::string(kChunks * 1024, 'x');
  expectClean(statusOfChild([this, &image] {
    WorldOptions options;
    options.mirn.latency = std::chrono::milliseconds(20);
    ChannelWorld& world = begin(options);
    demand(world.reply("reqUpgradeFirmware", ValueMap{{"path", image}}) == success(1), kAnsweredWrongly);
    demand(world.eventually([&] { return world.received<VirtualFirmwareChunk>().size() > 2; }), kStateNotReached);
  }));
  const std::vector<WireFrame> frames = sent();
  EXPECT_GT(frames.size(), 2U);
  EXPECT_LT(frames.size(), kChunks) << "the upgrade was over before the exit";
  for (const WireFrame& frame : frames) EXPECT_EQ(frame.command, kFirmware);
  std::filesystem::remove(image);
}

TEST_F(ProcessExitDeathTest, WhileTheDeviceIsSilentIsCleanAndSendsNoRelease) {
  expectClean(statusOfChild([this] {
    ChannelWorld& world = begin({});
    FaultPlan plan;
    std::string error;
    demand(FaultPlan::parse("drop@*", &plan, &error), kStateNotReached);
    world.mirn().setFaultPlan(plan);
    const size_t before = world.received<VirtualKeyboard>().size();
    world.reply("keyDown", ValueMap{{"key", 65}});
    for (int i = 0; i < 10; ++i) world.reply(i % 2 == 0 ? "keyDown" : "keyUp", ValueMap{{"key", 66}});
    demand(world.eventually([&] { return world.received<VirtualKeyboard>().size() > before; }), kStateNotReached);
  }));
  EXPECT_GE(sent().size(), 1U);
  expectNoRelease();
}

// Handlers and static objects go in the reverse order of their coming: first the handlers, with the manager still
// there, at last an object from before it, which finds nobody.
TEST_F(ProcessExitDeathTest, CallsBeforeAndAfterTheManagersEndBreakNothing) {
  expectClean(statusOfChild([this] {
    std::atexit([] { demand(g_left->reply("keyDown", ValueMap{{"key", 66}}) == success(), kAnsweredWrongly); });
    g_left = &begin({});
    std::atexit([] { demand(g_left->reply("keyDown", ValueMap{{"key", 65}}) == success(), kAnsweredWrongly); });
  }));
  EXPECT_LE(sent().size(), 2U) << "the call that found nobody must not reach the device";
  expectNoRelease();
}

// The main thread waits for an answer of the device; the process ends meanwhile, and it goes on to the very end.
TEST_F(ProcessExitDeathTest, OnAnotherThreadLeavesACommandItsManager) {
  expectClean(statusOfChild([this] {
    ChannelWorld& world = begin({});
    demand(world.reply("open") == success(true), kAnsweredWrongly);
    demand(world.reply("isVidPidExist") == success(true), kAnsweredWrongly);
    FaultPlan plan;
    std::string error;
    demand(FaultPlan::parse("drop@*", &plan, &error), kStateNotReached);
    world.mirn().setFaultPlan(plan);
    g_main_thread = MainThread::kWorking;
    std::thread([&world] {
      while (world.received<VirtualHandshake>().size() < 2) std::this_thread::yield();
      std::exit(0);
    }).detach();
    demand(world.reply("initKmProxy") == success(false), kAnsweredWrongly);
    demand(world.reply("getUpgradeProgress") == success(ValueList{}), kAnsweredWrongly);
    demand(world.reply("setVideoQuality", ValueMap{{"quality", "720P"}}) == success(true), kAnsweredWrongly);
    demand(world.reply("getSize") == success(ValueMap{{"width", 1280.0}, {"height", 720.0}}), kAnsweredWrongly);
    g_main_thread = MainThread::kDone;
    while (true) pause();  // up to the end on the other thread
  }));
}

}  // namespace
}  // namespace mirn::test
