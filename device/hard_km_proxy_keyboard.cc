// The keyboard half: virtual-key codes to full snapshots of a six-slot keyboard report.
#include <algorithm>

#include "deps/pellum/text_conversions.h"
#include "device/hard_km_proxy.h"
#include "device/key_tables.h"

namespace mirn {
namespace {

// 46 Delete and 110 keypad decimal point, which differ in this bit alone.
constexpr int kDeleteKey = 46;
constexpr int kDeleteTwinBit = 0x40;

const TypedCharacter* typedCharacter(char character) {
  const auto* found = std::find_if(kTypedCharacters.begin(), kTypedCharacters.end(),
                                   [character](const TypedCharacter& typed) { return typed.character == character; });
  return found == kTypedCharacters.end() ? nullptr : found;
}

}  // namespace

int HardKMProxy::initKeyMap() {
  for (const KeyUsage& key : kKeyUsages) key_map_[key.code] = key.usage;
  return 0;
}

// A code without an entry gets one, with usage 0, when it is first looked up.
uint8_t HardKMProxy::UsageOf(int key) {
  return key_map_[static_cast<uint8_t>(key)];
}

// Into the first empty slot, unless `usage` is held in a slot behind no empty one: a key held further right is written
// a second time. That is meant.
bool HardKMProxy::HoldKey(uint8_t usage) {
  uint8_t* free_slot = nullptr;
  for (uint8_t& slot : slots_) {
    if (slot == 0 && free_slot == nullptr) {
      free_slot = &slot;
    } else if (slot == usage) {
      break;
    }
  }
  if (free_slot == nullptr) return false;
  *free_slot = usage;
  return true;
}

int HardKMProxy::SendKeyState() {
  keyboard_args_type args;
  std::copy(slots_.begin(), slots_.end(), args.keys);
  args.modifiers = modifiers_;
  return sendKeyboard(args);
}

int HardKMProxy::KeyBoardDown(int /*unused*/, int key) {
  const uint8_t bit = modifierBit(key);
  if (bit != 0) {
    modifiers_ |= bit;
  } else if (!HoldKey(UsageOf(key))) {
    return 0;
  }
  SendKeyState();
  // After Delete the held modifiers are forgotten here; the device keeps them until the next report. That is meant.
  if ((key & ~kDeleteTwinBit) == kDeleteKey) modifiers_ = 0;
  return 0;
}

int HardKMProxy::KeyBoardUp(int /*unused*/, int key) {
  const uint8_t bit = modifierBit(key);
  if (key == 0) {
    modifiers_ = 0;
    slots_.fill(0);
  } else if (bit != 0) {
    modifiers_ &= static_cast<uint8_t>(~bit);
  } else {
    // A code without an entry finds the first empty slot and sends the report unchanged.
    auto* const slot = std::find(slots_.begin(), slots_.end(), UsageOf(key));
    if (slot == slots_.end()) return 0;
    *slot = 0;
  }
  return SendKeyState();
}

int HardKMProxy::TypeString(const wchar_t* text, int /*unused*/) {
  if (text == nullptr) return 0;
  for (const char character : CW2A_(text)) {
    const TypedCharacter* typed = typedCharacter(character);
    if (typed == nullptr) continue;
    // The slots are the proxy's own: what was held is let go. The modifiers are neither sent nor changed.
    slots_.fill(0);
    keyboard_args_type press;
    slots_[0] = press.keys[0] = typed->usage;
    press.modifiers = typed->shifted ? kRightShift : 0;
    sendKeyboard(press);
    slots_.fill(0);
    sendKeyboard(keyboard_args_type{});
  }
  return 0;
}

int HardKMProxy::sendKeyboard(const keyboard_args_type& args) {
  CRefObj<i_vx_task> task = makeRef<keyboard_task>(&device_, args);
  FlushPendingMove();
  Submit(std::move(task));
  return 0;
}

}  // namespace mirn
