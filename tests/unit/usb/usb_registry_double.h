// A USB registry in memory. It can fail at each step, can stop the monitor thread at each step, and counts what it
// hands out and gets back.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/usb_registry.h"

namespace mirn {

struct FakeUsbDevice {
  std::optional<UsbValue> vendor;
  std::optional<UsbValue> product;
  bool readable = true;  // false: its properties can't be created
};

inline FakeUsbDevice fakeDevice(int64_t vendor, int64_t product) {
  return {UsbValue(vendor), UsbValue(product)};
}

// Thread-safe.
class UsbRegistryDouble : public UsbRegistry {
 public:
  // What to make fail. Set before the monitor starts.
  int failing_matching = 0;  // the n-th request, from 1
  bool fail_port = false;
  int32_t matched_result = 0;
  int32_t terminate_result = 0;
  int32_t services_result = 0;
  // Called on the monitor thread at the start of every registry call of set-up, with the call's name, and just before
  // the run loop dispatches ("run").
  std::function<void(const std::string&)> at_step;

  struct Counts {
    int services_out = 0;
    int services_back = 0;
    int iterators_out = 0;
    int iterators_back = 0;
    int wrong_releases = 0;  // of a handle that is not out
    int ports = 0;           // alive
    int matchings = 0;       // alive
    int properties = 0;      // alive
    int loops = 0;           // alive
    int property_reads = 0;  // createProperties calls
  };
  Counts counts() const {
    std::lock_guard guard(mutex_);
    return counts_;
  }
  // Nothing is out.
  bool allGivenBack() const {
    const Counts now = counts();
    return now.services_out == now.services_back && now.iterators_out == now.iterators_back &&
           now.wrong_releases == 0 && now.ports == 0 && now.matchings == 0 && now.properties == 0;
  }

  // Before the start, or between steps: what an enumeration finds.
  void attachQuietly(const FakeUsbDevice& device) {
    std::lock_guard guard(mutex_);
    attached_.push_back(device);
  }

  // Events. They go to the notifications that are registered at this moment, through the run loop.
  void arrive(const FakeUsbDevice& device) { post(UsbNotification::kMatched, {device}); }
  void depart(const FakeUsbDevice& device) { post(UsbNotification::kTerminate, {device}); }
  void departAll(const std::vector<FakeUsbDevice>& devices) { post(UsbNotification::kTerminate, devices); }

