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

// The kinds in order, with results that can only be these.
class KindListener : public IKeyMouseListener {
 public:
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
  std::vector<uint8_t> take() { return std::move(kinds_); }
  uint64_t failures() const { return failures_; }

 private:
  void add(uint32_t kind, int result) {
    kinds_.push_back(static_cast<uint8_t>(kind));
    if (result == -1) {
      ++failures_;
    } else {
      EXPECT_EQ(result, 0);
    }
  }

  std::vector<uint8_t> kinds_;
  std::atomic<uint64_t> failures_{0};
};

class ProxyStressTest : public ProxyTest {
 protected:
  ProxyStressTest() { flogger::GetInitance().enable(false); }
  ~ProxyStressTest() override {
    proxy_.reset();  // before its listener goes
    flogger::GetInitance().enable(true);
  }

  void begin(const std::string& faults) {
    VirtualMirnSettings settings;
    settings.version = "2.0.0";  // has the raw mouse report and the firmware greeting
    plugIn(settings);
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(faults, &plan, &error)) << error;
    proxy_ = std::make_unique<TestProxy>(&kinds_);
    proxy_->Init({{0, 0, 32767, 32767}});
    mirn_->clearReceived();
    mirn_->setFaultPlan(plan);
  }

  // The queued records that have arrived since the last call.
  std::vector<uint64_t> takeArrived() {
    std::vector<uint64_t> result;
    for (const VirtualReceived& received : mirn_->received()) {
      if (comesFromTheQueue(received.record)) result.push_back(codeOf(received.record));
    }
    mirn_->clearReceived();
    return result;
  }

  KindListener kinds_;
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
  uint64_t answered() const { return answered_; }

 private:
  static constexpr uint64_t kOperationsForAQuestion = 25;

  void ask() {
    uint64_t asked = 0;
    while (!stop_) {
      if (progress_ < asked * kOperationsForAQuestion) {
        std::this_thread::yield();
        continue;
      }
      _get_dev_info_reply info{};
      std::string version;
      const int result = asked % 3 == 0   ? proxy_.GetLedStatus()
                         : asked % 3 == 1 ? proxy_.SetLedStatus(static_cast<uint8_t>(asked))
                                          : proxy_.GetDevInfo(info, version);
      if (result >= 0) ++answered_;
      ++asked;
    }
  }

  HardKMProxy& proxy_;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> progress_{0};
  std::atomic<uint64_t> answered_{0};
  std::thread thread_;
};

TEST_F(ProxyStressTest, AMillionMixedOperationsArriveOnceAndInOrderBesideQuestionsFromAnotherThread) {
  // Requests all arrive, answers suffer.
  begin("refuse=1@*/97;drop@*/131;corrupt@*/113;split=5@*/17;delay=80@*/301;garbage=9@*/211;truncate=3@*/401");
  Mixture mixture(*proxy_, 11);
  Questioner questioner(*proxy_);
  [[maybe_unused]] size_t heap_after_warm_up = 0;
  const int batches = kBatches * soak();
  for (int batch = 0; batch < batches; ++batch) {
    for (int i = 0; i < kOperationsInABatch; ++i) {
      mixture.submitOne();
      questioner.progress();
    }
    proxy_->drain();
    ASSERT_EQ(takeArrived(), mixture.takeExpected()) << "batch " << batch;
    ASSERT_EQ(kinds_.take(), mixture.takeKinds()) << "batch " << batch;
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
  EXPECT_GT(kinds_.failures(), 0u) << "the faults never hit";
}

TEST_F(ProxyStressTest, WithRequestsLostWhatArrivesKeepsItsOrder) {
  begin("lose@*/53;write-error@*/71;read-error@*/89;drop@*/97");
  Mixture mixture(*proxy_, 12);
  for (int i = 0; i < kOperationsInABatch; ++i) mixture.submitOne();
  proxy_->drain();
  const std::vector<uint64_t> expected = mixture.takeExpected();
  const std::vector<uint64_t> arrived = takeArrived();
  EXPECT_EQ(kinds_.take(), mixture.takeKinds()) << "each task is reported, lost or not";
  EXPECT_LT(arrived.size(), expected.size());
  auto at = expected.begin();
  for (const uint64_t record : arrived) {
    at = std::find(at, expected.end(), record);
    ASSERT_NE(at, expected.end()) << "a record out of order, or twice";
    ++at;
  }
}

TEST_F(ProxyStressTest, UnpluggingInTheMiddleFailsTheRestInOrder) {
  begin("unplug@2000");
  Mixture mixture(*proxy_, 13);
  for (int i = 0; i < kOperationsInABatch; ++i) mixture.submitOne();
  proxy_->drain();
  const std::vector<uint64_t> expected = mixture.takeExpected();
  const std::vector<uint64_t> arrived = takeArrived();
  EXPECT_EQ(kinds_.take(), mixture.takeKinds());
  ASSERT_EQ(arrived.size(), 1999u);
  EXPECT_TRUE(std::equal(arrived.begin(), arrived.end(), expected.begin()));
  EXPECT_EQ(kinds_.failures(), expected.size() - arrived.size());
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
    KindListener listener;
    auto proxy = std::make_unique<TestProxy>(&listener);
    proxy->initKeyMap();
    takeArrived();
    proxy->KeyBoardDown(0, 'A');
    for (size_t queued = random() % 20; queued > 0; --queued) proxy->KeyBoardUp(0, 0);
    proxy->addTask(new MarkerTask([] { ADD_FAILURE() << "ran after the closing"; }, [flight] { flight->go_on.set(); }));
    ASSERT_TRUE(flight->reached.wait());
    proxy.reset();
    ASSERT_EQ(takeArrived(), std::vector{codeOf(VirtualKeyboard{0, {4}})}) << "the record in flight and no other";
    ASSERT_EQ(flight->writes, 2);
    ASSERT_EQ(listener.take(), std::vector<uint8_t>{kKeyboardTask}) << "the one outcome";
    ASSERT_EQ(listener.failures(), 0u);
    ASSERT_EQ(VirtualHid::instance().openHandles(), 0u);
  }
}

TEST_F(ProxyStressTest, ProxiesDestroyedAtAnyMomentReportWhatArrived) {
  std::mt19937 random(6);
  const int proxies = kProxies / 5 * soak();
  for (int i = 0; i < proxies; ++i) {
    if (i % 500 == 0) plugIn({});
    KindListener listener;
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
