// mirn-console on the kernel's own device, in an X server: what a person sees on the screen, and what the computer
// behind the Mirn gets from real key and pointer events.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/settings.h"
#include "tests/vm/child_program.h"
#include "tests/vm/kernel_mirn.h"
#include "tests/vm/x_screen.h"

namespace mirn {
namespace {

constexpr const char* kDisplay = ":77";
constexpr const char* kFolder = "/dev/shm/console";
constexpr const char* kScreenFile = "/dev/shm/console/Xvfb_screen0";
// An emulated machine draws a first window in many seconds.
constexpr std::chrono::seconds kPatience{50};

// A program that is there until the end of the scope, and never longer than this process.
class Background {
 public:
  explicit Background(std::vector<std::string> command) {
    command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL", "--"});
    std::vector<char*> raw;
    raw.reserve(command.size() + 1);
    for (std::string& word : command) raw.push_back(word.data());
    raw.push_back(nullptr);
    EXPECT_EQ(::posix_spawnp(&child_, raw[0], nullptr, nullptr, raw.data(), environ), 0) << command[4];
  }
  ~Background() {
    if (child_ <= 0) return;
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  // Its exit status, or minus the signal that ended it; empty when it goes on.
  std::optional<int> waitForEnd() {
    int status = 0;
    if (!waitFor([&] { return ::waitpid(child_, &status, WNOHANG) == child_; }, kPatience)) return std::nullopt;
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t child_ = -1;
};

class ConsoleOnKernel : public KernelTest {
 protected:
  static constexpr int kWidth = 1280;
  static constexpr int kHeight = 720;

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(KernelTest::SetUp());
    std::filesystem::remove_all(kFolder);
    std::filesystem::create_directories(kFolder);
    std::filesystem::permissions(kFolder, std::filesystem::perms::owner_all);
    for (const auto& [name, value] : std::vector<std::array<const char*, 2>>{{"DISPLAY", kDisplay},
                                                                             {"GDK_BACKEND", "x11"},
                                                                             {"HOME", kFolder},
                                                                             {"XDG_RUNTIME_DIR", kFolder},
                                                                             {"XDG_CONFIG_HOME", kFolder},
                                                                             {"GTK_A11Y", "none"},
                                                                             {"GSK_RENDERER", "cairo"},
                                                                             {"LIBGL_ALWAYS_SOFTWARE", "1"}}) {
      ::setenv(name, value, 1);
    }
    // Large enough for a picture of 720 rows in its own size.
    ConsoleSettings settings;
    settings.quality = "720P";
    settings.window_width = 1360;
    settings.window_height = 860;
    std::string error;
    ASSERT_TRUE(saveSettings(settingsPath(), settings, &error)) << error;
    server_.emplace(std::vector<std::string>{"Xvfb", kDisplay, "-screen", "0", "1400x940x24", "-nolisten", "tcp", "-r",
                                             "-fbdir", kFolder});
    ASSERT_TRUE(waitFor([] { return xdotool("getmouselocation"); }));
    say("the X server is there");
    manager_.emplace(std::vector<std::string>{"openbox", "--sm-disable"});
  }
  // What was on the screen stays with the log of a failed case.
  void TearDown() override {
    const char* share = std::getenv("MIRN_VM_SHARE");
    if (!HasFailure() || share == nullptr) return;
    std::error_code error;
    std::filesystem::copy_file(kScreenFile, std::string(share) + "/console-screen.xwd",
                               std::filesystem::copy_options::overwrite_existing, error);
  }

  static bool xdotool(const std::string& arguments) {
    return std::system(("timeout -k 2 20 xdotool " + arguments + " > /dev/null 2>&1").c_str()) == 0;
  }
  std::optional<StripContent> strip() { return screen_.strip(kWidth, kHeight); }
  // Waits until the screen shows the target with the input that it has now, in a frame after `frame`.
  bool showsTheTarget(uint32_t frame = 0) {
    return waitFor(
        [&] {
          const auto shown = strip();
          return shown && shown->frame_number > frame && shown->input_digest == device_.target().inputState().digest();
        },
        kPatience);
  }
  // Clicks into the picture until the target has got it: input is held back until the console has found picture and
  // keyboard at the same place.
  bool clickArrives() {
    const size_t before = device_.target().clicks().size();
    return waitFor(
        [&] {
          return xdotool("mousemove " + std::to_string(screen_.left() + kWidth / 4) + " " +
                         std::to_string(screen_.top() + kHeight / 4) + " click 1") &&
                 waitFor([&] { return device_.target().clicks().size() > before; }, std::chrono::seconds(2));
        },
        kPatience);
  }
  bool holds(uint8_t usage) {
    return waitFor([&] { return device_.target().inputState().keys[0] == usage; }, kPatience);
  }
  // A silent case is taken for hung.
  void say(const char* text) {
    const auto passed = std::chrono::steady_clock::now() - begun_;
    std::cout << std::chrono::duration_cast<std::chrono::seconds>(passed).count() << " s: " << text << std::endl;
  }

  const std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();

  KernelMirn device_;
  XScreen screen_{kScreenFile};
  std::optional<Background> server_;
  std::optional<Background> manager_;
  std::optional<Background> console_;  // a member, so that a failed case's screen still shows it
};

TEST_F(ConsoleOnKernel, ShowsTheTargetAndPlaysKeysIntoItAlsoAfterReplugging) {
  constexpr uint8_t kUsageA = 0x04;
  constexpr uint8_t kUsageB = 0x05;
  device_.plug();
  ASSERT_TRUE(waitFor(deviceIsBound));
  console_.emplace(std::vector<std::string>{builtFile("bin/mirn-console")});
  ASSERT_TRUE(waitFor([] { return xdotool("search --onlyvisible --name 'Mirn Console'"); }, kPatience));
  say("the window is there");
  ASSERT_TRUE(showsTheTarget());
  say("the picture is on the screen");
  ASSERT_TRUE(clickArrives());
  ASSERT_TRUE(xdotool("keydown a"));
  EXPECT_TRUE(holds(kUsageA));
  EXPECT_TRUE(showsTheTarget()) << "the held key";
  ASSERT_TRUE(xdotool("keyup a"));
  EXPECT_TRUE(holds(0));
  EXPECT_EQ(device_.target().text(), "a");
  say("typed");

  device_.unplug();
  ASSERT_TRUE(waitFor(busIsEmpty));
  const uint32_t last = device_.target().nextFrameNumber();
  device_.plug();
  ASSERT_TRUE(showsTheTarget(last)) << "the console takes the picture up by itself";
  say("the picture is back");
  ASSERT_TRUE(clickArrives());
  ASSERT_TRUE(xdotool("keydown b"));
  EXPECT_TRUE(holds(kUsageB));
  ASSERT_TRUE(xdotool("keyup b"));
  EXPECT_TRUE(holds(0));
  EXPECT_EQ(device_.target().text(), "ab");

  ASSERT_TRUE(xdotool("key Control_R"));  // gives the keyboard back
  ASSERT_TRUE(xdotool("key ctrl+q"));
  EXPECT_EQ(console_->waitForEnd(), 0);
}

}  // namespace
}  // namespace mirn
