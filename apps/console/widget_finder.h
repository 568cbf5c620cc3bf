// Finds what a person sees in the program's windows by its text, so that tests press the very buttons.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace mirn {

// A widget on the screen, in logical pixels of its window's surface.
struct WidgetPlace {
  std::string window;  // the window's title
  double left = 0;
  double top = 0;
  int width = 0;
  int height = 0;
  bool sensitive = false;
  std::string text;  // of a label or a field
};

// All of these: main thread, windows of this program, shown widgets alone.

// The label that reads `text` (mnemonic marks left out).
std::optional<WidgetPlace> findLabel(const std::string& text);
// The field that the label `text` stands for.
std::optional<WidgetPlace> findField(const std::string& text);
// All labels' texts.
std::vector<std::string> shownTexts();

// A window and how many frames it has drawn so far.
struct WindowFrames {
  std::string title;
  int64_t frames = 0;
};
std::vector<WindowFrames> shownWindows();
// Asks every window for one more frame.
void redrawWindows();

}  // namespace mirn
