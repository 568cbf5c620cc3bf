// The video function between a frame source and the host's transfers: which frame is due when, and how it is cut into
// payloads. Each payload starts with a 2-byte header: 02, then 80 | end of frame << 1 | frame identifier.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "virtual/usb/frame_source.h"
#include "virtual/usb/usb_descriptors.h"
#include "virtual/usb/usbip_wire.h"
#include "virtual/usb/video_formats.h"

namespace mirn {

inline constexpr size_t kPayloadHeaderBytes = 2;
inline constexpr uint8_t kPayloadFrameId = 0x01;
inline constexpr uint8_t kPayloadEndOfFrame = 0x02;
inline constexpr uint8_t kPayloadEndOfHeader = 0x80;

// Bound to one thread at a time. Time is what the caller says it is.
class VideoStream {
 public:
  using Time = std::chrono::nanoseconds;

  VideoStream(FrameSource& source, const UsbShape& shape) : source_(source), shape_(shape) {}

  // The host has committed a setting. A half-sent frame is dropped, or the next stream would begin with its rest. At
  // bulk this is the start of the stream as well.
  void commit(const VideoSetting& setting, Time now);
  void start(Time now);
  void stop();
  bool streaming() const { return streaming_; }
  const VideoSetting& setting() const { return setting_; }

  // When the next payload can be made; none while not streaming.
  std::optional<Time> nextPayloadAt() const;

  // The payload for a bulk transfer of `length` bytes; empty when none is due.
  std::vector<uint8_t> bulkPayload(uint32_t length, Time now);

  // Fills the packets of an isochronous transfer, the first of which is sent at `start` and each next one 125 us later;
  // a packet for which there is nothing stays empty. Returns the data back to back.
  std::vector<uint8_t> isochronousPayload(std::vector<IsochronousPacket>* packets, Time start);

  uint64_t framesSent() const { return frames_sent_; }

 private:
  bool frameReady(Time now);
  void appendPayload(size_t length, std::vector<uint8_t>* out);
  Time interval() const { return Time(int64_t{setting_.interval} * 100); }

  FrameSource& source_;
  const UsbShape shape_;
  VideoSetting setting_;
  bool streaming_ = false;
  Time due_{};                  // of the next frame
  std::vector<uint8_t> frame_;  // the one under way
  size_t sent_ = 0;             // bytes of it; all of it: none is under way
  uint8_t frame_id_ = 0;
  uint64_t frames_sent_ = 0;
};

// Time of one isochronous packet at high speed.
inline constexpr std::chrono::nanoseconds kMicroframe = std::chrono::microseconds(125);

}  // namespace mirn
