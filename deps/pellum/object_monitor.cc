#include "deps/pellum/object_monitor.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace mirn {
namespace {

constexpr size_t kShownEntries = kMonitoringTableSize - 1;

struct Counts {
  size_t index;
  const char* name;
  int64_t created;
  int64_t deleted;
};

// Calls show(Counts) for every entry that a dump shows.
template <typename Show>
void forEachEntry(Show show) {
  const size_t used = std::min<size_t>(MonitoringObjectIndex.load(std::memory_order_acquire), kShownEntries);
  for (size_t i = 0; i < used; ++i) {
    const char* name = MonitorintObjects[i].name.load(std::memory_order_acquire);
    const IObjectCounter* counter = MonitorintObjects[i].counter.load(std::memory_order_acquire);
    if (!name || !counter) {
      continue;
    }
    // Deletions first: an object that comes and goes between the two reads counts as alive, never as minus one.
    const int64_t deleted = counter->DeleteCount();
    show(Counts{i, name, counter->NewCount(), deleted});
  }
}

}  // namespace

// Constant-initialised: classes register from static initialisers in any order.
constinit MonitoringEntry MonitorintObjects[kMonitoringTableSize];
constinit std::atomic<uint32_t> MonitoringObjectIndex{0};

bool addToMonitoringList(const IObjectCounter* counter, const char* name) {
  uint32_t index = MonitoringObjectIndex.load(std::memory_order_relaxed);
  do {
    if (index >= kMonitoringTableSize) {
      return false;
    }
  } while (!MonitoringObjectIndex.compare_exchange_weak(index, index + 1, std::memory_order_acq_rel));
  MonitorintObjects[index].counter.store(counter, std::memory_order_release);
  // A dump takes the entry only once it has its name.
  MonitorintObjects[index].name.store(name, std::memory_order_release);
  return true;
}

void dump_monitoring_objects(std::string& text) {
  char line[64];
  std::snprintf(line, sizeof line, "%3s%10s|%8s|%8s| name\r\n", "id", "alive", "new", "delete");
  text = line;
  forEachEntry([&](const Counts& counts) {
    const int64_t alive = counts.created - counts.deleted;
    std::snprintf(line, sizeof line, "%3zu%s%8" PRId64 "|%8" PRId64 "|%8" PRId64 "| ", counts.index,
                  alive > 0 ? " !" : "  ", alive, counts.created, counts.deleted);
    text.append(line).append(counts.name).append("\r\n");
  });
}

void dump_monitoring_objects2(std::string& text) {
  text.clear();
  forEachEntry([&](const Counts& counts) {
    text.append(counts.name).append("_count: ").append(std::to_string(counts.created)).append(" ");
    text.append(counts.name).append("_alive: ").append(std::to_string(counts.created - counts.deleted)).append("\r\n");
  });
}

}  // namespace mirn
