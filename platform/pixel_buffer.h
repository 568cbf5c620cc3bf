#pragma once

// The frame type that capture, textures and the grabber share: a reference-counted picture with format, planes and
// strides, and a pool that reuses pictures nobody holds any more.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/counted.h"

namespace mirn {

/// Four-character code, first character in the highest byte: 'BGRA' is 0x42475241.
using FourCharCode = uint32_t;

constexpr FourCharCode fourCharCode(const char (&text)[5]) {
  return (static_cast<uint32_t>(static_cast<uint8_t>(text[0])) << 24) |
         (static_cast<uint32_t>(static_cast<uint8_t>(text[1])) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(text[2])) << 8) | static_cast<uint8_t>(text[3]);
}
/// "BGRA" for 'BGRA'; a byte that doesn't print is shown as '?'.
std::string fourCharText(FourCharCode code);

/// Pixel formats of a buffer. Any other code is a single plane of one byte per pixel and sample rules of its owner.
using PixelFormat = FourCharCode;
inline constexpr PixelFormat kPixelFormatBGRA = fourCharCode("BGRA");  ///< 4 bytes a pixel: blue, green, red, alpha
inline constexpr PixelFormat kPixelFormatYuvs = fourCharCode("yuvs");  ///< packed 4:2:2, Y0 U Y1 V
inline constexpr PixelFormat kPixelFormat420v = fourCharCode("420v");  ///< bi-planar 4:2:0, video range
inline constexpr PixelFormat kPixelFormat420f = fourCharCode("420f");  ///< bi-planar 4:2:0, full range
inline constexpr PixelFormat kPixelFormat422v = fourCharCode("422v");
inline constexpr PixelFormat kPixelFormat422f = fourCharCode("422f");
inline constexpr PixelFormat kPixelFormat444v = fourCharCode("444v");
inline constexpr PixelFormat kPixelFormat444f = fourCharCode("444f");

/// What cameras send.
inline constexpr FourCharCode kCaptureYuyv = fourCharCode("YUYV");
inline constexpr FourCharCode kCaptureNv12 = fourCharCode("NV12");
inline constexpr FourCharCode kCaptureMjpg = fourCharCode("MJPG");

/// True for the six bi-planar YCbCr formats above.
bool isBiPlanar(PixelFormat format);

enum PixelBufferLockFlags : uint32_t {
  kPixelBufferLockForWriting = 0,
  kPixelBufferLockReadOnly = 1,
};

/// Status codes of the buffer calls; 0 is success.
enum PixelBufferStatus : int32_t {
  kPixelBufferSuccess = 0,
  kPixelBufferInvalidSize = -6680,  ///< a side is zero, or above kPixelBufferMaxSide
  kPixelBufferAllocationFailed = -6662,
  kPixelBufferNotLocked = -6661,  ///< unlock without a matching lock
};

/// Longest side of a picture, in pixels. Keeps every product of sides and bytes within 32 bits of rows and 64 of sizes.
inline constexpr size_t kPixelBufferMaxSide = 32768;
/// Base address and rows are aligned for the widest vector loads in use.
inline constexpr size_t kPixelBufferAlignment = 64;

/// What a creator asks for besides size and format. Recorded; memory is plain and shareable in every case.
struct PixelBufferAttributes {
  bool ioSurfaceBacked = false;
  bool cgImageCompatible = false;
  bool cgBitmapContextCompatible = false;
};

class PixelBuffer;

/// A class of its own, not an alias, so that headers can declare it without including this one.
class PixelBufferRef : public CountedRef<PixelBuffer> {
 public:
  using CountedRef<PixelBuffer>::CountedRef;
  PixelBufferRef() = default;
};

