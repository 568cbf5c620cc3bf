#include "virtual/usb/video_formats.h"

#include <algorithm>

#include "virtual/usb/byte_order.h"

namespace mirn {

namespace {

// dwFrameInterval, the one field without which a wish is none.
constexpr size_t kSmallestProbe = 8;
constexpr uint32_t kClockHertz = 48000000;

uint32_t nearestInterval(uint32_t wanted) {
  if (wanted == 0) return kFrameIntervals.front();
  uint32_t best = kFrameIntervals.front();
  const auto distance = [wanted](uint32_t interval) {
    return interval > wanted ? interval - wanted : wanted - interval;
  };
  for (const uint32_t interval : kFrameIntervals) {
    if (distance(interval) < distance(best)) best = interval;
  }
  return best;
}

}  // namespace

uint32_t maxVideoFrameBytes(const VideoSetting& setting) {
  const uint32_t pixels = static_cast<uint32_t>(setting.size().width) * setting.size().height;
  // MJPEG: two bytes a pixel, which no real picture reaches.
  return setting.format() == TargetFormat::kNv12 ? pixels * 3 / 2 : pixels * 2;
}

std::optional<VideoSetting> negotiateVideo(std::span<const uint8_t> probe) {
  if (probe.size() < kSmallestProbe) return std::nullopt;
  VideoSetting setting;
  setting.format_index = probe[2] >= 1 && probe[2] <= kVideoFormats.size() ? probe[2] : 1;
  setting.frame_index = probe[3] >= 1 && probe[3] <= kVideoSizes.size() ? probe[3] : 1;
  setting.interval = nearestInterval(readLittle32(probe, 4));
  return setting;
}

std::array<uint8_t, kProbeBytes> encodeProbe(const VideoSetting& setting, uint32_t payload_bytes) {
  LittleEndianWriter block;
  block.u16(1);  // bmHint: the interval stays as it is
  block.u8(setting.format_index).u8(setting.frame_index).u32(setting.interval);
  block.u16(0).u16(0).u16(0).u16(0);  // key frames, P frames, compression quality and window: none
  block.u16(0);                       // wDelay
  block.u32(maxVideoFrameBytes(setting)).u32(payload_bytes).u32(kClockHertz);
  block.u8(3);              // bmFramingInfo: frame identifier and end of frame are valid
  block.u8(1).u8(1).u8(1);  // preferred, smallest and largest version
  std::array<uint8_t, kProbeBytes> bytes{};
  std::copy_n(block.bytes().begin(), kProbeBytes, bytes.begin());
  return bytes;
}

}  // namespace mirn
