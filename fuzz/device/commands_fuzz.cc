// The command layer with a hostile device: whatever comes as an answer, each operation ends with one of its results.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "device/hard_key_mouse.h"
#include "platform/mirn_identity.h"
#include "tests/unit/device/scripted_hid.h"
#include "virtual/virtual_clock.h"

namespace mirn {
namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

void zeroOrFailed(int result) {
  require(result == 0 || result == -1);
}

void byteOrFailed(int result) {
  require(result >= -1 && result <= 255);
}

// One prepared read: what it returns, then up to 65 bytes.
size_t addRead(ScriptedHid& hid, const uint8_t* data, size_t size) {
  constexpr int kResults[] = {64, 64, 64, 64, 65, 0, 1, -1};
  if (size < 2) {
    return size;
  }
  const size_t bytes = std::min<size_t>(size - 2, data[1] % 66);
  hid.reads.push_back({kResults[data[0] % 8], {data + 2, data + 2 + bytes}});
  hid.write_results.push_back(data[0] & 0x40 ? -1 : 64);
  return 2 + bytes;
}

void oneOperation(hard_key_mouse& device, uint8_t which) {
  vx_led_status_def led;
  _get_dev_info_reply reply;
  std::string text;
  upgrade_args_ex_type chunk;
  chunk.id = which;
  chunk.total = 100;
  std::memset(chunk.data, which, sizeof(chunk.data));
  switch (which % 12) {
    case 0:
      return zeroOrFailed(device.shake_hand());
    case 1:
      return zeroOrFailed(device.send_abs_mouse({.x = 170, .y = 204}));
    case 2:
      return zeroOrFailed(device.send_keyboard({.keys = {which}}));
    case 3:
      return zeroOrFailed(device.send_rla_mouse({.x = static_cast<int16_t>(which * 4)}));
    case 4:
      return zeroOrFailed(device.send_new_mouse_logic_abs_mouse({.type = which}));
    case 5:
      return zeroOrFailed(device.set_vx_led_status({.status = which}));
    case 6:
      return zeroOrFailed(device.get_vx_led_status(&led));
    case 7:
      return byteOrFailed(device.set_led_status(which));
    case 8:
      return byteOrFailed(device.get_led_status());
    case 9:
      return zeroOrFailed(device.upgrade_firmware(chunk));
    case 10:
      text = device.get_dev_info(&reply, &text) == 0 ? text : device.version_text();
      return require(text == device.version_text());
    default:
      return zeroOrFailed(device.send_set_dev_info(std::string(which / 12, 'n')));
  }
}

}  // namespace
}  // namespace mirn

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // The logger's lines go to standard output; the fuzzer speaks on standard error.
  return std::freopen("/dev/null", "w", stdout) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const mirn::ScopedVirtualClock clock;
  mirn::ScriptedHid hid;
  hid.present = {{mirn::g_vid, mirn::g_pid}};
  // The decoder belongs to the process: an input must not depend on the one before.
  hid.reads = {{64, {0x00, 0xAA, 0xCC, 0x00}}};
  const auto device = mirn::makeRef<mirn::hard_key_mouse>(mirn::g_vid, mirn::g_pid);
  while (size >= 3) {
    const uint8_t which = data[0];
    const size_t taken = mirn::addRead(hid, data + 1, size - 1);
    data += 1 + taken;
    size -= 1 + taken;
    mirn::oneOperation(*device, which);
    hid.reads.clear();
    hid.write_results.clear();
    hid.writes.clear();
  }
  return 0;
}
