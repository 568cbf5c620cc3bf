#include "apps/common/chords.h"

#include "apps/common/key_position.h"

namespace mirn {
namespace {

constexpr Chord kPalette[] = {
    {"Ctrl+Alt+Del", "ctrl+alt+del"},
    {"Alt+Tab", "alt+tab"},
    {"Alt+Shift+Tab", "alt+shift+tab"},
    {"Alt+F4", "alt+f4"},
    {"Win", "win"},
    {"Win+L", "win+l"},
    {"Win+R", "win+r"},
    {"Win+D", "win+d"},
    {"Ctrl+Esc", "ctrl+esc"},
    {"Ctrl+Shift+Esc", "ctrl+shift+esc"},
    {"Ctrl+Alt+Backspace", "ctrl+alt+backspace"},
    {"Ctrl+Alt+F1", "ctrl+alt+f1"},
    {"Ctrl+Alt+F2", "ctrl+alt+f2"},
    {"Ctrl+Alt+F3", "ctrl+alt+f3"},
    {"Ctrl+Alt+F7", "ctrl+alt+f7"},
    {"Caps Lock", "capslock"},
    {"Num Lock", "numlock"},
    {"Scroll Lock", "scrolllock"},
};

}  // namespace

std::span<const Chord> chordPalette() {
  return kPalette;
}

bool playChord(InputSink& sink, std::string_view keys) {
  auto codes = virtualKeysOfChord(keys, nullptr);
  if (!codes) {
    return false;
  }
  for (int code : *codes) {
    sink.keyDown(code);
  }
  for (auto code = codes->rbegin(); code != codes->rend(); ++code) {
    sink.keyUp(*code);
  }
  return true;
}

}  // namespace mirn
