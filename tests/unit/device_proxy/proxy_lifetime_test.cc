// When a proxy goes: what still reaches the device, and what the destructor waits for.
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

const std::vector<std::string> kReleases{
    "keys 00 00 00 00 00 00 mod 00",
    "abs 0 0 lrm 000 wheel 0",  // left, right, middle button up
    "abs 0 0 lrm 000 wheel 0",
    "abs 0 0 lrm 000 wheel 0",
};

// A more urgent sending thread on a shared processor takes each record as soon as it is submitted: the kernel lets a
// normal thread preempt a SCHED_IDLE one at once. Threads started while this lives share the processor.
class OneProcessor {
 public:
  OneProcessor() {
    EXPECT_EQ(sched_getaffinity(0, sizeof before_, &before_), 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &before_)) {
        CPU_SET(cpu, &one);
        break;
      }
    }
    EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  }
  ~OneProcessor() {
    stepForward();
    sched_setaffinity(0, sizeof before_, &before_);
  }
  OneProcessor(const OneProcessor&) = delete;
  OneProcessor& operator=(const OneProcessor&) = delete;

  void stepBack() { setPolicy(SCHED_IDLE); }
  void stepForward() { setPolicy(SCHED_OTHER); }

 private:
  static void setPolicy(int policy) {
    const sched_param none{};
    EXPECT_EQ(sched_setscheduler(0, policy, &none), 0) << std::strerror(errno);
  }

  cpu_set_t before_;
};

// Another program's threads on that processor may take the sending thread's turn, so the chance is given until it is
// had.
constexpr int kChances = 500;

// Until the thread has begun and waits for something: the state behind the name in its stat file is S.
bool waitUntilAsleep(const CBaseThread& thread) {
  const auto deadline = std::chrono::steady_clock::now() + kTestPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string stat = readFile("/proc/self/task/" + std::to_string(thread.ThreadId()) + "/stat");
    const size_t name_end = stat.rfind(") ");
    if (name_end != std::string::npos && stat[name_end + 2] == 'S') return true;
    sched_yield();
  }
  return false;
}

class ProxyLifetimeTest : public ProxyTest {
 protected:
  // Holds the sending thread in its next keyboard exchange until `go_on`.
  struct InFlight {
    Signal reached;
    Signal go_on;
    std::atomic<bool> finished{false};
    std::atomic<int> writes{0};
  };

  void startWatched(std::function<void(std::span<const uint8_t>)> on_write) {
    plugIn({});
    watched_ = std::make_unique<WatchedHid>(std::move(on_write));
    proxy_ = std::make_unique<TestProxy>(&listener_);
    proxy_->initKeyMap();
    seen_ = mirn_->receivedCount();
  }

  // Gives the sending thread every chance to take what the destructor submits. Returns what arrived.
  std::vector<std::string> destroyBehindAnIdleThread(OneProcessor& processor) {
    processor.stepBack();
    EXPECT_TRUE(waitUntilAsleep(proxy_->send_thread()));
    proxy_.reset();
    processor.stepForward();
    return arrivedInAll();
  }

  std::vector<std::string> arrivedInAll() const {
    std::vector<std::string> lines;
    for (const VirtualReceived& received : mirn_->receivedAfter(seen_)) lines.push_back(describe(received.record));
    return lines;
  }

  std::unique_ptr<WatchedHid> watched_;
};

TEST_F(ProxyLifetimeTest, DestroyingWaitsForTheExchangeInFlightAndDropsEverythingBehindIt) {
  auto flight = std::make_shared<InFlight>();
  startWatched([flight](std::span<const uint8_t> report) {
    ++flight->writes;
    // Report number, head, length (2), index (2), checksum, command.
    if (report.size() < 8 || flight->reached.isSet() || flight->writes < 2) return;
    flight->reached.set();
    EXPECT_TRUE(flight->go_on.wait());
    flight->finished = true;
  });
  proxy_->KeyBoardDown(0, 'A');
  ASSERT_TRUE(flight->reached.wait());
  for (int i = 0; i < 1000; ++i) proxy_->KeyBoardUp(0, 0);
  // Its end tells that the destructor has closed the queue; only then may the exchange go on.
  proxy_->addTask(new MarkerTask([] { ADD_FAILURE() << "a dropped task ran"; }, [flight] { flight->go_on.set(); }));
  proxy_.reset();
  EXPECT_TRUE(flight->finished) << "the destructor did not wait";
  EXPECT_EQ(flight->writes, 2) << "the greeting and the exchange in flight";
  EXPECT_THAT(arrivedInAll(), ElementsAre("keys 04 00 00 00 00 00 mod 00"))
      << "with an exchange in flight none of the releases arrives";
  EXPECT_THAT(listener_.outcomes(), ElementsAre(Outcome{Outcome::Kind::kKeyboard, 0}))
      << "dropped tasks are not reported";
  EXPECT_EQ(VirtualHid::instance().openHandles(), 0u);
  watched_.reset();
}

// A long relative move is hundreds of exchanges; the destructor waits for one.
TEST_F(ProxyLifetimeTest, DestroyingCutsARelativeMoveBehindItsStepInFlight) {
  auto flight = std::make_shared<InFlight>();
  startWatched([flight](std::span<const uint8_t>) {
    if (++flight->writes != 2) return;  // the greeting, then the steps
    flight->reached.set();
    EXPECT_TRUE(flight->go_on.wait());
  });
  proxy_->Init({{0, 0, 32767, 32767}});
  proxy_->MouseMove(0, 0, true);  // held back
  proxy_->MouseMove(32767, 0, true);
  ASSERT_TRUE(flight->reached.wait());
  proxy_->addTask(new MarkerTask([] { ADD_FAILURE() << "a dropped task ran"; }, [flight] { flight->go_on.set(); }));
  proxy_.reset();
  EXPECT_THAT(arrivedInAll(), ElementsAre("rel 127 0 lrm 000 wheel 0")) << "one step of 259";
  EXPECT_THAT(listener_.outcomes(), ElementsAre(Outcome{Outcome::Kind::kMouse, -1}));
  watched_.reset();
}

