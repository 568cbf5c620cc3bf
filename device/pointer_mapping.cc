#include "device/pointer_mapping.h"

#include <algorithm>
#include <stdexcept>

namespace mirn {
namespace {

int16_t cut(int64_t value) {
  return static_cast<int16_t>(static_cast<uint16_t>(value));
}

// A negative index is beyond every list: it compares as unsigned.
void requireMonitor(int index, size_t count) {
  if (static_cast<size_t>(static_cast<unsigned>(index)) >= count) {
    throw std::out_of_range("monitor index beyond the list of monitors");
  }
}

int32_t originOf(int value, int16_t size) {
  const int32_t product = static_cast<int32_t>(cut(value)) * size;
  // Cut towards zero after the half is added: negative halves go up. That is meant.
  return cut(static_cast<int64_t>(product / 32767.0 + 0.5));  // NOLINT(bugprone-incorrect-roundings)
}

// A position on one monitor as a position on the whole desktop; both on the full scale.
int64_t onDesktop(int value, int16_t monitor_size, int32_t offset, int16_t desktop_size) {
  const int64_t divisor = static_cast<uint16_t>(desktop_size);
  if (divisor == 0) return 0;
  return (static_cast<int64_t>(monitor_size) * value + static_cast<int64_t>(offset) * kFullScale) / divisor;
}

int16_t scaledAxis(int16_t delta, uint32_t speed) {
  if (delta == 0) return 0;
  const float factor = static_cast<float>(speed) / 100.0F;
  const int16_t scaled = cut(static_cast<int64_t>(factor * static_cast<float>(delta)));
  if (scaled != 0) return scaled;
  return static_cast<int16_t>(delta > 0 ? 1 : -1);
}

}  // namespace

int64_t pixelOf(int value, int16_t size) {
  return static_cast<int64_t>(value) * size / kFullScale;
}

void PointerMapping::setMonitors(const std::vector<tagRECT>& monitors, int index) {
  desktop_width = 0;
  desktop_height = 0;
  requireMonitor(index, monitors.size());

  const tagRECT& selected = monitors[static_cast<size_t>(index)];
  monitor_width = cut(static_cast<int64_t>(selected.right) - selected.left);
  monitor_height = cut(static_cast<int64_t>(selected.bottom) - selected.top);

  int16_t left = 0;
  int16_t top = 0;
  int16_t right = 0;
  int16_t bottom = 0;
  for (const tagRECT& monitor : monitors) {
    right = std::max(right, cut(monitor.right));
    bottom = std::max(bottom, cut(monitor.bottom));
    left = std::min(left, cut(monitor.left));
    top = std::min(top, cut(monitor.top));
  }
  desktop_width = cut(right - left);
  desktop_height = cut(bottom - top);

  offsets.clear();
  offsets.reserve(monitors.size());
  for (const tagRECT& monitor : monitors) {
    offsets.push_back({static_cast<int32_t>(static_cast<uint32_t>(monitor.left) - static_cast<uint32_t>(left)),
                       static_cast<int32_t>(static_cast<uint32_t>(monitor.top) - static_cast<uint32_t>(top)),
                       monitor.right, monitor.bottom});
  }
}

void PointerMapping::setOrigin(int x, int y) {
  origin_x = originOf(x, monitor_width);
  origin_y = originOf(y, monitor_height);
}

PointerPosition PointerMapping::relative(int x, int y) const {
  return {cut(pixelOf(x, monitor_width) - origin_x), cut(pixelOf(y, monitor_height) - origin_y)};
}

PointerPosition PointerMapping::absolute(int x, int y, int index) const {
  if (!desktop_wide) return {cut(x), cut(y)};
  requireMonitor(index, offsets.size());
  const MonitorOffset& offset = offsets[static_cast<size_t>(index)];
  return {cut(onDesktop(x, monitor_width, offset.left, desktop_width)),
          cut(onDesktop(y, monitor_height, offset.top, desktop_height))};
}

PointerPosition PointerMapping::scaled(PointerPosition delta) const {
  return {scaledAxis(delta.x, speed), scaledAxis(delta.y, speed)};
}

}  // namespace mirn
