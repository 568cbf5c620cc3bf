// Which keys a person holds down, and what the target has to hear of it: one press, one release for each.
#pragma once

#include <map>
#include <vector>

#include "apps/common/input_sink.h"

namespace mirn {

// Bound to the main thread. Keys are told apart by a hardware code of the caller's choice.
class HeldKeys {
 public:
  // The sink is borrowed and outlives this object.
  explicit HeldKeys(InputSink& sink) : sink_(sink) {}

  // A repeated press of a held key (auto-repeat) sends nothing: repeating is the target's business.
  void press(unsigned hardware_code, int virtual_key);
  void release(unsigned hardware_code);

  // Forgets what is held without sending anything: all was released, or the device or its proxy is gone.
  void forget();

  bool holdsAny() const { return !held_.empty(); }

 private:
  bool holds(int virtual_key) const;

  InputSink& sink_;
  std::map<unsigned, int> held_;  // hardware code -> virtual key
  std::vector<int> modifiers_;    // held modifier keys in the order of pressing
};

// Releases everything on a sink: keyUp 0, then the three button-ups.
void releaseEverythingOn(InputSink& sink, int x, int y);

}  // namespace mirn
