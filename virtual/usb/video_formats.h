// What the video function offers: formats, sizes and intervals, and the negotiation about them (the 34-byte probe and
// commit block of USB video class 1.1).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "virtual/virtual_target.h"

namespace mirn {

// In the order of their bFormatIndex, from 1.
inline constexpr std::array<TargetFormat, 3> kVideoFormats = {TargetFormat::kYuyv, TargetFormat::kMjpeg,
                                                              TargetFormat::kNv12};

struct VideoSize {
  uint16_t width;
  uint16_t height;
};
// In the order of their bFrameIndex, from 1; each format has both.
inline constexpr std::array<VideoSize, 2> kVideoSizes = {{{1280, 720}, {1920, 1080}}};

// In units of 100 ns, the shortest (30 frames a second) first.
inline constexpr std::array<uint32_t, 3> kFrameIntervals = {333333, 666666, 1000000};

inline constexpr size_t kProbeBytes = 34;

// One agreed state of the stream.
struct VideoSetting {
  uint8_t format_index = 1;  // 1..3
  uint8_t frame_index = 1;   // 1..2
  uint32_t interval = kFrameIntervals[0];

  TargetFormat format() const { return kVideoFormats.at(format_index - 1U); }
  VideoSize size() const { return kVideoSizes.at(frame_index - 1U); }
  bool operator==(const VideoSetting&) const = default;
};

// Bytes of the largest frame.
uint32_t maxVideoFrameBytes(const VideoSetting& setting);

// What the device makes of the host's wish: indices out of range become the first, an interval the nearest listed one
// (0: the shortest). Bytes that the host left out (classes before 1.1 send 26) count as 0; none below 8 bytes.
std::optional<VideoSetting> negotiateVideo(std::span<const uint8_t> probe);

// The block that answers GET_CUR, GET_MIN, GET_MAX and GET_DEF alike. `payload_bytes` is dwMaxPayloadTransferSize,
// which decides how long the host makes its transfers.
std::array<uint8_t, kProbeBytes> encodeProbe(const VideoSetting& setting, uint32_t payload_bytes);

}  // namespace mirn
