// How "mirnctl upgrade" judges a device that misbehaves: nothing, but the new version, is a success.
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <variant>

#include "apps/mirnctl/commands.h"

namespace mirn {
namespace {

using testing::HasSubstr;

constexpr uint64_t kChunks = 8;
// More than the main loop turns between two looks of the command at the bus.
constexpr int kSteps = 50;

// What happens to the device meanwhile: called from the main loop until it says that it is done.
class Meanwhile {
 public:
  explicit Meanwhile(std::function<bool()> step) : step_(std::move(step)) {
    constexpr unsigned kEveryMs = 5;
    source_ = g_timeout_add(kEveryMs, &Meanwhile::run, this);
  }
  ~Meanwhile() {
    if (source_ != 0) {
      g_source_remove(source_);
    }
  }
  Meanwhile(const Meanwhile&) = delete;
  Meanwhile& operator=(const Meanwhile&) = delete;

  bool done() const { return source_ == 0; }

 private:
  static gboolean run(gpointer self) {
    auto* meanwhile = static_cast<Meanwhile*>(self);
    if (meanwhile->step_()) {
      meanwhile->source_ = 0;
      return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
  }

  std::function<bool()> step_;
  unsigned source_ = 0;
};

// A process has one virtual device: a case leaves it plugged in and without faults.
class MirnctlUpgradeTest : public testing::Test {
 protected:
  struct Outcome {
    int status = -1;
    Json json;
  };

  MirnctlUpgradeTest() {
    std::ofstream(path_) << "MIRN-VERSION=4.0" << std::string(1, '\0') << std::string(kChunks * 1024 - 100, 'x');
    context();
    device().setVersion("1.0.0", "");
    before_ = device().receivedCount();
    completed_ = device().firmware().completed;
  }
  ~MirnctlUpgradeTest() override {
    hostReleaseProxy();
    device().setFaultPlan({});
    if (!device().plugged()) {
      world().replug();
    }
    std::remove(path_.c_str());
  }

  static FILE* output() {
    static FILE* const output = std::tmpfile();
    return output;
  }
  static Context& context() {
    static Context* const context = [] {
      GlobalOptions options;
      options.use_virtual = true;
      options.json = true;
      options.virtual_options.version_after_replug = true;
      auto* made = new Context(options, fileno(output()), fileno(output()));
      EXPECT_FALSE(made->prepare());
      return made;
    }();
    return *context;
  }
  static VirtualWorld& world() { return *context().world(); }
  static VirtualMirn& device() { return world().mirn(); }

  static void inject(const std::string& faults) {
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(faults, &plan, &error)) << error;
    device().setFaultPlan(plan);
  }
  template <typename Record>
  uint64_t received() const {
    uint64_t count = 0;
    for (const VirtualReceived& each : device().receivedAfter(before_)) {
      count += std::holds_alternative<Record>(each.record) ? 1 : 0;
    }
    return count;
  }
  bool greetedBehindTheImage() const {
    if (device().firmware().completed == completed_) {
      return false;
    }
    bool chunk = false;
    bool greeted = false;
    for (const VirtualReceived& each : device().receivedAfter(before_)) {
      chunk = chunk || std::holds_alternative<VirtualFirmwareChunk>(each.record);
      greeted = greeted || (chunk && std::holds_alternative<VirtualHandshake>(each.record));
    }
    return greeted;
  }

  Outcome upgrade(const std::string& options) const {
    EXPECT_EQ(ftruncate(fileno(output()), 0), 0);
    EXPECT_EQ(lseek(fileno(output()), 0, SEEK_SET), 0);
    CLI::App app;
    ChosenCommand chosen;
    addUpgradeCommand(app, chosen);
    app.parse("upgrade " + options + " " + path_);
    Outcome outcome;
    outcome.status = chosen(context());
    std::string text(4096, '\0');
    ssize_t size = pread(fileno(output()), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    outcome.json = Json::parse(text, nullptr, false);
    EXPECT_TRUE(outcome.json.is_object()) << text;
    return outcome;
  }

  const std::string path_ = testing::TempDir() + "mirnctl-upgrade-" + std::to_string(getpid()) + ".bin";
  uint64_t before_ = 0;
  uint64_t completed_ = 0;
};

TEST_F(MirnctlUpgradeTest, AFirstSilentChunkEndsItAndDropsTheRest) {
  inject("drop@3+/c7");
  Outcome outcome = upgrade("--expect 1.0.0");
  EXPECT_EQ(outcome.status, kExitNotUpdated) << "the expected version, and yet no success";
  EXPECT_EQ(outcome.json["result"], "refused");
  EXPECT_GE(outcome.json["failed_chunks"], 1);
  EXPECT_EQ(outcome.json["version_after"], "1.0.0");
  EXPECT_EQ(outcome.json["expected_version"], "1.0.0");
  EXPECT_THAT(outcome.json["error"].get<std::string>(), HasSubstr("refused chunk 3 of 8 or didn't answer it"));
  // The third one's failure is seen while the fourth one is on its way, which takes ten seconds, too.
  EXPECT_LT(received<VirtualFirmwareChunk>(), kChunks);
  EXPECT_EQ(device().firmware().completed, completed_);
}

TEST_F(MirnctlUpgradeTest, TheExpectedVersionOfADeviceThatWasUnpluggedIsNoSuccess) {
  inject("unplug@3/c7");
  Meanwhile back([steps = 0]() mutable {
    if (device().plugged() || context().session().isPlugged() || ++steps < kSteps) {
      return false;
    }
    device().setFaultPlan({});
    world().replug();
    return true;
  });
  Outcome outcome = upgrade("--expect 1.0.0");
  EXPECT_TRUE(back.done());
  EXPECT_EQ(outcome.status, kExitNotUpdated);
  EXPECT_EQ(outcome.json["result"], "unplugged");
  EXPECT_EQ(outcome.json["version_after"], "1.0.0");
  EXPECT_THAT(outcome.json["error"].get<std::string>(), HasSubstr("unplugged after 2 of 8 chunks; it is back"));
}

TEST_F(MirnctlUpgradeTest, AVersionThatComesWithTheRestartIsWaitedFor) {
  // It answers with the old version, then leaves, then comes back with the new one.
  Meanwhile restart([this, steps = 0]() mutable {
    if (device().plugged()) {
      if (greetedBehindTheImage()) {
        world().unplug();
      }
    } else if (!context().session().isPlugged() && ++steps == kSteps) {
      world().replug();
      return true;
    }
    return false;
  });
  Outcome outcome = upgrade("--expect 4.0");
  EXPECT_TRUE(restart.done());
  EXPECT_EQ(outcome.status, kExitOk);
  EXPECT_EQ(outcome.json["result"], "updated");
  EXPECT_EQ(outcome.json["version_before"], "1.0.0");
  EXPECT_EQ(outcome.json["version_after"], "4.0");
  EXPECT_EQ(outcome.json["failed_chunks"], 0);
}

TEST_F(MirnctlUpgradeTest, ADeviceThatKeepsItsVersionIsAskedAgainBeforeThatCounts) {
  Outcome outcome = upgrade("");
  EXPECT_EQ(outcome.status, kExitNotUpdated);
  EXPECT_EQ(outcome.json["result"], "same-version");
  EXPECT_EQ(device().firmware().completed, completed_ + 1);
  // Before the upgrade, behind the last chunk, and when it had had the time to restart.
  EXPECT_GE(received<VirtualHandshake>(), 3U);
}

}  // namespace
}  // namespace mirn