  // Waits until everything posted so far was dispatched.
  void settle() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return running_ && work_.empty() && !dispatching_; });
  }
  void waitUntilRunning() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return running_; });
  }

  std::unique_ptr<UsbMatching> createMatching(const char* class_name) override {
    step("createMatching");
    std::lock_guard guard(mutex_);
    classes_.emplace_back(class_name);
    if (++matching_calls_ == failing_matching) return nullptr;
    return std::make_unique<Counted<UsbMatching>>(*this, &Counts::matchings);
  }

  std::unique_ptr<UsbNotificationPort> createNotificationPort() override {
    step("createNotificationPort");
    std::lock_guard guard(mutex_);
    if (fail_port) return nullptr;
    return std::make_unique<Port>(*this);
  }

  int32_t addMatchingNotification(UsbNotificationPort&, UsbNotification type, std::unique_ptr<UsbMatching>,
                                  UsbNotificationCallback callback, void* refcon, UsbIterator* iterator) override {
    step(type == UsbNotification::kMatched ? "addMatched" : "addTerminate");
    std::lock_guard guard(mutex_);
    const int32_t result = type == UsbNotification::kMatched ? matched_result : terminate_result;
    if (result != 0) return result;
    *iterator = newIterator(type == UsbNotification::kMatched ? attached_ : std::vector<FakeUsbDevice>());
    notifications_.push_back({type, callback, refcon, *iterator});
    return 0;
  }

  int32_t getMatchingServices(std::unique_ptr<UsbMatching>, UsbIterator* iterator) override {
    std::lock_guard guard(mutex_);
    if (services_result != 0) return services_result;
    *iterator = newIterator(attached_);
    return 0;
  }

  UsbService iteratorNext(UsbIterator iterator) override {
    std::lock_guard guard(mutex_);
    auto found = iterators_.find(iterator);
    if (found == iterators_.end() || found->second.empty()) return 0;
    services_[++last_handle_] = found->second.front();
    found->second.pop_front();
    ++counts_.services_out;
    return last_handle_;
  }

  void release(UsbHandle handle) override {
    std::lock_guard guard(mutex_);
    if (services_.erase(handle) != 0) {
      ++counts_.services_back;
    } else if (iterators_.erase(handle) != 0) {
      ++counts_.iterators_back;
    } else {
      ++counts_.wrong_releases;
    }
  }

  std::unique_ptr<UsbProperties> createProperties(UsbService service) override {
    std::lock_guard guard(mutex_);
    ++counts_.property_reads;
    const auto found = services_.find(service);
    if (found == services_.end() || !found->second.readable) return nullptr;
    return std::make_unique<Properties>(*this, found->second);
  }

  std::shared_ptr<UsbRunLoop> currentRunLoop() override {
    step("currentRunLoop");
    std::lock_guard guard(mutex_);
    return std::make_shared<Loop>(*this);
  }

  UsbIterator iteratorOf(std::vector<FakeUsbDevice> devices) {
    std::lock_guard guard(mutex_);
    return newIterator(std::move(devices));
  }
  size_t pending(UsbIterator iterator) const {
    std::lock_guard guard(mutex_);
    const auto found = iterators_.find(iterator);
    return found == iterators_.end() ? 0 : found->second.size();
  }
  std::vector<std::string> classes() const {
    std::lock_guard guard(mutex_);
    return classes_;
  }

 private:
  template <typename Base>
  class Counted : public Base {
   public:
    Counted(UsbRegistryDouble& registry, int Counts::*count) : registry_(registry), count_(count) {
      ++(registry_.counts_.*count_);  // the caller holds the lock
    }
    ~Counted() override {
      std::lock_guard guard(registry_.mutex_);
      --(registry_.counts_.*count_);
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

   protected:
    UsbRegistryDouble& registry_;

   private:
    int Counts::*count_;
  };

  class Port : public Counted<UsbNotificationPort> {
   public:
    explicit Port(UsbRegistryDouble& registry) : Counted(registry, &Counts::ports) {}
    ~Port() override {
      std::lock_guard guard(registry_.mutex_);
      registry_.notifications_.clear();
    }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    UsbRunLoopSource* runLoopSource() override { return &source_; }

   private:
    UsbRunLoopSource source_;
  };

  class Properties : public Counted<UsbProperties> {
   public:
    Properties(UsbRegistryDouble& registry, FakeUsbDevice device)
        : Counted(registry, &Counts::properties), device_(std::move(device)) {}
    bool valueIfPresent(const char* key, UsbValue* value) const override {
      const auto& property = std::string(key) == kUsbVendorKey ? device_.vendor : device_.product;
      if (!property) return false;
      *value = *property;
      return true;
    }

   private:
    FakeUsbDevice device_;
  };

  class Loop : public Counted<UsbRunLoop> {
   public:
    explicit Loop(UsbRegistryDouble& registry) : Counted(registry, &Counts::loops) {}
    void addSource(UsbRunLoopSource&) override { registry_.step("addSource"); }
    void run() override {
      registry_.step("run");
      registry_.dispatchUntil(stopped_);
    }
    void stop() override {
      std::lock_guard guard(registry_.mutex_);
      stopped_ = true;
      registry_.changed_.notify_all();
    }

   private:
    bool stopped_ = false;
  };

  struct Notification {
    UsbNotification type;
    UsbNotificationCallback callback;
    void* refcon;
    UsbIterator iterator;
  };

  void step(const std::string& name) {
    if (at_step) at_step(name);
  }

  UsbIterator newIterator(std::vector<FakeUsbDevice> devices) {
    iterators_[++last_handle_] = std::deque<FakeUsbDevice>(devices.begin(), devices.end());
    ++counts_.iterators_out;
    return last_handle_;
  }

  void post(UsbNotification type, const std::vector<FakeUsbDevice>& devices) {
    std::lock_guard guard(mutex_);
    for (const Notification& notification : notifications_) {
      if (notification.type != type) continue;
      work_.push_back([this, notification, devices] {
        {
          std::lock_guard inner(mutex_);
          auto& pending = iterators_[notification.iterator];
          pending.insert(pending.end(), devices.begin(), devices.end());
        }
        notification.callback(notification.refcon, notification.iterator);
      });
    }
    changed_.notify_all();
  }

  void dispatchUntil(const bool& stopped) {
    std::unique_lock lock(mutex_);
    running_ = true;
    changed_.notify_all();
    for (;;) {
      changed_.wait(lock, [&] { return stopped || !work_.empty(); });
      if (stopped) break;
      const std::function<void()> work = std::move(work_.front());
      work_.pop_front();
      dispatching_ = true;
      lock.unlock();
      work();
      lock.lock();
      dispatching_ = false;
      changed_.notify_all();
    }
    running_ = false;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Counts counts_;
  std::vector<std::string> classes_;
  int matching_calls_ = 0;
  UsbHandle last_handle_ = 0;
  std::vector<FakeUsbDevice> attached_;
  std::map<UsbHandle, std::deque<FakeUsbDevice>> iterators_;
  std::map<UsbHandle, FakeUsbDevice> services_;
  std::vector<Notification> notifications_;
  std::deque<std::function<void()>> work_;
  bool running_ = false;
  bool dispatching_ = false;
};

// Puts a registry in force for a scope.
class ScopedUsbRegistry {
 public:
  explicit ScopedUsbRegistry(UsbRegistry& registry) { setUsbRegistry(&registry); }
  ~ScopedUsbRegistry() { setUsbRegistry(nullptr); }
  ScopedUsbRegistry(const ScopedUsbRegistry&) = delete;
  ScopedUsbRegistry& operator=(const ScopedUsbRegistry&) = delete;
};

}  // namespace mirn
