#include "virtual/target_screen.h"

#include <cairo/cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "virtual/frame_strip.h"

#ifdef MIRN_SANITIZED_ADDRESS
// fontconfig keeps what it has read of its configuration until the process ends, and loses some of the pointers to it.
extern "C" __attribute__((weak, visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig";
}
#endif

namespace mirn {
namespace {

struct Colour {
  double r;
  double g;
  double b;
};

constexpr Colour kInk{0.10, 0.11, 0.13};
constexpr Colour kPaper{0.99, 0.99, 0.97};
constexpr Colour kBar{0.16, 0.18, 0.22};
constexpr Colour kDim{0.45, 0.48, 0.53};
constexpr Colour kLit{0.98, 0.75, 0.18};
constexpr Colour kTitle{0.24, 0.42, 0.65};
constexpr Colour kLeftClick{0.85, 0.20, 0.20};
constexpr Colour kRightClick{0.15, 0.60, 0.25};
constexpr Colour kMiddleClick{0.20, 0.35, 0.85};

// The desktop's layout, in cells of 1/80 of the width.
constexpr int kRows = 45;
constexpr int kStripTop = kRows - kStripRows;
constexpr int kTextLines = 22;
constexpr int kListRows = 26;
constexpr int kListLength = 1000;

void setColour(cairo_t* cr, const Colour& colour) {
  cairo_set_source_rgb(cr, colour.r, colour.g, colour.b);
}

void font(cairo_t* cr, const char* family, double pixels, bool bold = false) {
  cairo_select_font_face(cr, family, CAIRO_FONT_SLANT_NORMAL, bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
  cairo_set_font_size(cr, pixels);
}

void label(cairo_t* cr, double x, double y, const char* text) {
  cairo_move_to(cr, x, y);
  cairo_show_text(cr, text);
}

void box(cairo_t* cr, double x, double y, double width, double height, const Colour& colour) {
  setColour(cr, colour);
  cairo_rectangle(cr, x, y, width, height);
  cairo_fill(cr);
}

const Colour& clickColour(uint8_t button) {
  if (button == kTargetLeftButton) {
    return kLeftClick;
  }
  return button == kTargetRightButton ? kRightClick : kMiddleClick;
}

int toPixel(int position, int pixels) {
  return static_cast<int>(std::lround(static_cast<double>(position) * (pixels - 1) / kTargetFullScale));
}

}  // namespace

TargetScreen::TargetScreen(int width, int height)
    : width_(width),
      height_(height),
      cell_(width / kStripCellsPerWidth),
      desktop_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), cairo_surface_destroy),
      shown_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), cairo_surface_destroy),
      desktop_cr_(cairo_create(desktop_.get()), cairo_destroy),
      shown_cr_(cairo_create(shown_.get()), cairo_destroy) {
  cairo_set_antialias(desktop_cr_.get(), CAIRO_ANTIALIAS_GRAY);
}

TargetScreen::~TargetScreen() = default;

const uint8_t* TargetScreen::pixels() const {
  return cairo_image_surface_get_data(shown_.get());
}

size_t TargetScreen::stride() const {
  return static_cast<size_t>(cairo_image_surface_get_stride(shown_.get()));
}

TargetScreen::Box TargetScreen::cells(int x, int y, int width, int height) const {
  return {x * cell_, y * cell_, width * cell_, height * cell_};
}

RowRange TargetScreen::stripRows() const {
  return {kStripTop * cell_, height_};
}

void TargetScreen::update(const TargetView& view, std::vector<RowRange>& dirty) {
  std::vector<Box> changed;
  if (first_) {
    drawBackground();
    changed.push_back({0, 0, width_, height_});
  }
  if (first_ || view.text_version != drawn_.text_version) {
    drawTextWindow(view);
    changed.push_back(cells(3, 2, 55, 33));
  }
  if (first_ || view.list_version != drawn_.list_version) {
    drawListWindow(view);
    changed.push_back(cells(61, 2, 17, 33));
  }
  if (first_ || view.status_version != drawn_.status_version) {
    drawStatus(view);
    changed.push_back(cells(0, kStripTop, kStripCellsPerWidth - kStripColumns, kStripRows));
  }
  if (view.clicks_version != drawn_.clicks_version) {
    changed.push_back({0, 0, width_, kStripTop * cell_});  // marks may stand anywhere above the bar
  }
  const Box pointer = pointerBox(view);
  if (first_ || !changed.empty() || pointer.x != pointer_.x || pointer.y != pointer_.y) {
    changed.push_back(pointer_);
    changed.push_back(pointer);
    drawOver(view, changed);
  }
  for (const Box& part : changed) {
    const RowRange rows{std::max(part.y, 0), std::min(part.y + part.height, height_)};
    if (!rows.empty()) {
      dirty.push_back(rows);
    }
  }
  pointer_ = pointer;
  drawn_ = view;
  first_ = false;
  cairo_surface_flush(shown_.get());
}

