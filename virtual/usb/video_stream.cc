#include "virtual/usb/video_stream.h"

#include <algorithm>

namespace mirn {

void VideoStream::commit(const VideoSetting& setting, Time now) {
  setting_ = setting;
  frame_.clear();
  sent_ = 0;
  if (shape_.transfer == VideoTransfer::kBulk) start(now);
}

void VideoStream::start(Time now) {
  streaming_ = true;
  frame_.clear();
  sent_ = 0;
  due_ = now;
}

void VideoStream::stop() {
  streaming_ = false;
}

std::optional<VideoStream::Time> VideoStream::nextPayloadAt() const {
  if (!streaming_) return std::nullopt;
  return sent_ < frame_.size() ? Time::min() : due_;
}

std::vector<uint8_t> VideoStream::bulkPayload(uint32_t length, Time now) {
  std::vector<uint8_t> payload;
  if (length <= kPayloadHeaderBytes || !frameReady(now)) return payload;
  const uint32_t largest = videoPayloadBytes(shape_);
  size_t bytes = std::min<size_t>({length, largest, kPayloadHeaderBytes + (frame_.size() - sent_)});
  // Below the maximum it is the short packet that ends a payload: one that fills its last packet gives a byte to the
  // next.
  if (bytes < largest && bytes % bulkPacketBytes(shape_.speed) == 0) --bytes;
  appendPayload(bytes, &payload);
  return payload;
}

std::vector<uint8_t> VideoStream::isochronousPayload(std::vector<IsochronousPacket>* packets, Time start) {
  std::vector<uint8_t> data;
  Time at = start;
  for (IsochronousPacket& packet : *packets) {
    packet.status = kUsbOk;
    packet.actual = 0;
    if (packet.length > kPayloadHeaderBytes && frameReady(at)) {
      const size_t before = data.size();
      appendPayload(
          std::min<size_t>({packet.length, kIsochronousPacketBytes, kPayloadHeaderBytes + (frame_.size() - sent_)}),
          &data);
      packet.actual = static_cast<uint32_t>(data.size() - before);
    }
    at += kMicroframe;
  }
  return data;
}

bool VideoStream::frameReady(Time now) {
  if (!streaming_) return false;
  if (sent_ < frame_.size()) return true;
  if (now < due_) return false;
  const VideoSize size = setting_.size();
  if (!source_.nextFrame(setting_.format(), size.width, size.height, frame_) || frame_.empty()) {
    // Nothing to show this time.
    frame_.clear();
    sent_ = 0;
    due_ = now + interval();
    return false;
  }
  sent_ = 0;
  frame_id_ ^= kPayloadFrameId;
  // Late by more than a frame: the missed ones are not made up for.
  due_ = now - due_ > interval() ? now + interval() : due_ + interval();
  return true;
}

// `length`: of the whole payload, header included; not more than is left of the frame.
void VideoStream::appendPayload(size_t length, std::vector<uint8_t>* out) {
  const size_t bytes = length - kPayloadHeaderBytes;
  const bool last = sent_ + bytes == frame_.size();
  out->reserve(out->size() + length);
  out->push_back(kPayloadHeaderBytes);
  out->push_back(static_cast<uint8_t>(kPayloadEndOfHeader | frame_id_ | (last ? kPayloadEndOfFrame : 0)));
  const auto begin = frame_.begin() + static_cast<std::ptrdiff_t>(sent_);
  out->insert(out->end(), begin, begin + static_cast<std::ptrdiff_t>(bytes));
  sent_ += bytes;
  if (last) ++frames_sent_;
}

}  // namespace mirn
