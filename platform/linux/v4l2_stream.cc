#include "platform/linux/v4l2_stream.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/linux/v4l2_formats.h"
#include "platform/system_log.h"

namespace mirn {
namespace {

constexpr uint32_t kBuffersWanted = 4;
constexpr uint32_t kBuffersNeeded = 2;

// In the delegate, in the mailbox, in the textures, at the engine (two), being filled, and two for slow holders.
constexpr size_t kPicturesInFlight = 8;

constexpr int kStallMs = 2000;

int64_t nowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int64_t timestampOf(const v4l2_buffer& buffer) {
  if ((buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) != V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC) {
    return nowNs();
  }
  return static_cast<int64_t>(buffer.timestamp.tv_sec) * 1'000'000'000 +
         static_cast<int64_t>(buffer.timestamp.tv_usec) * 1000;
}

v4l2_buffer emptyBuffer() {
  v4l2_buffer buffer{};
  buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  buffer.memory = V4L2_MEMORY_MMAP;
  return buffer;
}

int requestBuffers(V4l2Calls& calls, int fd, uint32_t& count) {
  v4l2_requestbuffers request{};
  request.count = count;
  request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  request.memory = V4L2_MEMORY_MMAP;
  const int code = calls.control(fd, VIDIOC_REQBUFS, &request);
  count = request.count;
  return code;
}

}  // namespace

V4l2Stream::V4l2Stream(V4l2Calls& calls, int fd, std::string node, const FrameLayout& layout, V4l2StreamUser& user)
    : calls_(calls),
      fd_(fd),
      node_(std::move(node)),
      layout_(layout),
      user_(user),
      pool_(static_cast<size_t>(layout.width), static_cast<size_t>(layout.height), kPixelFormatBGRA,
            kPicturesInFlight) {}

std::unique_ptr<V4l2Stream> V4l2Stream::start(V4l2Calls& calls, int fd, std::string node, const FrameLayout& layout,
                                              V4l2StreamUser& user, CaptureError* error) {
  std::unique_ptr<V4l2Stream> stream(new V4l2Stream(calls, fd, std::move(node), layout, user));
  stream->wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stream->wakeFd_ < 0) {
    stream->fail(errno, "making an event descriptor", error);
    return nullptr;
  }
  if (const int code = stream->mapBuffers(); code != 0) {
    stream->fail(code, "mapping the buffers", error);
    return nullptr;
  }
  if (const int code = stream->switchOn(); code != 0) {
    stream->fail(code, "starting the stream", error);
    return nullptr;
  }
  try {
    stream->thread_ = std::thread(&V4l2Stream::work, stream.get());
  } catch (const std::system_error& failure) {
    stream->fail(failure.code().value(), "starting the capture thread", error);
    return nullptr;
  }
  return stream;
}

V4l2Stream::~V4l2Stream() {
  if (thread_.joinable()) {
    // The counter of an event descriptor holds 64 bits: this write can't fail.
    (void)!eventfd_write(wakeFd_, 1);
    thread_.join();
  }
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  // Whatever these answer (a dead device says ENODEV), the buffers go.
  calls_.control(fd_, VIDIOC_STREAMOFF, &type);
  for (const Mapped& mapped : mapped_) {
    calls_.unmap(mapped.start, mapped.bytes);
  }
  uint32_t none = 0;
  requestBuffers(calls_, fd_, none);
  if (wakeFd_ >= 0) {
    ::close(wakeFd_);
  }
}

bool V4l2Stream::fail(int code, const char* doing, CaptureError* error) {
  if (error != nullptr) {
    *error = v4l2Error(code, node_, doing);
  }
  return false;
}

int V4l2Stream::mapBuffers() {
  uint32_t count = kBuffersWanted;
  if (const int code = requestBuffers(calls_, fd_, count); code != 0) {
    return code;
  }
  if (count < kBuffersNeeded) {
    return ENOMEM;
  }
  for (uint32_t index = 0; index < count; ++index) {
    v4l2_buffer buffer = emptyBuffer();
    buffer.index = index;
    if (const int code = calls_.control(fd_, VIDIOC_QUERYBUF, &buffer); code != 0) {
      return code;
    }
    int code = 0;
    void* start = calls_.map(fd_, buffer.length, buffer.m.offset, code);
    if (start == nullptr) {
      return code != 0 ? code : ENOMEM;
    }
    mapped_.push_back({start, buffer.length});
  }
  return 0;
}

