// Long mixtures on the virtual clock. MIRN_SOAK multiplies the counts; under the sanitizers they are smaller.
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/logger/flogger.h"
#include "tests/unit/device_proxy/proxy_fixture.h"
#include "tests/unit/device_proxy/proxy_mixture.h"

namespace mirn {
namespace {

int soak() {
  const char* text = std::getenv("MIRN_SOAK");
  return text == nullptr ? 1 : std::max(1, std::atoi(text));
}

#ifdef MIRN_SANITIZED
constexpr int kBatches = 5;
constexpr int kProxies = 500;
#else
constexpr int kBatches = 100;
constexpr int kProxies = 10000;
#endif
constexpr int kOperationsInABatch = 10000;

// An outcome, and how much the device had received in all when it was told.
struct Heard {
  uint8_t kind = 0;
  bool failed = false;
  uint64_t received = 0;
};

// Every outcome in order, with results that can only be these.
class StressListener : public IKeyMouseListener {
 public:
  explicit StressListener(const VirtualMirn& mirn) : mirn_(mirn) {}
  void OnUpgradeStep(uint16_t, uint16_t) override { ADD_FAILURE(); }
  void OnSendMouseResult(int result) override { add(kMouseTask, result); }
  void OnSendKeyboardResult(int result) override { add(kKeyboardTask, result); }
  void OnSendUpgradeResult(int result, uint16_t id, uint16_t total) override {
    EXPECT_LT(id, 2);
    EXPECT_EQ(total, kMixtureChunks);
    add(kUpgradeTask, result);
  }
  void OnSendFirmwareHandSharkeResult(int result) override { add(kNewFirmwareHandshakeTask, result); }

  // Only while the queue is empty.
  std::vector<Heard> take() { return std::move(heard_); }

 private:
  void add(uint32_t kind, int result) {
    EXPECT_TRUE(result == 0 || result == -1) << result;
    heard_.push_back({static_cast<uint8_t>(kind), result != 0, mirn_.receivedCount()});
  }

  const VirtualMirn& mirn_;
  std::vector<Heard> heard_;
};

// A task as it went: what was to be sent, and what the device has received of it.
struct Played {
  MixtureTask task;
  bool failed = false;
  std::vector<uint64_t> arrived;
  bool interrupted = false;  // somebody else's exchange stands between two of its own

  bool whole() const { return arrived == task.records; }
  bool arrivedFromTheStart() const {
    return arrived.size() <= task.records.size() && std::equal(arrived.begin(), arrived.end(), task.records.begin());
  }
  bool arrivedInOrder() const {
    auto at = task.records.begin();
    for (const uint64_t record : arrived) {
      at = std::find(at, task.records.end(), record);
      if (at == task.records.end()) return false;
      ++at;
    }
    return true;
  }
};

struct Totals {
  uint64_t failures = 0;
  uint64_t cut_moves = 0;    // that went on until a step failed
  uint64_t whole_moves = 0;  // of several steps
  uint64_t interrupted_moves = 0;
  uint64_t missing_records = 0;

  void count(const Played& played) {
    const bool long_move = played.task.records.size() > 1;
    failures += played.failed ? 1 : 0;
    cut_moves += long_move && played.arrived.size() > 1 && !played.whole() ? 1 : 0;
    whole_moves += long_move && played.whole() ? 1 : 0;
    interrupted_moves += played.interrupted ? 1 : 0;
    missing_records += played.task.records.size() - played.arrived.size();
  }
};

// Asks for information and LED as long as it lives: now and then, so that the input stays the main thing.
class Questioner {
 public:
  explicit Questioner(HardKMProxy& proxy) : proxy_(proxy), thread_([this] { ask(); }) {}
  ~Questioner() { stop(); }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  void progress() { ++progress_; }
  // Waits for a question, for who has left the device free.
  void letOneThrough() {
    const uint64_t before = asked_;
    wanted_ = true;
    while (asked_ == before && !stop_) std::this_thread::yield();
  }
  uint64_t answered() const { return answered_; }

