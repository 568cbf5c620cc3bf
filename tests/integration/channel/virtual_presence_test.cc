// The register behind the tests' and the programs' virtual worlds: what it tells, and in which order.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "apps/common/virtual_usb_registry.h"
#include "platform/mirn_identity.h"

namespace mirn::test {
namespace {

class VirtualPresence : public testing::Test {
 protected:
  static constexpr uint64_t kKey = 1;

  VirtualPresence() {
    loop_->addSource(*port_->runLoopSource());
    watch(UsbNotification::kMatched, "came", &came_);
    watch(UsbNotification::kTerminate, "went", &went_);
  }
  ~VirtualPresence() override {
    registry_.release(came_.iterator);
    registry_.release(went_.iterator);
  }

  void arrive() { registry_.arrived(kKey, {g_vid, g_pid}); }
  void leave() { registry_.gone(kKey); }
  // What the loop tells until it has told `count` things.
  std::vector<std::string> told(size_t count) {
    due_ = count;
    loop_->run();
    return told_;
  }

 private:
  struct Watch {
    VirtualPresence* test = nullptr;
    std::string word;
    UsbIterator iterator = 0;
  };

  static void onEvent(void* refcon, UsbIterator iterator) {
    const Watch& watch = *static_cast<Watch*>(refcon);
    VirtualPresence& test = *watch.test;
    while (const UsbService service = test.registry_.iteratorNext(iterator)) {
      test.registry_.release(service);
      test.told_.push_back(watch.word);
    }
    if (test.told_.size() >= test.due_) test.loop_->stop();
  }

  void watch(UsbNotification type, const char* word, Watch* watch) {
    watch->test = this;
    watch->word = word;
    ASSERT_EQ(registry_.addMatchingNotification(*port_, type, registry_.createMatching(kUsbDeviceClass), onEvent, watch,
                                                &watch->iterator),
              0);
  }

  VirtualUsbRegistry registry_;
  std::unique_ptr<UsbNotificationPort> port_ = registry_.createNotificationPort();
  std::shared_ptr<UsbRunLoop> loop_ = registry_.currentRunLoop();
  Watch came_;
  Watch went_;
  std::vector<std::string> told_;
  size_t due_ = 0;
};

// All of it while the watching thread has no turn: the last word must be who is there.
TEST_F(VirtualPresence, ComingsAndGoingsAreToldInTheOrderInWhichTheyHappened) {
  arrive();
  leave();
  arrive();
  leave();
  arrive();
  EXPECT_EQ(told(5), (std::vector<std::string>{"came", "went", "came", "went", "came"}));
}

TEST_F(VirtualPresence, WhoIsThereComesOnceAndWhoIsNotGoesNever) {
  leave();
  arrive();
  arrive();
  leave();
  leave();
  arrive();
  EXPECT_EQ(told(3), (std::vector<std::string>{"came", "went", "came"}));
}

}  // namespace
}  // namespace mirn::test
