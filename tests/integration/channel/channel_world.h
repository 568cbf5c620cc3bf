// The whole stack in one process: an engine with a plug-in, virtual Mirns behind the HID and capture back ends, a USB
// register that knows them. Channel bytes go in; what the devices received and what the textures show comes out.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "apps/common/virtual_usb_registry.h"
#include "embedding/standard_codec.h"
#include "host/engine.h"
#include "virtual/virtual_setup.h"

namespace mirn::test {

inline constexpr std::chrono::seconds kPatience{20};

// A device that answers at once.
VirtualMirnSettings quickMirn();
// A camera that delivers its first frame at once.
VirtualCaptureSettings quickCamera();

struct WorldOptions {
  bool plugged = true;
  bool second_plugin = false;
  VirtualMirnSettings mirn = quickMirn();
  VirtualCaptureSettings camera = quickCamera();
};

// One at a time. Closes the connection when it goes; the manager stays, as in an application.
class ChannelWorld {
 public:
  explicit ChannelWorld(const WorldOptions& options = {});
  ~ChannelWorld();
  ChannelWorld(const ChannelWorld&) = delete;
  ChannelWorld& operator=(const ChannelWorld&) = delete;

  // The reply in hex, "no-reply" or "not-implemented".
  std::string reply(std::string_view method, const Value& arguments = {});
  std::string replyToBytes(const std::vector<uint8_t>& message);
  // The value of a successful reply; a test failure otherwise.
  Value value(std::string_view method, const Value& arguments = {});

  // Serves the main loop until it holds, for kPatience at most.
  bool eventually(const std::function<bool()>& done);

  void unplug();
  void replug();

  Engine& engine() { return *engine_; }
  void closeEngine() { engine_.reset(); }
  VirtualSetup& setup() { return setup_; }
  VirtualMirn& mirn() { return setup_.mirn(); }

  // The records of one kind that the device received after the first `number` ones.
  template <typename Record>
  std::vector<Record> received(uint64_t number = 0) {
    std::vector<Record> records;
    for (const VirtualReceived& each : mirn().receivedAfter(number)) {
      if (const auto* record = std::get_if<Record>(&each.record)) records.push_back(*record);
    }
    return records;
  }

 private:
  VirtualSetup setup_;
  std::unique_ptr<Engine> engine_;
};

// Replies as the channel carries them.
std::string hexOf(const std::vector<uint8_t>& bytes);
std::string success(const Value& value = {});
std::string argumentsError();  // "INVALID_ARGUMENT", "arguments must be dictionary"

}  // namespace mirn::test
