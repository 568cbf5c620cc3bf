// Key combinations that the desktop in front of the person would keep for itself, as a palette.
#pragma once

#include <span>
#include <string_view>

#include "apps/common/input_sink.h"

namespace mirn {

struct Chord {
  const char* label;  // as shown: "Ctrl+Alt+Del"
  const char* keys;   // as virtualKeysOfChord() reads it: "ctrl+alt+del"
};

std::span<const Chord> chordPalette();

// Presses the keys in order and releases them in reverse; false (and nothing sent) for an unknown key.
bool playChord(InputSink& sink, std::string_view keys);

}  // namespace mirn
