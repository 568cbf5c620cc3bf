#include "deps/pellum/base_thread.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/object_monitor.h"
#include "tests/unit/pellum/gate.h"

namespace mirn {
namespace {

using testing::HasSubstr;

uint32_t ownThreadId() {
  return static_cast<uint32_t>(::syscall(SYS_gettid));
}

// Records what happens and lets the test hold each turn of the loop.
class RecordingThread : public CBaseThread {
 public:
  ~RecordingThread() override {
    let_go.standOpen();
    Stop();
  }

  Gate in_loop;
  Gate let_go;
  std::atomic<int> turns{0};
  std::atomic<int> begins{0};
  std::atomic<int> exits{0};
  std::atomic<bool> ended_when_exiting{false};
  std::atomic<int> turns_left{1000000};
  std::function<void()> in_turn;

 protected:
  int ThreadLoop() override {
    ++turns;
    in_loop.letPass();
    let_go.pass();
    if (in_turn) {
      in_turn();
    }
    return --turns_left > 0 ? 1 : 0;
  }
  void OnBegin() override { ++begins; }
  void OnExit() override {
    ended_when_exiting = !IsRunning();
    ++exits;
  }
};

// Standard error for a scope, to be read while it is written.
class StandardErrorPipe {
 public:
  StandardErrorPipe() : before_(::dup(STDERR_FILENO)) {
    EXPECT_EQ(::pipe2(ends_, O_CLOEXEC), 0);
    EXPECT_EQ(::dup2(ends_[1], STDERR_FILENO), STDERR_FILENO);
  }
  ~StandardErrorPipe() {
    ::dup2(before_, STDERR_FILENO);
    for (const int end : {before_, ends_[0], ends_[1]}) ::close(end);
  }
  StandardErrorPipe(const StandardErrorPipe&) = delete;
  StandardErrorPipe& operator=(const StandardErrorPipe&) = delete;

  // Up to a line's end; what there is when nothing comes for a minute.
  std::string readLine() {
    std::string line;
    pollfd ready{ends_[0], POLLIN, 0};
    for (char byte = 0; byte != '\n' && ::poll(&ready, 1, 60000) > 0 && ::read(ends_[0], &byte, 1) == 1;) line += byte;
    return line;
  }

