// Positions on the selected monitor's 0..32767 scale, turned into what a pointer record carries. Pure arithmetic,
// reentrant; every result is cut to 16 bits because the record is.
#pragma once

#include <cstdint>
#include <vector>

#include "device/key_mouse_proxy.h"

namespace mirn {

inline constexpr int kFullScale = 32767;

struct PointerPosition {
  int16_t x = 0;
  int16_t y = 0;
};

// One entry per monitor: left and top count from the desktop's corner, right and bottom are the monitor's own.
struct MonitorOffset {
  int32_t left = 0;
  int32_t top = 0;
  int32_t right = 0;
  int32_t bottom = 0;
};

struct PointerMapping {
  int16_t monitor_width = 0;   // pixels of the selected monitor
  int16_t monitor_height = 0;  //
  int16_t desktop_width = 0;   // pixels of the box around all monitors and (0, 0); a divisor reads it as unsigned
  int16_t desktop_height = 0;  //
  std::vector<MonitorOffset> offsets;
  int32_t origin_x = 0;  // pixels; hold 16-bit values
  int32_t origin_y = 0;
  uint32_t speed = 0;         // percent; 0 = unset
  bool desktop_wide = false;  // part of the mapping, switched on by no operation of the proxy

  // Takes the monitors in; throws std::out_of_range, with the desktop size at 0 and nothing else changed, when
  // `index` is negative or beyond the list.
  void setMonitors(const std::vector<tagRECT>& monitors, int index);
  // The origin in pixels of a position; negative values are cut after adding one half, which is no rounding.
  void setOrigin(int x, int y);

  // Pixels from the origin.
  PointerPosition relative(int x, int y) const;
  // Unchanged, or on the whole desktop's scale when `desktop_wide` is set; throws std::out_of_range then for an index
  // beyond the monitors.
  PointerPosition absolute(int x, int y, int index) const;
  // `delta` at the set speed; a delta other than 0 never becomes 0.
  PointerPosition scaled(PointerPosition delta) const;
};

// trunc(value * size / 32767)
int64_t pixelOf(int value, int16_t size);

}  // namespace mirn