void TargetScreen::paintStrip(const StripContent& content) {
  cairo_surface_flush(shown_.get());
  uint8_t* data = cairo_image_surface_get_data(shown_.get());
  const StripBits bits = encodeStrip(content);
  const int left = width_ - kStripColumns * cell_;
  for (int row = 0; row < kStripRows; ++row) {
    uint8_t* first = data + static_cast<size_t>(kStripTop + row) * static_cast<size_t>(cell_) * stride();
    for (int column = 0; column < kStripColumns; ++column) {
      const bool white = bits[static_cast<size_t>(row) * kStripColumns + static_cast<size_t>(column)];
      const size_t x = static_cast<size_t>(left) + static_cast<size_t>(column) * static_cast<size_t>(cell_);
      std::fill_n(first + x * 4, static_cast<size_t>(cell_) * 4, white ? 0xFF : 0x00);
    }
    const uint8_t* source = first + static_cast<size_t>(left) * 4;
    for (int y = 1; y < cell_; ++y) {
      std::copy_n(source, static_cast<size_t>(kStripColumns * cell_) * 4,
                  first + static_cast<size_t>(y) * stride() + static_cast<size_t>(left) * 4);
    }
  }
  cairo_surface_mark_dirty(shown_.get());
}

void TargetScreen::drawBackground() {
  cairo_t* cr = desktop_cr_.get();
  cairo_pattern_t* shade = cairo_pattern_create_linear(0, 0, width_, height_);
  cairo_pattern_add_color_stop_rgb(shade, 0, 0.18, 0.36, 0.47);
  cairo_pattern_add_color_stop_rgb(shade, 1, 0.34, 0.23, 0.42);
  cairo_set_source(cr, shade);
  cairo_paint(cr);
  cairo_pattern_destroy(shade);
  box(cr, 0, kStripTop * cell_, width_, kStripRows * cell_, kBar);
  font(cr, "sans-serif", cell_ * 0.7);
  setColour(cr, kPaper);
  for (int i = 0; i < 6; ++i) {
    static constexpr const char* kIcons[] = {"Home", "Mail", "Files", "Web", "Music", "Bin"};
    const double x = (4 + i * 9) * cell_;
    box(cr, x, 36.2 * cell_, 3.2 * cell_, 3.2 * cell_, i % 2 == 0 ? kTitle : kRightClick);
    setColour(cr, kPaper);
    label(cr, x + 0.2 * cell_, 40.6 * cell_, kIcons[i]);
  }
}

void TargetScreen::windowFrame(const Box& place, const char* title) {
  cairo_t* cr = desktop_cr_.get();
  box(cr, place.x, place.y, place.width, place.height, kPaper);
  box(cr, place.x, place.y, place.width, 2.0 * cell_, kTitle);
  font(cr, "sans-serif", cell_ * 0.9, true);
  setColour(cr, kPaper);
  label(cr, place.x + cell_, place.y + 1.35 * cell_, title);
}

void TargetScreen::drawTextWindow(const TargetView& view) {
  cairo_t* cr = desktop_cr_.get();
  const Box place = cells(3, 2, 55, 33);
  windowFrame(place, "Notes");
  font(cr, "monospace", cell_ * 1.2);
  cairo_text_extents_t extents;
  cairo_text_extents(cr, "M", &extents);
  const double line_height = cell_ * 1.35;
  const double left = place.x + cell_;
  const double top = place.y + 2.5 * cell_;
  const auto& lines = view.text.lines();
  const size_t caret = view.text.caretLine();
  const size_t first = caret < kTextLines ? 0 : caret - kTextLines + 1;
  cairo_save(cr);
  cairo_rectangle(cr, place.x, place.y, place.width, place.height);
  cairo_clip(cr);
  setColour(cr, kInk);
  for (size_t i = first; i < lines.size() && i < first + kTextLines; ++i) {
    label(cr, left, top + (static_cast<double>(i - first) + 0.8) * line_height, lines[i].c_str());
  }
  box(cr, left + static_cast<double>(view.text.caretColumn()) * extents.x_advance,
      top + static_cast<double>(caret - first) * line_height, std::max(2.0, cell_ * 0.12), line_height, kLeftClick);
  cairo_restore(cr);
}

void TargetScreen::drawListWindow(const TargetView& view) {
  cairo_t* cr = desktop_cr_.get();
  const Box place = cells(61, 2, 17, 33);
  windowFrame(place, "List");
  font(cr, "sans-serif", cell_ * 0.8);
  const double line_height = cell_ * 1.15;
  for (int i = 0; i < kListRows; ++i) {
    const int row = view.scroll_row + i;
    if (row >= kListLength) {
      break;
    }
    const double y = place.y + 2.4 * cell_ + i * line_height;
    box(cr, place.x + 0.3 * cell_, y, 15.4 * cell_, line_height, row % 2 == 0 ? Colour{0.91, 0.93, 0.96} : kPaper);
    char text[32];
    std::snprintf(text, sizeof text, "Entry %03d", row);
    setColour(cr, kInk);
    label(cr, place.x + cell_, y + 0.85 * cell_, text);
  }
  const double track = 30.0 * cell_;
  const double knob = track * view.scroll_row / kListLength;
  box(cr, place.x + 16.1 * cell_, place.y + 2.4 * cell_ + knob, 0.6 * cell_, 2.0 * cell_, kDim);
}

