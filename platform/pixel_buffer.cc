#include "platform/pixel_buffer.h"

#include <cstdlib>
#include <cstring>

namespace mirn {
namespace {

std::atomic<uint64_t> g_pixelBytesCopied{0};

constexpr size_t alignUp(size_t value) {
  return (value + kPixelBufferAlignment - 1) / kPixelBufferAlignment * kPixelBufferAlignment;
}

size_t bytesPerPixel(PixelFormat format) {
  switch (format) {
    case kPixelFormatBGRA:
      return 4;
    case kPixelFormatYuvs:
      return 2;
    default:
      return 1;
  }
}

struct ChromaSize {
  size_t width;  // samples, each of two bytes
  size_t height;
};

ChromaSize chromaSize(PixelFormat format, size_t width, size_t height) {
  if (format == kPixelFormat444v || format == kPixelFormat444f) {
    return {width, height};
  }
  if (format == kPixelFormat422v || format == kPixelFormat422f) {
    return {(width + 1) / 2, height};
  }
  return {(width + 1) / 2, (height + 1) / 2};
}

}  // namespace

std::string fourCharText(FourCharCode code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const auto byte = static_cast<unsigned char>(code >> shift);
    text += byte >= 0x20 && byte < 0x7f ? static_cast<char>(byte) : '?';
  }
  return text;
}

bool isBiPlanar(PixelFormat format) {
  switch (format) {
    case kPixelFormat420v:
    case kPixelFormat420f:
    case kPixelFormat422v:
    case kPixelFormat422f:
    case kPixelFormat444v:
    case kPixelFormat444f:
      return true;
    default:
      return false;
  }
}

PixelBuffer::PixelBuffer(size_t width, size_t height, PixelFormat format, const PixelBufferAttributes& attributes)
    : width_(width), height_(height), format_(format), attributes_(attributes) {}

PixelBuffer::~PixelBuffer() {
  std::free(owned_);
  if (released_) {
    released_();
  }
}

PixelBufferRef PixelBuffer::create(size_t width, size_t height, PixelFormat format,
                                   const PixelBufferAttributes& attributes, PixelBufferStatus* status) {
  PixelBufferStatus ignored = kPixelBufferSuccess;
  PixelBufferStatus& result = status != nullptr ? *status : ignored;
  if (width == 0 || height == 0 || width > kPixelBufferMaxSide || height > kPixelBufferMaxSide) {
    result = kPixelBufferInvalidSize;
    return {};
  }
  PixelBufferRef buffer(new PixelBuffer(width, height, format, attributes));
  const size_t firstRow = alignUp(width * bytesPerPixel(format));
  buffer->planes_.push_back({nullptr, width, height, firstRow});
  buffer->dataSize_ = firstRow * height;
  if (isBiPlanar(format)) {
    const ChromaSize chroma = chromaSize(format, width, height);
    const size_t chromaRow = alignUp(chroma.width * 2);
    buffer->planes_.push_back({nullptr, chroma.width, chroma.height, chromaRow});
    buffer->dataSize_ += chromaRow * chroma.height;
  }
  void* memory = nullptr;
  if (posix_memalign(&memory, kPixelBufferAlignment, buffer->dataSize_) != 0) {
    result = kPixelBufferAllocationFailed;
    return {};
  }
  std::memset(memory, 0, buffer->dataSize_);
  buffer->owned_ = static_cast<uint8_t*>(memory);
  buffer->planes_[0].bytes = buffer->owned_;
  if (buffer->planes_.size() > 1) {
    buffer->planes_[1].bytes = buffer->owned_ + firstRow * height;
  }
  result = kPixelBufferSuccess;
  return buffer;
}

PixelBufferRef PixelBuffer::wrap(size_t width, size_t height, PixelFormat format, uint8_t* bytes, size_t bytesPerRow,
                                 std::function<void()> released) {
  PixelBufferRef buffer(new PixelBuffer(width, height, format, {}));
  buffer->planes_.push_back({bytes, width, height, bytesPerRow});
  buffer->dataSize_ = bytesPerRow * height;
  buffer->released_ = std::move(released);
  return buffer;
}

size_t PixelBuffer::bytesPerRowOfPlane(size_t plane) const {
  return plane < planes_.size() ? planes_[plane].bytesPerRow : 0;
}

size_t PixelBuffer::widthOfPlane(size_t plane) const {
  return plane < planes_.size() ? planes_[plane].width : 0;
}

size_t PixelBuffer::heightOfPlane(size_t plane) const {
  return plane < planes_.size() ? planes_[plane].height : 0;
}

PixelBufferStatus PixelBuffer::lockBaseAddress(uint32_t flags) {
  locksTaken_.fetch_add(1, std::memory_order_relaxed);
  std::atomic<int32_t>& locks = (flags & kPixelBufferLockReadOnly) != 0 ? readLocks_ : writeLocks_;
  locks.fetch_add(1, std::memory_order_relaxed);
  return kPixelBufferSuccess;
}

PixelBufferStatus PixelBuffer::unlockBaseAddress(uint32_t flags) {
  std::atomic<int32_t>& locks = (flags & kPixelBufferLockReadOnly) != 0 ? readLocks_ : writeLocks_;
  int32_t held = locks.load(std::memory_order_relaxed);
  while (held > 0) {
    if (locks.compare_exchange_weak(held, held - 1, std::memory_order_relaxed)) {
      return kPixelBufferSuccess;
    }
  }
  return kPixelBufferNotLocked;
}

uint8_t* PixelBuffer::baseAddressOfPlane(size_t plane) const {
  const bool locked = readLocks_.load(std::memory_order_relaxed) > 0 || writeLocks_.load(std::memory_order_relaxed) > 0;
  return locked && plane < planes_.size() ? planes_[plane].bytes : nullptr;
}

PixelBufferPool::PixelBufferPool(size_t width, size_t height, PixelFormat format, size_t limit)
    : width_(width), height_(height), format_(format), limit_(limit) {}

PixelBufferRef PixelBufferPool::acquire() {
  for (size_t i = 0; i < buffers_.size(); ++i) {
    const size_t candidate = (next_ + i) % buffers_.size();
    if (buffers_[candidate]->heldOnlyByCaller()) {
      next_ = (candidate + 1) % buffers_.size();
      return buffers_[candidate];
    }
  }
  if (buffers_.size() >= limit_) {
    return {};
  }
  PixelBufferRef buffer = PixelBuffer::create(width_, height_, format_);
  if (buffer) {
    buffers_.push_back(buffer);
    next_ = 0;
  }
  return buffer;
}

uint64_t pixelBytesCopied() {
  return g_pixelBytesCopied.load(std::memory_order_relaxed);
}

void countPixelBytesCopied(uint64_t bytes) {
  g_pixelBytesCopied.fetch_add(bytes, std::memory_order_relaxed);
}

}  // namespace mirn
