// What each fault of the link makes of each command: all of it in one table.
#include <gtest/gtest.h>

#include <array>
#include <string_view>

#include "tests/unit/device/wire_fixture.h"

namespace mirn {
namespace {

// The columns. The three mouse commands and the query of information wait 50 ms, everything else at least 200 ms.
enum Command : uint8_t {
  kShake,
  kAbs,
  kKeys,
  kRel,  // of two steps
  kRaw,  // brings no answer, so nothing that happens to answers touches it
  kSetLed,
  kGetLed,
  kGreeting,
  kChunk,
  kLastChunk,  // its failure counts as success
  kInfo,
  kName,
  kSetLedByte,  // the answer's first byte
  kGetLedByte,
  kCommands
};

constexpr uint8_t kLedStatus = 0x33;
constexpr int kSt = kLedStatus;

struct FaultRow {
  const char* fault;  // of the command's first exchange
  std::array<int, kCommands> results;
};

// clang-format off
constexpr FaultRow kTable[] = {
    //                shake abs keys rel raw set get greet chunk last info name set1 get1
    {"",              { 0,   0,   0,  0,  0,  0,  0,   0,    0,   0,   0,   0,   0,  kSt}},
    {"drop",          {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"lose",          {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"delay=80",      { 0,  -1,   0, -1,  0,  0,  0,   0,    0,   0,  -1,   0,   0,  kSt}},
    {"corrupt",       {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"truncate=7",    {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"split=6",       {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"duplicate",     { 0,   0,   0,  0,  0,  0,  0,   0,    0,   0,   0,   0,   0,  kSt}},
    // Greeting and queries take any answer; the LED's byte operations return the refusal's status.
    {"refuse=7",      { 0,  -1,  -1, -1,  0, -1,  0,  -1,   -1,   0,   0,  -1,   7,   7}},
    // The information's answer of 42 bytes does not fit behind it into one report, the others do.
    {"garbage=30",    { 0,   0,   0,  0,  0,  0,  0,   0,    0,   0,  -1,   0,   0,  kSt}},
    {"garbage=70",    {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"garbage=xAACC", {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"stall=30",      { 0,   0,   0,  0,  0,  0,  0,   0,    0,   0,   0,   0,   0,  kSt}},
    {"write-error",   {-1,  -1,  -1, -1, -1, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"read-error",    {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"unplug",        {-1,  -1,  -1, -1, -1, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
    {"unplug-after",  {-1,  -1,  -1, -1,  0, -1, -1,  -1,   -1,   0,  -1,  -1,  -1,  -1}},
};
// clang-format on

class FaultTable : public WireTest {
 protected:
  // A device and a decoder that know of nothing earlier.
  void startAfresh(const std::string& fault) {
    settleDecoder();
    mirn_->setFaultPlan({});
    mirn_->setLed({kLedStatus, 0});
    clock_.get().sleepFor(std::chrono::seconds(1));  // an answer that is late would reach the next connection
    device_.reset();
    mirn_->plug();
    faults(fault.empty() ? "" : fault + "@1");
  }

  int run(Command command) {
    vx_led_status_def led{kLedStatus, 0};
    _get_dev_info_reply reply;
    std::string version;
    upgrade_args_ex_type chunk;
    chunk.total = command == kLastChunk ? 1 : 9;
    switch (command) {
      case kShake:
        return device().shake_hand();
      case kAbs:
        return device().send_abs_mouse({});
      case kKeys:
        return device().send_keyboard({});
      case kRel:
        return device().send_rla_mouse({.x = 130});
      case kRaw:
        return device().send_new_mouse_logic_abs_mouse({});
      case kSetLed:
        return device().set_vx_led_status(led);
      case kGetLed:
        return device().get_vx_led_status(&led);
      case kGreeting:
        return device().new_firmware_handshake({});
      case kChunk:
      case kLastChunk:
        return device().upgrade_firmware(chunk);
      case kInfo:
        return device().get_dev_info(&reply, &version);
      case kName:
        return device().send_set_dev_info("n");
      case kSetLedByte:
        return device().set_led_status(kLedStatus);
      case kGetLedByte:
        return device().get_led_status();
      case kCommands:
        break;
    }
    ADD_FAILURE() << "no command";
    return -2;
  }
};

TEST_F(FaultTable, EachFaultAtEachCommandEndsWithItsResult) {
  for (const FaultRow& row : kTable) {
    for (uint8_t column = 0; column < kCommands; ++column) {
      startAfresh(row.fault);
      EXPECT_EQ(run(Command{column}), row.results[column]) << "\"" << row.fault << "\" at command " << int{column};
      // Two exchanges later whatever was left over has been read or overtaken.
      device().send_abs_mouse({});
      device().send_abs_mouse({});
      const bool gone = std::string_view(row.fault).starts_with("unplug");
      EXPECT_EQ(mirn_->plugged(), !gone);
      EXPECT_EQ(device().send_keyboard({}), gone ? -1 : 0)
          << "after \"" << row.fault << "\" at command " << int{column};
    }
  }
}

}  // namespace
}  // namespace mirn