void TargetScreen::drawLamp(double x, const char* text, bool lit) {
  cairo_t* cr = desktop_cr_.get();
  box(cr, x * cell_, (kStripTop + 0.25) * cell_, 2.6 * cell_, 0.7 * cell_, lit ? kLit : kDim);
  setColour(cr, lit ? kInk : kBar);
  label(cr, (x + 0.2) * cell_, (kStripTop + 0.82) * cell_, text);
}

void TargetScreen::drawStatus(const TargetView& view) {
  cairo_t* cr = desktop_cr_.get();
  const TargetInputState& input = view.input;
  box(cr, 0, kStripTop * cell_, (kStripCellsPerWidth - kStripColumns) * cell_, kStripRows * cell_, kBar);
  font(cr, "sans-serif", cell_ * 0.6, true);
  drawLamp(0.5, "Ctrl", (input.modifiers & kTargetCtrl) != 0);
  drawLamp(3.5, "Shift", (input.modifiers & kTargetShift) != 0);
  drawLamp(6.5, "Alt", (input.modifiers & kTargetAlt) != 0);
  drawLamp(9.5, "Gui", (input.modifiers & kTargetGui) != 0);
  drawLamp(12.5, "Caps", input.caps_lock);
  drawLamp(17, "Left", (input.buttons & kTargetLeftButton) != 0);
  drawLamp(20, "Mid", (input.buttons & kTargetMiddleButton) != 0);
  drawLamp(23, "Right", (input.buttons & kTargetRightButton) != 0);
  drawLamp(28, "LED", input.led_status != 0);
  std::string keys = "keys";
  for (const uint8_t usage : input.keys) {
    char text[8];
    std::snprintf(text, sizeof text, " %02x", usage);
    keys += usage != 0 ? text : " --";
  }
  char text[64];
  std::snprintf(text, sizeof text, "led %u/%u", input.led_status, input.led_param);
  setColour(cr, kPaper);
  label(cr, 0.5 * cell_, (kStripTop + 1.7) * cell_, keys.c_str());
  label(cr, 17 * cell_, (kStripTop + 1.7) * cell_, text);
  label(cr, 25 * cell_, (kStripTop + 1.7) * cell_, ("firmware " + view.firmware).c_str());
}

void TargetScreen::restore(const Box& part) {
  if (part.width <= 0 || part.height <= 0) {
    return;
  }
  cairo_t* cr = shown_cr_.get();
  cairo_set_source_surface(cr, desktop_.get(), 0, 0);
  cairo_set_operator(cr, CAIRO_OPERATOR_SOURCE);
  cairo_rectangle(cr, part.x, part.y, part.width, part.height);
  cairo_fill(cr);
  cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
}

// Click marks and pointer are drawn anew only inside what was restored: their soft edges would grow darker otherwise.
void TargetScreen::drawOver(const TargetView& view, const std::vector<Box>& changed) {
  cairo_t* cr = shown_cr_.get();
  for (const Box& part : changed) {
    restore(part);
  }
  cairo_save(cr);
  for (const Box& part : changed) {
    cairo_rectangle(cr, part.x, part.y, part.width, part.height);
  }
  cairo_clip(cr);
  drawClicks(view);
  drawPointer(view);
  cairo_restore(cr);
}

void TargetScreen::drawClicks(const TargetView& view) {
  cairo_t* cr = shown_cr_.get();
  cairo_save(cr);
  cairo_rectangle(cr, 0, 0, width_, kStripTop * cell_);
  cairo_clip(cr);
  for (const TargetClick& click : view.clicks) {
    const double x = toPixel(click.x, width_);
    const double y = toPixel(click.y, height_);
    cairo_new_sub_path(cr);
    cairo_arc(cr, x, y, cell_ * 0.5, 0, 2 * std::numbers::pi);
    setColour(cr, clickColour(click.button));
    cairo_fill(cr);
  }
  cairo_restore(cr);
}

TargetScreen::Box TargetScreen::pointerBox(const TargetView& view) const {
  const int x = toPixel(view.input.pointer_x, width_);
  const int y = toPixel(view.input.pointer_y, height_);
  return {x - 2, y - 2, cell_ + 4, cell_ * 3 / 2 + 4};
}

void TargetScreen::drawPointer(const TargetView& view) {
  cairo_t* cr = shown_cr_.get();
  const double x = toPixel(view.input.pointer_x, width_);
  const double y = toPixel(view.input.pointer_y, height_);
  const double unit = cell_ / 12.0;
  static constexpr double kArrow[][2] = {{0, 15}, {3.6, 11.6}, {6, 17}, {8.4, 16}, {6, 10.8}, {11, 10.6}};
  cairo_move_to(cr, x, y);
  for (const auto& point : kArrow) {
    cairo_line_to(cr, x + point[0] * unit, y + point[1] * unit);
  }
  cairo_close_path(cr);
  setColour(cr, kInk);
  cairo_fill_preserve(cr);
  setColour(cr, kPaper);
  cairo_set_line_width(cr, std::max(1.0, unit));
  cairo_stroke(cr);
}

}  // namespace mirn