int V4l2Stream::switchOn() {
  for (uint32_t index = 0; index < mapped_.size(); ++index) {
    if (const int code = enqueue(index); code != 0) {
      return code;
    }
  }
  int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  return calls_.control(fd_, VIDIOC_STREAMON, &type);
}

void V4l2Stream::work() {
  pthread_setname_np(pthread_self(), "mirn-capture");
  bool stalled = false;
  for (;;) {
    const V4l2Wait wait = calls_.wait(fd_, wakeFd_, kStallMs);
    if (wait.woken) {
      return;
    }
    if (wait.failed) {
      end(EPIPE, "waiting for a frame");
      return;
    }
    if (!wait.readable) {
      if (!stalled) {
        systemLog("%s: no frames for %d ms: no signal, or the device stalls", node_.c_str(), kStallMs);
      }
      stalled = true;
      continue;
    }
    stalled = false;
    if (takeNewest() == Next::kEnd) {
      return;
    }
  }
}

// Of several waiting buffers only the newest is worth converting: the others go back at once. One that can be seen to
// be damaged never takes the place of a good one.
V4l2Stream::Next V4l2Stream::takeNewest() {
  std::optional<v4l2_buffer> newest;
  for (size_t taken = 0; taken < mapped_.size(); ++taken) {
    v4l2_buffer buffer{};
    const int code = dequeue(buffer);
    if (code == EAGAIN) {
      break;
    }
    if (code != 0) {
      return end(code, "taking a frame");
    }
    if (buffer.index >= mapped_.size()) {
      return end(EPROTO, "taking a frame");
    }
    if (!isWhole(buffer)) {
      if (giveBack(buffer.index, &V4l2StreamUser::onStreamDamage) == Next::kEnd) {
        return Next::kEnd;
      }
      continue;
    }
    if (newest && giveBack(newest->index, &V4l2StreamUser::onStreamLate) == Next::kEnd) {
      return Next::kEnd;
    }
    newest = buffer;
  }
  return newest ? useBuffer(*newest) : Next::kContinue;
}

// As far as it shows without looking at the picture. A compressed frame may be of any length but none.
bool V4l2Stream::isWhole(const v4l2_buffer& buffer) const {
  return (buffer.flags & V4L2_BUF_FLAG_ERROR) == 0 && buffer.bytesused != 0 &&
         buffer.bytesused <= mapped_[buffer.index].bytes && buffer.bytesused >= frameBytes(layout_);
}

int V4l2Stream::dequeue(v4l2_buffer& buffer) {
  buffer = emptyBuffer();
  return calls_.control(fd_, VIDIOC_DQBUF, &buffer);
}

int V4l2Stream::enqueue(uint32_t index) {
  v4l2_buffer buffer = emptyBuffer();
  buffer.index = index;
  return calls_.control(fd_, VIDIOC_QBUF, &buffer);
}

// The kernel has its buffer back before anybody hears of the frame.
V4l2Stream::Next V4l2Stream::giveBack(uint32_t index, void (V4l2StreamUser::*why)()) {
  const int code = enqueue(index);
  (user_.*why)();
  return code == 0 ? Next::kContinue : end(code, "giving a buffer back");
}

V4l2Stream::Next V4l2Stream::useBuffer(const v4l2_buffer& buffer) {
  PixelBufferRef picture = pool_.acquire();
  if (!picture) {
    return giveBack(buffer.index, &V4l2StreamUser::onStreamLate);
  }
  const auto* bytes = static_cast<const uint8_t*>(mapped_[buffer.index].start);
  if (converter_.convert(bytes, buffer.bytesused, layout_, *picture) != ConvertResult::kConverted) {
    return giveBack(buffer.index, &V4l2StreamUser::onStreamDamage);
  }
  const int code = enqueue(buffer.index);
  user_.onStreamFrame(std::move(picture), {timestampOf(buffer), buffer.sequence});
  return code == 0 ? Next::kContinue : end(code, "giving a buffer back");
}

// A pulled-out device shows as ENODEV, ESHUTDOWN, EIO, EINVAL or POLLERR, depending on the moment. Asking it for its
// capabilities tells it from a driver that merely failed.
V4l2Stream::Next V4l2Stream::end(int code, const char* doing) {
  v4l2_capability capability{};
  const bool gone = calls_.control(fd_, VIDIOC_QUERYCAP, &capability) != 0;
  user_.onStreamEnd(v4l2Error(gone ? ENODEV : code, node_, doing));
  return Next::kEnd;
}

}  // namespace mirn
