// Draws the target's desktop with cairo, once per size, and afterwards only what has changed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "virtual/frame_strip.h"
#include "virtual/target_text.h"
#include "virtual/virtual_target.h"

struct _cairo;
struct _cairo_surface;

namespace mirn {

// Everything that can be seen, with a counter per part that rises whenever the part changes.
struct TargetView {
  TargetInputState input;
  TargetText text;
  std::vector<TargetClick> clicks;
  std::string firmware;
  int scroll_row = 0;
  uint64_t text_version = 0;
  uint64_t list_version = 0;
  uint64_t clicks_version = 0;
  uint64_t status_version = 0;  // modifiers, buttons, LED, firmware
};

// Pixel rows first..last-1.
struct RowRange {
  int first = 0;
  int last = 0;

  bool empty() const { return first >= last; }
};

// One screen of one size. Bound to one thread at a time.
class TargetScreen {
 public:
  // 1920x1080 or 1280x720.
  TargetScreen(int width, int height);
  ~TargetScreen();
  TargetScreen(const TargetScreen&) = delete;
  TargetScreen& operator=(const TargetScreen&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }

  // Brings the picture up to date and appends the rows that changed to `dirty`.
  void update(const TargetView& view, std::vector<RowRange>& dirty);
  // Paints the strip's cells; these rows are always the same (stripRows()) and not reported by update().
  void paintStrip(const StripContent& content);
  RowRange stripRows() const;

  // Blue, green, red and one byte without a meaning; valid until the next call.
  const uint8_t* pixels() const;
  size_t stride() const;

 private:
  struct Box {
    int x;
    int y;
    int width;
    int height;
  };
  using Surface = std::unique_ptr<_cairo_surface, void (*)(_cairo_surface*)>;
  using Context = std::unique_ptr<_cairo, void (*)(_cairo*)>;

  void drawBackground();
  void drawTextWindow(const TargetView& view);
  void drawListWindow(const TargetView& view);
  void drawStatus(const TargetView& view);
  void drawLamp(double x, const char* label, bool lit);
  void drawOver(const TargetView& view, const std::vector<Box>& changed);
  void drawClicks(const TargetView& view);
  void drawPointer(const TargetView& view);
  void windowFrame(const Box& box, const char* title);
  Box cells(int x, int y, int width, int height) const;
  Box pointerBox(const TargetView& view) const;
  void restore(const Box& box);

  const int width_;
  const int height_;
  const int cell_;  // pixels: a screen is 80 x 45 cells
  // The desktop without pointer and click marks, and what is shown. Drawing on the first, then copying what changed,
  // keeps the pointer from leaving traces.
  Surface desktop_;
  Surface shown_;
  Context desktop_cr_;
  Context shown_cr_;
  TargetView drawn_;
  Box pointer_{};
  bool first_ = true;
};

}  // namespace mirn