 private:
  const int before_;
  int ends_[2] = {-1, -1};
};

TEST(BaseThread, StopOnAThreadThatNeverRanReturnsOneAtOnce) {
  RecordingThread thread;
  EXPECT_EQ(thread.Stop(), 1);
  EXPECT_EQ(thread.Stop(5), 1);
  EXPECT_EQ(thread.WaitForStop(5), 1);
  EXPECT_EQ(thread.WaitThreadEnd(5), 1);
  EXPECT_EQ(thread.begins, 0);
  EXPECT_FALSE(thread.IsRunning());
}

TEST(BaseThread, RunningAgainReturnsOneAndStartsNothing) {
  RecordingThread thread;
  EXPECT_EQ(thread.Run(), 1);
  thread.in_loop.pass();
  const uint32_t id = thread.ThreadId();
  EXPECT_EQ(thread.Run(), 1);
  EXPECT_EQ(thread.Run_(true), 1);
  EXPECT_TRUE(thread.IsRunning());
  thread.let_go.standOpen();
  EXPECT_EQ(thread.Stop(), 1);
  EXPECT_EQ(thread.begins, 1);
  EXPECT_EQ(thread.exits, 1);
  EXPECT_EQ(thread.ThreadId(), id);
}

TEST(BaseThread, LoopRunsUntilItReturnsZero) {
  RecordingThread thread;
  thread.turns_left = 3;
  thread.let_go.letPass(3);
  EXPECT_EQ(thread.Run(), 1);
  EXPECT_EQ(thread.WaitThreadEnd(-1), 1);
  EXPECT_EQ(thread.turns, 3);
  EXPECT_EQ(thread.exits, 1);
  EXPECT_TRUE(thread.ended_when_exiting);
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_FALSE(thread.StopRequested());
}

TEST(BaseThread, EndedThreadCountsAsRunningUntilItIsStopped) {
  RecordingThread thread;
  thread.turns_left = 1;
  thread.let_go.letPass();
  thread.Run();
  thread.WaitThreadEnd(-1);
  EXPECT_EQ(thread.Run(), 1) << "the old run was not cleared yet";
  EXPECT_EQ(thread.begins, 1);
  EXPECT_EQ(thread.Stop(), 1);
  thread.let_go.letPass();
  EXPECT_EQ(thread.Run(), 1);
  EXPECT_EQ(thread.WaitThreadEnd(-1), 1);
  EXPECT_EQ(thread.begins, 2);
}

TEST(BaseThread, WaitForStopEndsALoopThatWouldGoOn) {
  RecordingThread thread;
  thread.Run();
  thread.in_loop.pass();
  std::thread stopper([&] { EXPECT_EQ(thread.WaitForStop(1), 1); });
  while (!thread.StopRequested()) {
    std::this_thread::yield();
  }
  thread.let_go.letPass();
  stopper.join();
  EXPECT_EQ(thread.turns, 1) << "the stop is seen before the next turn";
  EXPECT_EQ(thread.WaitForStop(1), 1) << "a second wait finds nothing to join";
}

TEST(BaseThread, StopClearsTheFlagsSoThatItCanRunAgain) {
  RecordingThread thread;
  thread.let_go.standOpen();
  for (int i = 1; i <= 5; ++i) {
    ASSERT_EQ(thread.Run(), 1);
    thread.in_loop.pass();
    ASSERT_EQ(thread.Stop(), 1);
    ASSERT_FALSE(thread.StopRequested());
    ASSERT_EQ(thread.begins, i);
    ASSERT_EQ(thread.exits, i);
  }
}

TEST(BaseThread, StoppingFromManyThreadsAtOnceJoinsOnce) {
  RecordingThread thread;
  thread.let_go.standOpen();
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(thread.Run(), 1);
    std::vector<std::thread> stoppers;
    for (int i = 0; i < 4; ++i) {
      stoppers.emplace_back([&] { EXPECT_EQ(thread.Stop(), 1); });
    }
    for (std::thread& stopper : stoppers) {
      stopper.join();
    }
    ASSERT_FALSE(thread.IsRunning());
  }
}

// Several Stops beside a Run: a request that a new run has cleared must be made again, or Stop would join a thread that
// nobody ends. A failure is a hang.
TEST(BaseThread, StoppingWhileSomebodyStartsItAnewEndsTheNewRunToo) {
  class Yielding : public CBaseThread {
   public:
    ~Yielding() override { Stop(); }

   protected:
    int ThreadLoop() override {
      std::this_thread::yield();
      return 1;
    }
  };
  constexpr int kRounds = 200;
  constexpr int kStoppers = 3;
  Yielding thread;
  std::barrier round_begins(kStoppers + 1);
  std::atomic<int> stopped{0};
  std::vector<std::thread> stoppers;
  for (int i = 0; i < kStoppers; ++i) {
    stoppers.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        round_begins.arrive_and_wait();
        EXPECT_EQ(thread.Stop(), 1);
        ++stopped;
      }
    });
  }
  for (int round = 1; round <= kRounds; ++round) {
    EXPECT_EQ(thread.Run(), 1);
    round_begins.arrive_and_wait();
    // One Stop each, so that nobody else ends the run that a Stop waits for.
    while (stopped < round * kStoppers) {
      EXPECT_EQ(thread.Run(), 1);
    }
  }
  for (std::thread& stopper : stoppers) {
    stopper.join();
  }
  EXPECT_EQ(thread.Stop(), 1);
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_FALSE(thread.StopRequested());
}

// A plain class: it can be destroyed while its run-once thread is known to have left.
class OnceThread : public CBaseThread {
 public:
  std::atomic<int> turns{0};
  Gate let_go;

 protected:
  int ThreadLoop() override {
    ++turns;
    let_go.pass();
    return 1;
  }
};

TEST(BaseThread, RunOnceMakesASingleTurn) {
  OnceThread thread;
  EXPECT_TRUE(thread.HasLeft());
  EXPECT_EQ(thread.Run_(true), 1);
  EXPECT_FALSE(thread.HasLeft());
  thread.let_go.letPass();
  while (!thread.HasLeft()) {
    std::this_thread::yield();
  }
  EXPECT_EQ(thread.turns, 1);
  EXPECT_FALSE(thread.IsRunning());
}

