// A proxy over a virtual Mirn on a virtual clock, and what the tests see of it: the records that the device received.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "device/hard_km_proxy.h"
#include "virtual/virtual_clock.h"
#include "virtual/virtual_hid.h"
#include "virtual/virtual_mirn.h"

namespace mirn {

// Waits that must not end by time: far beyond what a loaded machine needs.
inline constexpr std::chrono::seconds kTestPatience{60};

// A condition that one thread sets and another waits for.
class Signal {
 public:
  void set();
  bool isSet() const { return set_; }
  // False when nobody set it in time.
  bool wait();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> set_{false};
};

struct Outcome {
  enum class Kind : uint8_t { kMouse, kKeyboard, kUpgrade, kHandshake };
  Kind kind;
  int result;
  uint16_t id = 0;
  uint16_t total = 0;
  bool operator==(const Outcome&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Outcome& outcome);

// Keeps every call, in order.
class RecordingListener : public IKeyMouseListener {
 public:
  void OnUpgradeStep(uint16_t, uint16_t) override { ++upgrade_steps; }
  void OnSendMouseResult(int result) override { add({Outcome::Kind::kMouse, result}); }
  void OnSendKeyboardResult(int result) override { add({Outcome::Kind::kKeyboard, result}); }
  void OnSendUpgradeResult(int result, uint16_t id, uint16_t total) override {
    add({Outcome::Kind::kUpgrade, result, id, total});
  }
  void OnSendFirmwareHandSharkeResult(int result) override { add({Outcome::Kind::kHandshake, result}); }

  std::vector<Outcome> outcomes() const;
  size_t count() const;
  std::vector<std::thread::id> threads() const;

  std::atomic<int> upgrade_steps{0};

 private:
  void add(Outcome outcome);

  mutable std::mutex mutex_;
  std::vector<Outcome> outcomes_;
  std::vector<std::thread::id> threads_;
};

// A task of no kind that the listener knows.
class MarkerTask final : public i_vx_task {
 public:
  explicit MarkerTask(std::function<void()> on_done, std::function<void()> on_gone = {})
      : i_vx_task(99, nullptr), on_done_(std::move(on_done)), on_gone_(std::move(on_gone)) {}
  ~MarkerTask() override {
    if (on_gone_) on_gone_();
  }
  int done() override {
    on_done_();
    return 0;
  }

 private:
  std::function<void()> on_done_;
  std::function<void()> on_gone_;
};

class TestProxy : public HardKMProxy {
 public:
  explicit TestProxy(IKeyMouseListener* listener) : HardKMProxy(listener, g_vid, g_pid) {}
  using HardKMProxy::send_thread;

  void addTask(i_vx_task* task) { send_thread().AddKMTask(CRefObj<i_vx_task>(task)); }
  // Until the sending thread has finished everything submitted so far. Sends nothing, flushes nothing.
  void drain();
};

// The HID back end with a look at every write, on the thread that writes. Install it while no device is open.
class WatchedHid {
 public:
  // Called before the report reaches the device.
  explicit WatchedHid(std::function<void(std::span<const uint8_t>)> on_write);
  ~WatchedHid();
  WatchedHid(const WatchedHid&) = delete;
  WatchedHid& operator=(const WatchedHid&) = delete;
};

// One line a record, as it arrived:
//   keys 04 05 00 00 00 00 mod 03
//   abs 100 200 lrm 100 wheel 0        rel 127 0 lrm 000 wheel 0        raw 100 200 buttons 1 wheel -1
//   chunk 0/3     greeting     led 7     led?     info?     name Fred     hello
std::string describe(const VirtualRecord& record);

class ProxyTest : public ::testing::Test {
 protected:
  ProxyTest();
  ~ProxyTest() override;

  void plugIn(VirtualMirnSettings settings);
  // A proxy on a device that reports `version`. What the greeting sent is forgotten.
  TestProxy& start(const std::string& version = "1.0.0");
  TestProxy& start(VirtualMirnSettings settings);
  // What the device has received since the last call, once the queue is empty.
  std::vector<std::string> arrived();

  ScopedVirtualClock clock_;
  std::shared_ptr<VirtualMirn> mirn_;
  std::unique_ptr<ScopedVirtualHid> hid_;
  RecordingListener listener_;
  std::unique_ptr<TestProxy> proxy_;
  uint64_t seen_ = 0;
};

// A directory of its own, removed afterwards.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  std::string path(const std::string& name) const { return root_ + "/" + name; }
  std::string write(const std::string& name, const std::string& content) const;
  const std::string& root() const { return root_; }

 private:
  std::string root_;
};

std::string readFile(const std::string& path);

// Sends the process's log to a file and reads it back.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Everything logged so far.
  std::string text() const;

 private:
  ScratchDirectory directory_;
};

}  // namespace mirn