 private:
  static constexpr uint64_t kOperationsForAQuestion = 25;

  void ask() {
    while (!stop_) {
      if (!wanted_.exchange(false) && progress_ < asked_ * kOperationsForAQuestion) {
        std::this_thread::yield();
        continue;
      }
      _get_dev_info_reply info{};
      std::string version;
      const int result = asked_ % 3 == 0   ? proxy_.GetLedStatus()
                         : asked_ % 3 == 1 ? proxy_.SetLedStatus(static_cast<uint8_t>(asked_))
                                           : proxy_.GetDevInfo(info, version);
      if (result >= 0) ++answered_;
      ++asked_;
    }
  }

  HardKMProxy& proxy_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> wanted_{false};
  std::atomic<uint64_t> progress_{0};
  std::atomic<uint64_t> asked_{0};
  std::atomic<uint64_t> answered_{0};
  std::thread thread_;
};

// A virtual pause is over at once: without help the sending thread nearly always has the device again before anybody
// else gets it between two steps of a move.
class PauseClock : public VirtualClock {
 public:
  PauseClock() { setClock(this); }
  void sleepFor(Duration duration) override {
    VirtualClock::sleepFor(duration);
    constexpr unsigned kPausesForAQuestion = 8;
    Questioner* const questioner = questioner_;
    if (questioner != nullptr && ++pauses_ % kPausesForAQuestion == 0) questioner->letOneThrough();
  }
  // While nothing is queued.
  void questioner(Questioner* questioner) { questioner_ = questioner; }

 private:
  std::atomic<Questioner*> questioner_{nullptr};
  std::atomic<unsigned> pauses_{0};
};

class ProxyStressTest : public ProxyTest {
 protected:
  ProxyStressTest() { flogger::GetInitance().enable(false); }
  ~ProxyStressTest() override {
    proxy_.reset();  // before its listener goes
    setClock(&clock_.get());
    flogger::GetInitance().enable(true);
  }

  void begin(const std::string& faults) {
    VirtualMirnSettings settings;
    settings.version = "2.0.0";  // has the raw mouse report and the firmware greeting
    plugIn(settings);
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(faults, &plan, &error)) << error;
    stress_listener_ = std::make_unique<StressListener>(*mirn_);
    proxy_ = std::make_unique<TestProxy>(stress_listener_.get());
    proxy_->Init({{0, 0, 32767, 32767}});
    mirn_->clearReceived();
    mirn_->setFaultPlan(plan);
  }

  void submit(Mixture& mixture, Questioner& questioner, int operations) {
    pauses_.questioner(&questioner);
    for (int i = 0; i < operations; ++i) {
      mixture.submitOne();
      questioner.progress();
    }
    proxy_->drain();
    pauses_.questioner(nullptr);
  }

  // Everything submitted since the last call, beside what the device and the listener have made of it. The queue must
  // be empty; questions may go on.
  std::vector<Played> play(Mixture& mixture) {
    std::vector<MixtureTask> tasks = mixture.take();
    const std::vector<Heard> heard = stress_listener_->take();
    const std::vector<VirtualReceived> received = mirn_->received();
    mirn_->clearReceived();
    EXPECT_EQ(heard.size(), tasks.size()) << "each task is reported, once";
    std::vector<Played> all;
    auto at = received.begin();
    for (size_t i = 0; i < std::min(tasks.size(), heard.size()); ++i) {
      EXPECT_EQ(heard[i].kind, tasks[i].kind) << "task " << i;
      Played played{std::move(tasks[i]), heard[i].failed, {}};
      bool other = false;
      for (; at != received.end() && at->number <= heard[i].received; ++at) {
        if (!comesFromTheQueue(at->record)) {
          other = !played.arrived.empty();
          continue;
        }
        played.interrupted = played.interrupted || other;
        played.arrived.push_back(codeOf(at->record));
      }
      all.push_back(std::move(played));
    }
    EXPECT_TRUE(std::none_of(at, received.end(), [](const VirtualReceived& r) { return comesFromTheQueue(r.record); }))
        << "records of no task";
    return all;
  }