TEST(BaseThread, WaitingForARunOnceThreadIsReportedAndChangesNothing) {
  OnceThread thread;
  thread.Run_(true);
  testing::internal::CaptureStderr();
  EXPECT_EQ(thread.WaitForStop(10), 0);
  EXPECT_EQ(thread.WaitThreadEnd(10), 0);
  EXPECT_EQ(thread.Stop(), 1);
  const std::string report = testing::internal::GetCapturedStderr();
  EXPECT_THAT(report, HasSubstr("BaseThread"));
  EXPECT_THAT(report, HasSubstr("run_once == false"));
  EXPECT_FALSE(thread.StopRequested());
  EXPECT_TRUE(thread.IsRunning());
  thread.let_go.letPass();
  while (!thread.HasLeft()) {
    std::this_thread::yield();
  }
}

TEST(BaseThread, RunOnceObjectMayDeleteItselfAtItsEnd) {
  static Gate& gone = *new Gate;  // never destroyed: the thread may still be leaving it when the process ends
  class SelfDeleting : public CBaseThread {
   protected:
    int ThreadLoop() override { return 0; }
    void OnExit() override { delete this; }

   public:
    ~SelfDeleting() override { gone.letPass(); }
  };
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ((new SelfDeleting)->Run_(true), 1);
    gone.pass();
  }
}

TEST(BaseThread, JoinableObjectMayDeleteItselfAtItsEnd) {
  static Gate& gone = *new Gate;  // never destroyed: the thread may still be leaving it when the process ends
  class SelfDeleting : public CBaseThread {
   protected:
    int ThreadLoop() override { return 0; }
    void OnExit() override { delete this; }

   public:
    ~SelfDeleting() override { gone.letPass(); }
  };
  EXPECT_EQ((new SelfDeleting)->Run(), 1);
  gone.pass();
}

TEST(BaseThread, DestructorWaitsForARunOnceThreadAndReportsIt) {
  class Plain : public CBaseThread {
   public:
    Gate* in_exit = nullptr;
    Gate* let_go = nullptr;
    std::atomic<bool>* leaving = nullptr;

   protected:
    int ThreadLoop() override { return 1; }
    void OnExit() override {
      Gate* const wait_for = let_go;
      std::atomic<bool>* const at_last = leaving;
      in_exit->letPass();
      wait_for->pass();
      *at_last = true;
    }
  };
  Gate in_exit;
  Gate let_go;
  std::atomic<bool> leaving{false};
  StandardErrorPipe errors;
  std::string report;
  std::thread releaser;
  {
    Plain thread;
    thread.in_exit = &in_exit;
    thread.let_go = &let_go;
    thread.leaving = &leaving;
    thread.Run_(true);
    in_exit.pass();
    // What the destructor reports comes before its waiting; without a report the thread goes on in the end.
    releaser = std::thread([&] {
      report = errors.readLine();
      let_go.letPass();
    });
  }
  EXPECT_TRUE(leaving) << "the destructor did not wait";
  releaser.join();
  EXPECT_THAT(report, HasSubstr("has left before destruction"));
}

