// A signal in the middle of input: what is held is let go, and the exit status tells of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>

#include "apps/common/stop_request.h"
#include "apps/mirnctl/answer_wait.h"
#include "tests/integration/apps/mirnctl_fixture.h"

namespace mirn {
namespace {

using testing::HasSubstr;

constexpr std::array<uint8_t, 6> kNoKeys{};

// Sends this process a signal, once, when the device's state is as wanted.
class SignalWhen {
 public:
  SignalWhen(VirtualMirn& device, int signal, const std::function<bool()>& wanted)
      : device_(device), listener_(device.addListener([this, signal, wanted](const VirtualMirnEvent& /*event*/) {
          if (!sent_ && wanted()) {
            sent_ = true;
            kill(getpid(), signal);
          }
        })) {}
  ~SignalWhen() {
    device_.removeListener(listener_);
    EXPECT_TRUE(sent_);
  }
  SignalWhen(const SignalWhen&) = delete;
  SignalWhen& operator=(const SignalWhen&) = delete;

 private:
  std::atomic<bool> sent_{false};
  VirtualMirn& device_;
  uint64_t listener_;
};

// A stop that is not heeded ends the test process, as it does a program.
class MirnctlStopTest : public MirnctlFixture {
 protected:
  MirnctlStopTest() {
    // A background job begins with some of them ignored.
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
      std::signal(signal, SIG_DFL);
    }
  }

  static std::string nameIn(int signal) { return "Stopped by " + std::string(signalName(signal)) + "."; }

  static bool dies(int signal) {
    struct sigaction present = {};
    return sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_DFL;
  }
};

TEST_F(MirnctlStopTest, TypingEndsWithEveryKeyLetGo) {
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
    // At this pace the whole text would take 20 seconds, with Shift held all the time.
    setFaults("delay=5@*/c3");
    const SignalWhen when(device(), signal, [] { return device().input().keys != kNoKeys; });
    EXPECT_EQ(runWords({"type", std::string(2000, 'A')}), 128 + signal);
    EXPECT_EQ(device().input().modifiers, 0);
    EXPECT_EQ(device().input().keys, kNoKeys);
    EXPECT_LT(received().size(), 2000U);
    EXPECT_EQ(said(), "mirnctl: " + nameIn(signal) + " Everything held was let go.\n");
    EXPECT_TRUE(dies(signal)) << "afterwards the signal means what it meant";
  }
}

TEST_F(MirnctlStopTest, ChordsEndWithEveryKeyLetGo) {
  setFaults("delay=5@*/c3");
  std::vector<std::string> words(1000, "ctrl+a");
  words.insert(words.begin(), "key");
  const SignalWhen when(device(), SIGINT, [] { return device().input().modifiers != 0; });
  EXPECT_EQ(runWords(words), 128 + SIGINT);
  EXPECT_EQ(device().input().modifiers, 0);
  EXPECT_EQ(device().input().keys, kNoKeys);
  EXPECT_LT(received().size(), 2000U);
}

TEST_F(MirnctlStopTest, TheWheelEndsWhereItIsWithEveryButtonLetGo) {
  setFaults("delay=5@*/c2");
  int64_t wheel = device().input().wheel;
  const SignalWhen when(device(), SIGTERM, [&] { return device().input().wheel > wheel + 2; });
  EXPECT_EQ(run("mouse wheel 1000 --at 300 400"), 128 + SIGTERM);
  EXPECT_LT(device().input().wheel, wheel + 1000);
  std::vector<VirtualMouse> records = pointerRecords();
  ASSERT_GE(records.size(), 3U);
  for (size_t i = records.size() - 3; i < records.size(); ++i) {
    EXPECT_EQ(records[i].wheel, 0) << "a release";
    EXPECT_TRUE(records[i].x == 300 && records[i].y == 400);
  }
}

TEST_F(MirnctlStopTest, ADeviceThatDoesNotAnswerTheReleaseIsSaid) {
  setFaults("refuse@3+/c3");
  const SignalWhen when(device(), SIGINT, [] { return device().input().modifiers != 0; });
  int status = runWords({"type", std::string(200, 'A')});
  EXPECT_NE(status, 0);
  EXPECT_THAT(said(), HasSubstr("The device didn't confirm that everything is let go."));
}

TEST_F(MirnctlStopTest, ASignalThatIsIgnoredStaysIgnored) {
  std::signal(SIGHUP, SIG_IGN);
  {
    const SignalWhen when(device(), SIGHUP, [] { return device().input().keys != kNoKeys; });
    EXPECT_EQ(run("type Hello"), 0);
  }
  struct sigaction present = {};
  sigaction(SIGHUP, nullptr, &present);
  EXPECT_EQ(present.sa_handler, SIG_IGN);
  std::signal(SIGHUP, SIG_DFL);
}

}  // namespace
}  // namespace mirn
