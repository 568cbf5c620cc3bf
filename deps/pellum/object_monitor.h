// How many objects of a class were created and deleted, listed for the whole process. Thread-safe.
//
// A class that wants to be counted calls OBJECT_MONITOR<Class>::Created() and ::Deleted() in its constructor and
// destructor (or inherits CMonitored<Class>), and one source file says ADD_TO_MONITORING_LIST(Class) at namespace
// scope.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace mirn {

class IObjectCounter {
 public:
  virtual ~IObjectCounter() = default;
  virtual int64_t NewCount() const = 0;
  virtual int64_t DeleteCount() const = 0;
};

// The counters of class T.
template <typename T>
class OBJECT_MONITOR final : public IObjectCounter {
 public:
  static void Created() { _new.fetch_add(1, std::memory_order_relaxed); }
  static void Deleted() { _delete.fetch_add(1, std::memory_order_release); }

  int64_t NewCount() const override { return _new.load(std::memory_order_relaxed); }
  int64_t DeleteCount() const override { return _delete.load(std::memory_order_acquire); }

  // Lives as long as the process, whatever still counts.
  static const OBJECT_MONITOR& Counter() {
    static const OBJECT_MONITOR* const counter = new OBJECT_MONITOR;
    return *counter;
  }

  static inline std::atomic<int64_t> _new{0};
  static inline std::atomic<int64_t> _delete{0};
};

// Counts construction and destruction of T when T inherits it.
template <typename T>
class CMonitored {
 protected:
  CMonitored() { OBJECT_MONITOR<T>::Created(); }
  CMonitored(const CMonitored& /*other*/) { OBJECT_MONITOR<T>::Created(); }
  CMonitored& operator=(const CMonitored& /*other*/) { return *this; }
  ~CMonitored() { OBJECT_MONITOR<T>::Deleted(); }
};

struct MonitoringEntry {
  std::atomic<const IObjectCounter*> counter{nullptr};
  std::atomic<const char*> name{nullptr};
};

// The dumps show at most the first 1023 of the entries.
inline constexpr size_t kMonitoringTableSize = 1024;
extern MonitoringEntry MonitorintObjects[kMonitoringTableSize];  // the name is deliberate
extern std::atomic<uint32_t> MonitoringObjectIndex;              // entries in use

// Both arguments must live as long as the process. Returns false when the table is full.
bool addToMonitoringList(const IObjectCounter* counter, const char* name);

// A header, then one line for each entry that has a name: index, " !" while objects are alive, alive, created, deleted,
// name. Lines end in CR LF. The text is replaced.
void dump_monitoring_objects(std::string& text);
// One line for each entry: "<name>_count: <created> <name>_alive: <alive>" and CR LF. The text is replaced.
void dump_monitoring_objects2(std::string& text);

#define MIRN_MONITORING_NAME2(line) g_mirn_monitoring_##line
#define MIRN_MONITORING_NAME(line) MIRN_MONITORING_NAME2(line)
#define ADD_TO_MONITORING_LIST(Class)                                 \
  [[maybe_unused]] static const bool MIRN_MONITORING_NAME(__LINE__) = \
      ::mirn::addToMonitoringList(&::mirn::OBJECT_MONITOR<Class>::Counter(), #Class)

}  // namespace mirn