  PauseClock pauses_;
  std::unique_ptr<StressListener> stress_listener_;
};

TEST_F(ProxyStressTest, AMillionMixedOperationsArriveOnceAndInOrderBesideQuestionsFromAnotherThread) {
  // Requests all arrive, answers suffer. Answers that are dropped balance those that come too late or twice, so that
  // most exchanges read their own.
  begin(
      "refuse=1@*/97;drop@*/31;corrupt@*/113;split=5@*/83;delay=80@*/301;garbage=9@*/211;truncate=3@*/401;"
      "duplicate@*/173;stall=120@*/701");
  Mixture mixture(*proxy_, 11);
  Questioner questioner(*proxy_);
  Totals totals;
  [[maybe_unused]] size_t heap_after_warm_up = 0;
  const int batches = kBatches * soak();
  for (int batch = 0; batch < batches; ++batch) {
    submit(mixture, questioner, kOperationsInABatch);
    for (const Played& played : play(mixture)) {
      ASSERT_TRUE(played.failed ? !played.arrived.empty() && played.arrivedFromTheStart() : played.whole())
          << "batch " << batch;
      totals.count(played);
    }
    ASSERT_FALSE(HasFailure()) << "batch " << batch;
    const size_t heap = mallinfo2().uordblks;
    if (batch == kBatches / 4) heap_after_warm_up = heap;
#ifndef MIRN_SANITIZED
    // Besides the questions in flight nothing may grow.
    if (heap_after_warm_up != 0) {
      ASSERT_LT(heap, heap_after_warm_up + (256u << 10)) << "batch " << batch;
    }
#endif
  }
  questioner.stop();
  EXPECT_GT(questioner.answered(), 0u);
  EXPECT_GT(totals.failures, 0u) << "the faults never hit";
  EXPECT_GT(totals.cut_moves, 0u);
  EXPECT_GT(totals.whole_moves, 0u);
  EXPECT_GT(totals.interrupted_moves, 0u) << "no question between two steps of a move";
}

TEST_F(ProxyStressTest, WithRequestsLostWhatArrivesKeepsItsOrderBesideQuestionsFromAnotherThread) {
  begin("lose@*/53;write-error@*/71;read-error@*/89;drop@*/97;duplicate@*/149;stall=130@*/307;delay=250@*/503");
  Mixture mixture(*proxy_, 12);
  Questioner questioner(*proxy_);
  Totals totals;
  const int batches = std::max(2, kBatches / 4) * soak();
  for (int batch = 0; batch < batches; ++batch) {
    submit(mixture, questioner, kOperationsInABatch);
    for (const Played& played : play(mixture)) {
      ASSERT_TRUE(played.arrivedInOrder()) << "batch " << batch << ": a record out of order, or twice";
      totals.count(played);
    }
    ASSERT_FALSE(HasFailure()) << "batch " << batch;
  }
  questioner.stop();
  EXPECT_GT(questioner.answered(), 0u);
  EXPECT_GT(totals.failures, 0u);
  EXPECT_GT(totals.missing_records, 0u);
  EXPECT_GT(totals.interrupted_moves, 0u) << "no question between two steps of a move";
}

// Once before the exchange's request and once behind it, at exchanges of every kind.
TEST_F(ProxyStressTest, UnpluggingInTheMiddleFailsTheRestInOrderBesideQuestionsFromAnotherThread) {
  std::mt19937 random(14);
  const int rounds = kBatches * soak();
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    constexpr int kOperations = 1000;
    const uint64_t gone_at = 1 + random() % 300;  // far fewer than the exchanges
    const bool after = round % 2 != 0;
    begin((after ? "unplug-after@" : "unplug@") + std::to_string(gone_at));
    const uint64_t before = mirn_->receivedCount();
    Mixture mixture(*proxy_, static_cast<uint32_t>(round));
    Questioner questioner(*proxy_);
    submit(mixture, questioner, kOperations);
    questioner.stop();
    EXPECT_EQ(mirn_->receivedCount() - before, after ? gone_at : gone_at - 1);
    const std::vector<Played> all = play(mixture);
    const auto failed = std::find_if(all.begin(), all.end(), [](const Played& played) { return played.failed; });
    ASSERT_NE(failed, all.end());
    EXPECT_TRUE(std::all_of(all.begin(), failed, [](const Played& played) { return played.whole(); }));
    EXPECT_TRUE(failed->arrivedFromTheStart());
    EXPECT_TRUE(std::all_of(failed + 1, all.end(),
                            [](const Played& played) { return played.failed && played.arrived.empty(); }));
    ASSERT_FALSE(HasFailure());
    proxy_.reset();
  }
}