TEST_F(ProxyLifetimeTest, ASilentDeviceHoldsTheDestructorForOneTimeOutOnly) {
  auto flight = std::make_shared<InFlight>();
  startWatched([flight](std::span<const uint8_t>) {
    if (++flight->writes != 2) return;  // the greeting, then the exchange in flight
    flight->reached.set();
    EXPECT_TRUE(flight->go_on.wait());
  });
  mirn_->setLatency(std::chrono::seconds(20), {});
  for (int i = 0; i < 50; ++i) proxy_->KeyBoardUp(0, 0);
  ASSERT_TRUE(flight->reached.wait());
  proxy_->addTask(new MarkerTask([] { ADD_FAILURE() << "a dropped task ran"; }, [flight] { flight->go_on.set(); }));
  const auto before = clock_.get().now();
  proxy_.reset();
  EXPECT_EQ(clock_.get().now() - before, std::chrono::milliseconds(200)) << "a keyboard exchange's time-out";
  EXPECT_THAT(listener_.outcomes(), ElementsAre(Outcome{Outcome::Kind::kKeyboard, -1}));
  EXPECT_THAT(arrivedInAll(), ElementsAre("keys 00 00 00 00 00 00 mod 00"));
  watched_.reset();
}

TEST_F(ProxyLifetimeTest, AnIdleSendingThreadThatGetsTheChanceDeliversTheReleases) {
  std::vector<std::string> expected = kReleases;
  expected[1] = "abs 0 0 lrm 010 wheel 0";  // left up, right still down
  OneProcessor processor;
  std::vector<std::string> releases;
  for (int round = 0; round < kChances && releases != expected; ++round) {
    start();
    proxy_->KeyBoardDown(0, 'A');
    proxy_->KeyBoardDown(0, 17);
    proxy_->MouseLButtonDown(5, 0);
    proxy_->MouseRButtonDown(5, 0);
    arrived();
    releases = destroyBehindAnIdleThread(processor);
  }
  EXPECT_EQ(releases, expected);
  EXPECT_EQ(mirn_->input().keys, (std::array<uint8_t, 6>{}));
  EXPECT_EQ(mirn_->input().modifiers, 0);
  EXPECT_EQ(mirn_->input().buttons, 0);
}

TEST_F(ProxyLifetimeTest, WhateverArrivesOfTheReleasesIsAFirstPartOfThem) {
  constexpr int kRounds = 200;
  OneProcessor processor;
  bool something = false;
  for (int round = 0; round < kRounds || (!something && round < kRounds + kChances); ++round) {
    start();
    proxy_->KeyBoardDown(0, 'A');
    arrived();
    const size_t heard = listener_.count();
    std::vector<std::string> last;
    if (round < kRounds) {
      proxy_.reset();
      last = arrivedInAll();
    } else {
      last = destroyBehindAnIdleThread(processor);
    }
    ASSERT_LE(last.size(), kReleases.size());
    EXPECT_TRUE(std::equal(last.begin(), last.end(), kReleases.begin())) << ::testing::PrintToString(last);
    EXPECT_THAT(listener_.outcomes(), SizeIs(heard + last.size()));
    something = something || !last.empty();
  }
  EXPECT_TRUE(something) << "never did any of them arrive";
}

TEST_F(ProxyLifetimeTest, ReleasingFirstAndWaitingForTheListenerLeavesNothingHeld) {
  start();
  proxy_->KeyBoardDown(0, 'A');
  proxy_->KeyBoardUp(0, 0);
  proxy_->drain();
  proxy_.reset();
  EXPECT_EQ(mirn_->input().keys, (std::array<uint8_t, 6>{}));
}

TEST_F(ProxyLifetimeTest, TheHeldMoveGoesAheadOfTheReleasesOrNotAtAll) {
  std::vector<std::string> expected = kReleases;
  expected.insert(expected.begin(), "abs 77 0 lrm 000 wheel 0");
  OneProcessor processor;
  bool all = false;
  for (int round = 0; round < kChances && !all; ++round) {
    start();
    proxy_->MouseMove(77, 0, false);
    const std::vector<std::string> last = destroyBehindAnIdleThread(processor);
    ASSERT_LE(last.size(), expected.size());
    EXPECT_TRUE(std::equal(last.begin(), last.end(), expected.begin())) << ::testing::PrintToString(last);
    all = last == expected;
  }
  EXPECT_TRUE(all) << "never did the move and the releases arrive";
}

TEST_F(ProxyLifetimeTest, ANewProxyStartsWithNothingHeld) {
  start();
  proxy_->KeyBoardDown(0, 'A');
  proxy_->KeyBoardDown(0, 17);
  proxy_->MouseLButtonDown(0, 0);
  proxy_->drain();
  proxy_.reset();
  proxy_ = std::make_unique<TestProxy>(&listener_);
  proxy_->initKeyMap();
  seen_ = mirn_->receivedCount();
  proxy_->KeyBoardDown(0, 'B');
  proxy_->MouseWheelUp(1, 0, 0);
  EXPECT_THAT(arrived(), ElementsAre("keys 05 00 00 00 00 00 mod 00", "abs 1 0 lrm 000 wheel -1"));
}

}  // namespace
}  // namespace mirn
