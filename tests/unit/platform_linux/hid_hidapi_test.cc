// How the hidapi back end reads. hidapi's own read is replaced in this program: it takes its turns from a script.
#include <gtest/gtest.h>
#include <hidapi/hidapi.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <vector>

#include "platform/hid_functions.h"
#include "virtual/virtual_clock.h"

namespace mirn {
namespace {

using std::chrono::microseconds;

struct Turn {
  int result;
  int error;           // errno afterwards
  microseconds takes;  // on the clock
};

struct Script {
  std::deque<Turn> turns;
  std::vector<int> time_outs;  // as they were asked for, in milliseconds
};

Script& script() {
  static Script instance;
  return instance;
}

class HidapiRead : public testing::Test {
 protected:
  HidapiRead() { script() = {}; }
  static void plan(int result, int error, microseconds takes = microseconds(0)) {
    script().turns.push_back({result, error, takes});
  }
  static int read(int milliseconds) {
    unsigned char buffer[64] = {};
    return defaultHidFunctions().read_timeout(nullptr, buffer, sizeof buffer, milliseconds);
  }
  static const std::vector<int>& timeOuts() { return script().time_outs; }

  ScopedVirtualClock clock_;
};

TEST_F(HidapiRead, ASignalDuringTheWaitCostsNoAnswer) {
  plan(-1, EINTR, microseconds(300));
  plan(-1, EINTR, microseconds(19000));
  plan(64, 0);
  EXPECT_EQ(read(50), 64);
  EXPECT_EQ(timeOuts(), (std::vector<int>{50, 50, 31})) << "the rest of the time, rounded up";
}

TEST_F(HidapiRead, SignalsDoNotMakeTheWaitLonger) {
  plan(-1, EINTR, microseconds(80000));
  plan(0, 0);
  EXPECT_EQ(read(50), 0);
  EXPECT_EQ(timeOuts(), (std::vector<int>{50, 0})) << "a last look";
}

TEST_F(HidapiRead, WaitingForEverGoesOnAfterASignal) {
  plan(-1, EINTR, microseconds(5000));
  plan(64, 0);
  EXPECT_EQ(read(-1), 64);
  EXPECT_EQ(timeOuts(), (std::vector<int>{-1, -1}));
}

TEST_F(HidapiRead, AFailureEndsIt) {
  plan(-1, EIO);
  EXPECT_EQ(read(50), -1);
  EXPECT_EQ(timeOuts(), std::vector<int>{50});
}

TEST_F(HidapiRead, AnOldErrorNumberIsNoSignal) {
  plan(-1, 0);  // hidapi fails without a system call's error
  errno = EINTR;
  EXPECT_EQ(read(50), -1);
  EXPECT_EQ(timeOuts(), std::vector<int>{50});
}

TEST_F(HidapiRead, ATimeOutIsNoFailure) {
  plan(0, EINTR);
  EXPECT_EQ(read(50), 0);
  EXPECT_EQ(timeOuts(), std::vector<int>{50});
}

}  // namespace
}  // namespace mirn

// Takes hidapi's place.
int hid_read_timeout(hid_device* /*device*/, unsigned char* /*data*/, size_t /*length*/, int milliseconds) {
  mirn::Script& script = mirn::script();
  script.time_outs.push_back(milliseconds);
  if (script.turns.empty()) {
    ADD_FAILURE() << "one read more than there are turns";
    return 0;
  }
  const mirn::Turn turn = script.turns.front();
  script.turns.pop_front();
  mirn::clock().sleepFor(turn.takes);
  if (turn.error != 0) {
    errno = turn.error;
  }
  return turn.result;
}