// Callers have stopped; tasks are queued and one is in flight: its write goes on only after the destructor has closed
// the queue.
TEST_F(ProxyStressTest, ThousandsOfProxiesDestroyedWithTasksQueuedAndOneInFlight) {
  struct Flight {
    Signal reached;
    Signal go_on;
    std::atomic<int> writes{0};
  };
  std::shared_ptr<Flight> flight;  // of the one proxy that lives; set while it has no thread
  std::unique_ptr<WatchedHid> watched;
  std::mt19937 random(5);
  const int proxies = kProxies * soak();
  for (int i = 0; i < proxies; ++i) {
    if (i % 500 == 0) {
      watched.reset();
      plugIn({});
      watched = std::make_unique<WatchedHid>([&flight](std::span<const uint8_t>) {
        if (++flight->writes != 2) return;  // the greeting, then the exchange in flight
        flight->reached.set();
        EXPECT_TRUE(flight->go_on.wait());
      });
    }
    flight = std::make_shared<Flight>();
    StressListener listener(*mirn_);
    auto proxy = std::make_unique<TestProxy>(&listener);
    proxy->initKeyMap();
    const uint64_t before = mirn_->receivedCount();
    proxy->KeyBoardDown(0, 'A');
    for (size_t queued = random() % 20; queued > 0; --queued) proxy->KeyBoardUp(0, 0);
    proxy->addTask(new MarkerTask([] { ADD_FAILURE() << "ran after the closing"; }, [flight] { flight->go_on.set(); }));
    ASSERT_TRUE(flight->reached.wait());
    proxy.reset();
    const std::vector<VirtualReceived> received = mirn_->receivedAfter(before);
    ASSERT_EQ(received.size(), 1u) << "the record in flight and no other";
    ASSERT_EQ(codeOf(received[0].record), codeOf(VirtualKeyboard{0, {4}}));
    ASSERT_EQ(flight->writes, 2);
    const std::vector<Heard> heard = listener.take();
    ASSERT_EQ(heard.size(), 1u) << "the one outcome";
    ASSERT_EQ(heard[0].kind, kKeyboardTask);
    ASSERT_FALSE(heard[0].failed);
    ASSERT_EQ(VirtualHid::instance().openHandles(), 0u);
  }
}

TEST_F(ProxyStressTest, ProxiesDestroyedAtAnyMomentReportWhatArrived) {
  std::mt19937 random(6);
  const int proxies = kProxies / 5 * soak();
  for (int i = 0; i < proxies; ++i) {
    if (i % 500 == 0) plugIn({});
    StressListener listener(*mirn_);
    auto proxy = std::make_unique<TestProxy>(&listener);
    proxy->initKeyMap();
    const uint64_t before = mirn_->receivedCount();
    const size_t queued = random() % 50;
    for (size_t task = 0; task < queued; ++task) proxy->KeyBoardUp(0, 0);
    for (size_t turns = random() % 5; turns > 0; --turns) std::this_thread::yield();
    proxy.reset();
    ASSERT_EQ(mirn_->receivedCount() - before, listener.take().size());
  }
}

}  // namespace
}  // namespace mirn
