#include "tests/support/video/fake_v4l2.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

namespace mirn::test {
namespace {

const char* nameOf(unsigned long request) {
  switch (request) {
    case VIDIOC_S_PRIORITY:
      return "S_PRIORITY";
    case VIDIOC_S_FMT:
      return "S_FMT";
    case VIDIOC_S_PARM:
      return "S_PARM";
    case VIDIOC_REQBUFS:
      return "REQBUFS";
    case VIDIOC_STREAMON:
      return "STREAMON";
    case VIDIOC_STREAMOFF:
      return "STREAMOFF";
    default:
      return nullptr;
  }
}

const FakeSize* sizeOf(const FakeNode& node, uint32_t pixelFormat, uint32_t width, uint32_t height) {
  for (const FakeSize& size : node.sizes) {
    if (size.pixelFormat == pixelFormat && size.width == width && size.height == height) {
      return &size;
    }
  }
  return nullptr;
}

// What a driver takes in place of a size that it doesn't have.
const FakeSize* nearestSize(const FakeNode& node, uint32_t width, uint32_t height) {
  const auto distance = [width, height](const FakeSize& size) {
    return std::abs(static_cast<int64_t>(size.width) - width) + std::abs(static_cast<int64_t>(size.height) - height);
  };
  const auto nearest = std::min_element(
      node.sizes.begin(), node.sizes.end(),
      [distance](const FakeSize& left, const FakeSize& right) { return distance(left) < distance(right); });
  return nearest == node.sizes.end() ? nullptr : &*nearest;
}

void fillFormat(v4l2_pix_format& format, const FakeSize& size) {
  format.width = size.width;
  format.height = size.height;
  format.pixelformat = size.pixelFormat;
  format.field = V4L2_FIELD_NONE;
  format.bytesperline = size.pixelFormat == V4L2_PIX_FMT_YUYV ? size.width * 2 : 0;
  if (size.pixelFormat == V4L2_PIX_FMT_NV12) {
    format.bytesperline = size.width;
  }
  format.sizeimage = size.width * size.height * 2;
}

}  // namespace

FakeV4l2::FakeV4l2() : changedFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

FakeV4l2::~FakeV4l2() {
  ::close(changedFd_);
}

FakeNode& FakeV4l2::node(const std::string& path) {
  MutexGuard guard(lock_);
  return nodes_[path];
}

bool FakeV4l2::push(const std::string& path, const std::vector<uint8_t>& bytes, uint32_t flags) {
  MutexGuard guard(lock_);
  return fill(nodes_[path], bytes, flags);
}

bool FakeV4l2::pushTogether(const std::string& path, const std::vector<Frame>& frames) {
  MutexGuard guard(lock_);
  FakeNode& node = nodes_[path];
  const auto queued = std::count_if(node.buffers.begin(), node.buffers.end(),
                                    [](const FakeNode::Buffer& buffer) { return buffer.queued; });
  if (!node.streaming || static_cast<size_t>(queued) < frames.size()) {
    return false;
  }
  for (const Frame& frame : frames) {
    fill(node, frame.bytes, frame.flags);
  }
  return true;
}

bool FakeV4l2::fill(FakeNode& node, const std::vector<uint8_t>& bytes, uint32_t flags) {
  for (uint32_t index = 0; node.streaming && index < node.buffers.size(); ++index) {
    FakeNode::Buffer& buffer = node.buffers[index];
    if (buffer.queued) {
      std::copy_n(bytes.begin(), std::min(bytes.size(), buffer.bytes.size()), buffer.bytes.begin());
      buffer.queued = false;
      node.done.push_back({index, static_cast<uint32_t>(bytes.size()), flags});
      wake();
      return true;
    }
  }
  return false;
}

void FakeV4l2::unplug(const std::string& path) {
  MutexGuard guard(lock_);
  nodes_[path].gone = true;
  wake();
}

void FakeV4l2::setPollError(const std::string& path) {
  MutexGuard guard(lock_);
  nodes_[path].pollError = true;
  wake();
}

void FakeV4l2::fail(const std::string& path, unsigned long request, int code) {
  MutexGuard guard(lock_);
  nodes_[path].errors[request] = code;
}

std::vector<std::string> FakeV4l2::trace(const std::string& path) {
  MutexGuard guard(lock_);
  return trace_[path];
}

void FakeV4l2::clearTrace() {
  MutexGuard guard(lock_);
  trace_.clear();
}

size_t FakeV4l2::mappings() {
  MutexGuard guard(lock_);
  return mapped_.size();
}

size_t FakeV4l2::openDescriptors() {
  MutexGuard guard(lock_);
  return descriptors_.size();
}

void FakeV4l2::wake() {
  (void)!eventfd_write(changedFd_, 1);
}

int FakeV4l2::open(const std::string& path, int& fd) {
  MutexGuard guard(lock_);
  fd = -1;
  const auto found = nodes_.find(path);
  if (found == nodes_.end() || found->second.gone) {
    return ENODEV;
  }
  if (found->second.openError != 0) {
    return found->second.openError;
  }
  fd = nextFd_++;
  descriptors_[fd] = path;
  found->second.open.insert(fd);
  if (found->second.format.pixelformat == 0 && !found->second.sizes.empty()) {
    fillFormat(found->second.format, found->second.sizes.front());
  }
  return 0;
}

void FakeV4l2::close(int fd) {
  MutexGuard guard(lock_);
  nodes_[descriptors_[fd]].open.erase(fd);
  descriptors_.erase(fd);
}

int FakeV4l2::control(int fd, unsigned long request, void* argument) {
  MutexGuard guard(lock_);
  const auto descriptor = descriptors_.find(fd);
  if (descriptor == descriptors_.end()) {
    return EBADF;
  }
  FakeNode& node = nodes_[descriptor->second];
  if (const char* name = nameOf(request); name != nullptr) {
    std::string entry = name;
    if (request == VIDIOC_REQBUFS) {
      entry += static_cast<v4l2_requestbuffers*>(argument)->count == 0 ? "(0)" : "";
    }
    trace_[descriptor->second].push_back(entry);
  }
  if (node.gone) {
    return ENODEV;
  }
  if (const auto error = node.errors.find(request); error != node.errors.end()) {
    return error->second;
  }
  return answer(node, request, argument);
}

int FakeV4l2::answer(FakeNode& node, unsigned long request, void* argument) {
  switch (request) {
    case VIDIOC_QUERYCAP: {
      auto& capability = *static_cast<v4l2_capability*>(argument);
      std::strncpy(reinterpret_cast<char*>(capability.card), node.card.c_str(), sizeof capability.card - 1);
      capability.capabilities = node.capabilities | V4L2_CAP_DEVICE_CAPS;
      capability.device_caps = node.capabilities;
      return 0;
    }
    case VIDIOC_S_PRIORITY:
      node.priority = *static_cast<const uint32_t*>(argument);
      return node.noPriorities ? ENOTTY : node.otherHoldsRecord ? EBUSY : 0;
    case VIDIOC_G_FMT:
      static_cast<v4l2_format*>(argument)->fmt.pix = node.format;
      return 0;
    case VIDIOC_S_FMT:
      return setFormat(node, *static_cast<v4l2_format*>(argument));
    case VIDIOC_G_PARM:
      static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe = node.interval;
      return 0;
    case VIDIOC_S_PARM:
      if (node.streaming) {
        return EBUSY;
      }
      if (node.taken.numerator != 0) {
        static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe = node.taken;
      }
      node.interval = static_cast<v4l2_streamparm*>(argument)->parm.capture.timeperframe;
      return 0;
    case VIDIOC_REQBUFS:
      return requestBuffers(node, *static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_QUERYBUF: {
      auto& buffer = *static_cast<v4l2_buffer*>(argument);
      buffer.length = static_cast<uint32_t>(node.buffers[buffer.index].bytes.size());
      buffer.m.offset = buffer.index;
      return 0;
    }
    case VIDIOC_QBUF:
      node.buffers[static_cast<v4l2_buffer*>(argument)->index].queued = true;
      return 0;
    case VIDIOC_DQBUF:
      return dequeue(node, *static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON:
      node.streaming = true;
      return 0;
    case VIDIOC_STREAMOFF:
      node.streaming = false;
      node.done.clear();
      return 0;
    default:
      return enumerate(node, request, argument);
  }
}

int FakeV4l2::enumerate(FakeNode& node, unsigned long request, void* argument) {
  if (request == VIDIOC_ENUM_FMT) {
    auto& entry = *static_cast<v4l2_fmtdesc*>(argument);
    std::vector<uint32_t> formats;
    for (const FakeSize& size : node.sizes) {
      if (formats.empty() || formats.back() != size.pixelFormat) {
        formats.push_back(size.pixelFormat);
      }
    }
    if (entry.index >= formats.size()) {
      return EINVAL;
    }
    entry.pixelformat = formats[entry.index];
    return 0;
  }
  if (request == VIDIOC_ENUM_FRAMESIZES) {
    auto& entry = *static_cast<v4l2_frmsizeenum*>(argument);
    uint32_t index = 0;
    for (const FakeSize& size : node.sizes) {
      if (size.pixelFormat == entry.pixel_format && index++ == entry.index) {
        entry.type = V4L2_FRMSIZE_TYPE_DISCRETE;
        entry.discrete = {size.width, size.height};
        return 0;
      }
    }
    return EINVAL;
  }
  if (request == VIDIOC_ENUM_FRAMEINTERVALS) {
    auto& entry = *static_cast<v4l2_frmivalenum*>(argument);
    const FakeSize* size = sizeOf(node, entry.pixel_format, entry.width, entry.height);
    if (size == nullptr || entry.index >= size->rates.size()) {
      return EINVAL;
    }
    entry.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    entry.discrete = {1, size->rates[entry.index]};
    return 0;
  }
  return ENOTTY;
}

// As uvcvideo: busy while buffers are allocated, adjusts what it doesn't know.
int FakeV4l2::setFormat(FakeNode& node, v4l2_format& format) {
  if (node.otherOwns || !node.buffers.empty()) {
    return EBUSY;
  }
  const v4l2_pix_format& wanted = format.fmt.pix;
  const FakeSize* size = sizeOf(node, wanted.pixelformat, wanted.width, wanted.height);
  if (size == nullptr) {
    size = nearestSize(node, wanted.width, wanted.height);
  }
  if (size != nullptr) {
    fillFormat(node.format, *size);
    node.interval = size->rates.empty() ? v4l2_fract{} : v4l2_fract{1, size->rates.front()};
  }
  format.fmt.pix = node.format;
  return 0;
}

int FakeV4l2::requestBuffers(FakeNode& node, v4l2_requestbuffers& request) {
  if (node.streaming || node.otherOwns) {
    return EBUSY;
  }
  node.buffers.assign(request.count, {});
  for (FakeNode::Buffer& buffer : node.buffers) {
    buffer.bytes.resize(node.format.sizeimage);
  }
  return 0;
}

int FakeV4l2::dequeue(FakeNode& node, v4l2_buffer& buffer) {
  if (node.done.empty()) {
    return EAGAIN;
  }
  const FakeNode::Done done = node.done.front();
  node.done.erase(node.done.begin());
  buffer.index = done.index;
  buffer.bytesused = done.bytes;
  buffer.flags = done.flags;
  buffer.sequence = node.sequence++;
  lastDequeueNs_.store(std::chrono::steady_clock::now().time_since_epoch().count(), std::memory_order_relaxed);
  return 0;
}

void* FakeV4l2::map(int fd, size_t /*bytes*/, uint64_t offset, int& error) {
  MutexGuard guard(lock_);
  FakeNode& node = nodes_[descriptors_[fd]];
  if (const auto failure = node.errors.find(0); failure != node.errors.end()) {
    error = failure->second;
    return nullptr;
  }
  error = 0;
  void* start = node.buffers[offset].bytes.data();
  mapped_.insert(start);
  return start;
}

void FakeV4l2::unmap(void* start, size_t /*bytes*/) {
  MutexGuard guard(lock_);
  mapped_.erase(start);
}

V4l2Wait FakeV4l2::wait(int fd, int wakeFd, int timeoutMs) {
  for (;;) {
    V4l2Wait result;
    {
      MutexGuard guard(lock_);
      eventfd_t ignored = 0;
      (void)!eventfd_read(changedFd_, &ignored);
      const auto descriptor = descriptors_.find(fd);
      const FakeNode& node = nodes_[descriptor == descriptors_.end() ? std::string() : descriptor->second];
      result.failed = node.gone || node.pollError;
      result.readable = !node.done.empty();
    }
    pollfd woken = {wakeFd, POLLIN, 0};
    result.woken = ::poll(&woken, 1, 0) > 0;
    if (result.failed || result.readable || result.woken) {
      return result;
    }
    std::array<pollfd, 2> watched = {{{changedFd_, POLLIN, 0}, {wakeFd, POLLIN, 0}}};
    if (::poll(watched.data(), watched.size(), timeoutMs) == 0) {
      return {};
    }
  }
}

}  // namespace mirn::test