/// One picture. The object is thread-safe; its bytes are not: whoever writes must be the only holder or agree with
/// the readers. Readers lock read-only, writers for writing; the lock counts, it doesn't block.
/// What isn't in this header is virtual: a host that has nothing but the shared library can draw a picture.
class PixelBuffer : public Counted {
 public:
  /// New picture with zeroed bytes, rows padded to kPixelBufferAlignment. Null on failure; `status` says why.
  static PixelBufferRef create(size_t width, size_t height, PixelFormat format,
                               const PixelBufferAttributes& attributes = {}, PixelBufferStatus* status = nullptr);
  /// A picture over memory of somebody else; `released` runs when the last reference goes. One plane.
  /// A null `bytes` gives a buffer without a base address.
  static PixelBufferRef wrap(size_t width, size_t height, PixelFormat format, uint8_t* bytes, size_t bytesPerRow,
                             std::function<void()> released = {});

  size_t width() const { return width_; }
  size_t height() const { return height_; }
  PixelFormat format() const { return format_; }
  const PixelBufferAttributes& attributes() const { return attributes_; }

  /// 0 for a single image, 2 for a bi-planar one.
  size_t planeCount() const { return planes_.size() > 1 ? planes_.size() : 0; }
  size_t bytesPerRow() const { return planes_[0].bytesPerRow; }
  virtual size_t bytesPerRowOfPlane(size_t plane) const;  ///< 0 when there is no such plane
  virtual size_t widthOfPlane(size_t plane) const;        ///< in samples of that plane
  virtual size_t heightOfPlane(size_t plane) const;
  size_t dataSize() const { return dataSize_; }  ///< bytes of all planes

  /// The base address may be used between lock and unlock, which must carry the same flags. Always succeeds here.
  virtual PixelBufferStatus lockBaseAddress(uint32_t flags);
  virtual PixelBufferStatus unlockBaseAddress(uint32_t flags);
  /// Null while the buffer isn't locked.
  uint8_t* baseAddress() const { return baseAddressOfPlane(0); }
  virtual uint8_t* baseAddressOfPlane(size_t plane) const;

  /// How often anybody asked for the bytes since creation. A frame that is only handed on keeps its number: this is
  /// how the tests prove that nothing is copied on the way to the textures.
  uint64_t locksTaken() const { return locksTaken_.load(std::memory_order_relaxed); }

 private:
  struct Plane {
    uint8_t* bytes;
    size_t width;   // samples
    size_t height;  // rows
    size_t bytesPerRow;
  };

  PixelBuffer(size_t width, size_t height, PixelFormat format, const PixelBufferAttributes& attributes);
  ~PixelBuffer() override;

  const size_t width_;
  const size_t height_;
  const PixelFormat format_;
  const PixelBufferAttributes attributes_;
  std::vector<Plane> planes_;
  size_t dataSize_ = 0;
  uint8_t* owned_ = nullptr;
  std::function<void()> released_;
  std::atomic<int32_t> readLocks_{0};
  std::atomic<int32_t> writeLocks_{0};
  std::atomic<uint64_t> locksTaken_{0};
};

/// Pictures of one size and format for one producer. Bound to the producer's thread; the pictures it hands out may go
/// anywhere and outlive it. Memory is taken only when every picture made so far is held by somebody, up to `limit`.
class PixelBufferPool {
 public:
  PixelBufferPool(size_t width, size_t height, PixelFormat format, size_t limit);

  /// A picture that nobody else holds (old bytes in it), or null when `limit` pictures are all held.
  PixelBufferRef acquire();
  size_t width() const { return width_; }
  size_t height() const { return height_; }
  /// Number of pictures ever allocated by this pool.
  size_t allocations() const { return buffers_.size(); }

 private:
  const size_t width_;
  const size_t height_;
  const PixelFormat format_;
  const size_t limit_;
  std::vector<PixelBufferRef> buffers_;
  size_t next_ = 0;  // where the search begins: the picture that was handed out longest ago
};

/// Process-wide count of pixel bytes copied from one buffer to another by this library (never by conversion from the
/// camera's format). Readable from any thread.
uint64_t pixelBytesCopied();
void countPixelBytesCopied(uint64_t bytes);

}  // namespace mirn
