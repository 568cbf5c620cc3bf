#include "deps/pellum/object_monitor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/base_thread.h"

namespace mirn {
namespace {

struct MonitoredThing : CMonitored<MonitoredThing> {};
ADD_TO_MONITORING_LIST(MonitoredThing);

class FixedCounter final : public IObjectCounter {
 public:
  FixedCounter(int64_t created, int64_t deleted) : created_(created), deleted_(deleted) {}
  int64_t NewCount() const override { return created_; }
  int64_t DeleteCount() const override { return deleted_; }

 private:
  int64_t created_;
  int64_t deleted_;
};

std::string dump() {
  std::string text = "old text";
  dump_monitoring_objects(text);
  return text;
}

std::string lineOf(const std::string& text, const std::string& name) {
  const size_t at = text.find(" " + name + "\r\n");
  const size_t start = text.rfind('\n', at);
  return at == std::string::npos ? "" : text.substr(start + 1, text.find('\n', at) - start);
}

TEST(ObjectMonitor, CountsConstructionCopyAndDestruction) {
  const auto& counter = OBJECT_MONITOR<MonitoredThing>::Counter();
  {
    const MonitoredThing first;
    MonitoredThing second = first;
    second = first;
    EXPECT_EQ(counter.NewCount(), 2);
    EXPECT_EQ(counter.DeleteCount(), 0);
  }
  EXPECT_EQ(OBJECT_MONITOR<MonitoredThing>::_new, 2);
  EXPECT_EQ(OBJECT_MONITOR<MonitoredThing>::_delete, 2);
}

TEST(ObjectMonitor, DumpBeginsWithTheHeader) {
  EXPECT_EQ(dump().substr(0, 47), " id     alive|     new|  delete| name\r\n" + dump().substr(39, 8));
}

TEST(ObjectMonitor, DumpMarksClassesWithObjectsAlive) {
  static const FixedCounter alive(12345, 12340);
  static const FixedCounter balanced(7, 7);
  const uint32_t index = MonitoringObjectIndex;
  ASSERT_TRUE(addToMonitoringList(&alive, "Alive"));
  ASSERT_TRUE(addToMonitoringList(&balanced, "Balanced"));
  char expected[96];
  std::snprintf(expected, sizeof expected, "%3u !       5|   12345|   12340| Alive\r\n", index);
  EXPECT_EQ(lineOf(dump(), "Alive"), expected);
  std::snprintf(expected, sizeof expected, "%3u         0|       7|       7| Balanced\r\n", index + 1);
  EXPECT_EQ(lineOf(dump(), "Balanced"), expected);
  static const FixedCounter overdrawn(3, 5);
  ASSERT_TRUE(addToMonitoringList(&overdrawn, "Overdrawn"));
  std::snprintf(expected, sizeof expected, "%3u        -2|       3|       5| Overdrawn\r\n", index + 2);
  EXPECT_EQ(lineOf(dump(), "Overdrawn"), expected);
}

TEST(ObjectMonitor, ThreadBaseIsListed) {
  EXPECT_THAT(dump(), testing::HasSubstr("| CBaseThread\r\n"));
  EXPECT_THAT(dump(), testing::HasSubstr("| MonitoredThing\r\n"));
}

TEST(ObjectMonitor, ShortDumpHasCountAndAlive) {
  static const FixedCounter counter(9, 4);
  ASSERT_TRUE(addToMonitoringList(&counter, "Short"));
  std::string text = "old text";
  dump_monitoring_objects2(text);
  EXPECT_THAT(text, testing::HasSubstr("Short_count: 9 Short_alive: 5\r\n"));
  EXPECT_THAT(text, testing::Not(testing::HasSubstr("old text")));
}

TEST(ObjectMonitor, EntriesWithoutANameAreLeftOut) {
  static const FixedCounter counter(1, 0);
  const auto lines = [] {
    const std::string text = dump();
    return std::count(text.begin(), text.end(), '\n');
  };
  const auto before = lines();
  ASSERT_TRUE(addToMonitoringList(&counter, nullptr));
  ASSERT_TRUE(addToMonitoringList(nullptr, "NoCounter"));
  EXPECT_EQ(lines(), before);
}

TEST(ObjectMonitor, TableTakes1024AndTheDumpShows1023) {
  static const FixedCounter counter(1, 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      while (addToMonitoringList(&counter, "Many")) {
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(MonitoringObjectIndex, 1024U);
  EXPECT_EQ(MonitorintObjects[1023].name.load(), std::string("Many"));
  const std::string text = dump();
  EXPECT_THAT(text, testing::EndsWith("\n1022         0|       1|       1| Many\r\n"));
  EXPECT_FALSE(addToMonitoringList(&counter, "OneTooMany"));
}

}  // namespace
}  // namespace mirn