TEST(BaseThread, DestructorJoinsAThreadThatHasEnded) {
  class Ending : public CBaseThread {
   protected:
    int ThreadLoop() override { return 0; }
  };
  testing::internal::CaptureStderr();
  {
    Ending thread;
    thread.Run();
    while (!thread.HasLeft()) {
      std::this_thread::yield();
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(BaseThread, WaitingForItselfIsReportedAndDoesNotHang) {
  RecordingThread thread;
  std::atomic<int> wait_end{-1};
  std::atomic<int> wait_stop{-1};
  thread.in_turn = [&] {
    wait_end = thread.WaitThreadEnd(-1);
    wait_stop = thread.WaitForStop(-1);
  };
  thread.let_go.letPass(2);
  testing::internal::CaptureStderr();
  thread.Run();
  thread.WaitThreadEnd(-1);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("waited for from another thread"));
  EXPECT_EQ(wait_end, 0);
  EXPECT_EQ(wait_stop, 0);
  EXPECT_EQ(thread.turns, 1) << "its own stop request counts all the same";
  EXPECT_EQ(thread.Stop(), 1);
}

TEST(BaseThread, KnowsWhoStartedItAndWhoItIs) {
  RecordingThread thread;
  EXPECT_EQ(thread.OwnerThreadId(), 0U);
  std::atomic<uint32_t> seen{0};
  thread.in_turn = [&] { seen = ownThreadId(); };
  thread.turns_left = 1;
  thread.let_go.letPass();
  thread.Run();
  thread.WaitThreadEnd(-1);
  EXPECT_EQ(thread.OwnerThreadId(), ownThreadId());
  EXPECT_EQ(thread.ThreadId(), seen);
  EXPECT_NE(thread.ThreadId(), thread.OwnerThreadId());
}

TEST(BaseThread, CarriesItsNameFromTheNextStartOn) {
  RecordingThread thread;
  thread.SetThreadName("a name that is too long");
  thread.SetThreadName(nullptr);
  char name[32] = "";
  thread.in_turn = [&] { pthread_getname_np(pthread_self(), name, sizeof name); };
  thread.turns_left = 1;
  thread.let_go.letPass();
  thread.Run();
  thread.WaitThreadEnd(-1);
  EXPECT_STREQ(name, "a name that is ");
}

TEST(BaseThread, NameMayBeSetOnTheThreadWhileItIsJoined) {
  RecordingThread thread;
  thread.in_turn = [&] { thread.SetThreadName("other"); };
  thread.Run();
  thread.in_loop.pass();
  std::thread stopper([&] { thread.Stop(); });
  while (!thread.StopRequested()) {
    std::this_thread::yield();
  }
  thread.let_go.letPass();
  stopper.join();
  EXPECT_FALSE(thread.IsRunning());
}

TEST(BaseThread, WaitForTimeOutSleepsOnlyWhileItRuns) {
  using Clock = std::chrono::steady_clock;
  RecordingThread thread;
  auto start = Clock::now();
  EXPECT_EQ(thread.WaitForTimeOut(60000), 1);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  thread.Run();
  start = Clock::now();
  EXPECT_EQ(thread.WaitForTimeOut(30), 1);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
  EXPECT_EQ(thread.WaitForTimeOut(-1), 1);
  EXPECT_EQ(thread.WaitForTimeOut(0), 1);
}

TEST(BaseThread, FailedCreationReturnsZeroAndLeavesItStopped) {
  pthread_attr_t normal;
  pthread_attr_t huge;
  ASSERT_EQ(pthread_getattr_default_np(&normal), 0);
  pthread_attr_init(&huge);
  pthread_attr_setstacksize(&huge, size_t{1} << 46);  // more than the address space has
  RecordingThread thread;
  ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
  const int result = thread.Run();
  pthread_setattr_default_np(&normal);
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_TRUE(thread.HasLeft());
  EXPECT_EQ(thread.Stop(), 1);
  thread.let_go.standOpen();
  EXPECT_EQ(thread.Run(), 1) << "it can run when threads can be created again";
  EXPECT_EQ(thread.Stop(), 1);
  pthread_attr_destroy(&normal);
  pthread_attr_destroy(&huge);
}

TEST(BaseThread, ObjectsAreCounted) {
  const auto& counter = OBJECT_MONITOR<CBaseThread>::Counter();
  const int64_t created = counter.NewCount();
  const int64_t deleted = counter.DeleteCount();
  { const RecordingThread thread; }
  EXPECT_EQ(counter.NewCount(), created + 1);
  EXPECT_EQ(counter.DeleteCount(), deleted + 1);
}

// The flags are read by everybody while one thread starts and stops: the thread sanitizer judges.
TEST(BaseThread, FlagsMayBeReadFromAnyThread) {
  RecordingThread thread;
  thread.let_go.standOpen();
  std::atomic<bool> done{false};
  std::atomic<int> reads{0};
  std::thread reader([&] {
    while (!done) {
      reads += thread.IsRunning() || thread.StopRequested() || thread.HasLeft() || thread.ThreadId() != 0 ? 1 : 0;
    }
  });
  for (int i = 0; i < 50; ++i) {
    thread.Run();
    thread.Stop();
  }
  done = true;
  reader.join();
  EXPECT_FALSE(thread.IsRunning());
}

}  // namespace
}  // namespace mirn
