#include "video/mirn_texture.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/system_log.h"

namespace mirn {
namespace {

// How one plane (or the single image) of both buffers lies.
struct Rows {
  uint8_t* destination;
  const uint8_t* source;
  size_t destinationStride;
  size_t sourceStride;
  size_t count;
};

Rows rowsOfPlane(const PixelBuffer& destination, const PixelBuffer& source, size_t plane) {
  return {destination.baseAddressOfPlane(plane), source.baseAddressOfPlane(plane),
          destination.bytesPerRowOfPlane(plane), source.bytesPerRowOfPlane(plane),
          std::min(source.heightOfPlane(plane), destination.heightOfPlane(plane))};
}

void copyRows(const Rows& rows) {
  if (rows.destination == nullptr || rows.source == nullptr || rows.destination == rows.source) {
    return;
  }
  const size_t line = std::min(rows.destinationStride, rows.sourceStride);
  if (rows.destinationStride == rows.sourceStride) {
    std::memcpy(rows.destination, rows.source, rows.count * line);
  } else {
    for (size_t y = 0; y < rows.count; ++y) {
      std::memcpy(rows.destination + y * rows.destinationStride, rows.source + y * rows.sourceStride, line);
    }
  }
  countPixelBytesCopied(rows.count * line);
}

}  // namespace

std::shared_ptr<MirnTexture> MirnTexture::init() {
  return std::shared_ptr<MirnTexture>(new MirnTexture);
}

MirnTexture::~MirnTexture() = default;

std::shared_ptr<Mutex> MirnTexture::locker() {
  MutexGuard guard(lockerLock_);
  if (!_locker) {
    _locker = std::make_shared<Mutex>();
  }
  return _locker;
}

void MirnTexture::setLocker(std::shared_ptr<Mutex> lock) {
  MutexGuard guard(lockerLock_);
  _locker = std::move(lock);
}

void MirnTexture::updatePixelBuffer(const PixelBufferRef& buffer) {
  if (!buffer) {
    return;
  }
  const std::shared_ptr<Mutex> lock = locker();
  MutexGuard guard(*lock);
  MutexGuard targetGuard(targetLock_);
  _target = buffer;
}

PixelBufferRef MirnTexture::copyPixelBuffer() {
  const std::shared_ptr<Mutex> lock = locker();
  MutexGuard guard(*lock);
  MutexGuard targetGuard(targetLock_);
  return _target;
}

void MirnTexture::onTextureUnregistered(ExternalTexture* texture) {
  if (texture != this) {
    return;
  }
  const std::shared_ptr<Mutex> lock = locker();
  MutexGuard guard(*lock);
  MutexGuard targetGuard(targetLock_);
  if (_target) {
    systemLog("onTextureUnregistered release pixelBuffer");
    _target.reset();
  }
}

PixelBufferRef MirnTexture::createPixelBufferWithExample(const PixelBufferRef& source) {
  if (!source) {
    return {};
  }
  PixelBufferAttributes attributes;
  attributes.ioSurfaceBacked = true;
  PixelBufferRef copy = PixelBuffer::create(source->width(), source->height(), source->format(), attributes);
  if (!copy) {
    systemLog("无法创建新的像素缓冲区");
    return {};
  }
  copypixelbuffer(copy, source, source->format());
  return copy;
}

void MirnTexture::copypixelbuffer(const PixelBufferRef& destination, const PixelBufferRef& source, PixelFormat format) {
  if (!destination || !source) {
    return;
  }
  source->lockBaseAddress(kPixelBufferLockReadOnly);
  destination->lockBaseAddress(kPixelBufferLockForWriting);
  if (isBiPlanar(format)) {
    for (size_t plane = 0; plane < source->planeCount(); ++plane) {
      copyRows(rowsOfPlane(*destination, *source, plane));
    }
  } else {
    copyRows(rowsOfPlane(*destination, *source, 0));
  }
  destination->unlockBaseAddress(kPixelBufferLockForWriting);
  source->unlockBaseAddress(kPixelBufferLockReadOnly);
}

PixelBufferRef MirnTexture::createPixelBufferFromRGBData(const uint8_t* data, int64_t w, int64_t h) {
  if (data == nullptr || w == 0 || h == 0) {
    return {};
  }
  PixelBufferAttributes attributes;
  attributes.cgImageCompatible = true;
  attributes.cgBitmapContextCompatible = true;
  PixelBufferStatus status = kPixelBufferSuccess;
  // A negative size becomes one that no buffer has.
  const auto width = static_cast<size_t>(w);
  const auto height = static_cast<size_t>(h);
  PixelBufferRef buffer = PixelBuffer::create(width, height, kPixelFormatBGRA, attributes, &status);
  if (!buffer) {
    systemLog("Failed to create CVPixelBuffer: %d", static_cast<int>(status));
    return {};
  }
  buffer->lockBaseAddress(kPixelBufferLockForWriting);
  for (size_t y = 0; y < height; ++y) {
    const uint8_t* from = data + y * width * 4;
    uint8_t* to = buffer->baseAddress() + y * buffer->bytesPerRow();
    for (size_t x = 0; x < width; ++x, from += 4, to += 4) {
      to[0] = from[0];
      to[1] = from[1];
      to[2] = from[2];
      to[3] = 255;
    }
  }
  buffer->unlockBaseAddress(kPixelBufferLockForWriting);
  countPixelBytesCopied(width * height * 4);
  return buffer;
}

}  // namespace mirn
