// mirnctl's commands in this process, on its one virtual device.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <iterator>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "apps/mirnctl/commands.h"

namespace mirn {

// All commands of a process share one context, each with a new proxy as in a process of its own.
class MirnctlFixture : public testing::Test {
 protected:
  static constexpr uint8_t kMouseCommand = 2;
  static constexpr uint8_t kKeyboardCommand = 3;

  MirnctlFixture() { context(); }

  static Context& context() {
    static Context* const context = [] {
      GlobalOptions options;
      options.use_virtual = true;
      int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      auto* made = new Context(options, null, errors());
      EXPECT_FALSE(made->prepare());
      return made;
    }();
    return *context;
  }

  static VirtualMirn& device() { return context().world()->mirn(); }
  static VirtualTarget& target() { return context().world()->target(); }

  // As a new process finds the device: what the old proxy let go of is over.
  void begin() {
    hostReleaseProxy();
    before_ = device().receivedCount();
    device().setFaultPlan(faults_);
  }
  // The exit status of a command line, and in said() its error lines.
  int run(const std::string& line) {
    std::istringstream words(line);
    return runWords({std::istream_iterator<std::string>(words), {}});
  }
  int runWords(const std::vector<std::string>& words) {
    begin();
    EXPECT_EQ(ftruncate(errors(), 0), 0);
    EXPECT_EQ(lseek(errors(), 0, SEEK_SET), 0);
    CLI::App app;
    ChosenCommand chosen;
    addInfoCommand(app, chosen);
    addSetNameCommand(app, chosen);
    addLedCommand(app, chosen);
    addKeyCommand(app, chosen);
    addTypeCommand(app, chosen);
    addMouseCommand(app, chosen);
    addLatencyCommand(app, chosen);
    addUpgradeCommand(app, chosen);
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
    return chosen(context());
  }

  static std::string said() {
    std::array<char, 4096> text{};
    ssize_t size = pread(errors(), text.data(), text.size(), 0);
    return {text.data(), static_cast<size_t>(size < 0 ? 0 : size)};
  }

  // What the device took since the last command began.
  std::vector<VirtualReceived> received() const { return device().receivedAfter(before_); }
  std::vector<VirtualMouse> pointerRecords() const {
    std::vector<VirtualMouse> records;
    for (const VirtualReceived& one : received()) {
      if (const auto* mouse = std::get_if<VirtualMouse>(&one.record)) {
        records.push_back(*mouse);
      }
    }
    return records;
  }

  // Of the commands to come; each counts its exchanges from 1.
  void setFaults(const std::string& text) {
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(text, &faults_, &error)) << error;
  }

 private:
  static int errors() {
    static const int file = memfd_create("errors", MFD_CLOEXEC);
    return file;
  }

  uint64_t before_ = 0;
  FaultPlan faults_;
};

}  // namespace mirn
