#include "linux/fl_pixel_texture.h"

#include <libyuv.h>

#include <new>
#include <utility>

#include "platform/pixel_buffer.h"

namespace mirn {
namespace {

constexpr size_t kBytesPerPixel = 4;

enum TextureError : gint { kNoPicture, kNoMemory, kWrongFormat };

GQuark textureErrorQuark() {
  return g_quark_from_static_string("flutter-mirn-texture-error");
}

// The memory that the embedding reads. Bound to the raster thread.
class RgbaPicture {
 public:
  // Null when there is no memory for it. The old content goes.
  uint8_t* resize(size_t width, size_t height) {
    const size_t size = width * height * kBytesPerPixel;
    if (size != size_) {
      bytes_.reset(new (std::nothrow) uint8_t[size]);
      size_ = bytes_ != nullptr ? size : 0;
    }
    return bytes_.get();
  }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
  size_t size_ = 0;
};

}  // namespace

// The C++ side of one texture object.
struct PixelTextureState {
  std::shared_ptr<ExternalTexture> texture;
  std::shared_ptr<RasterWatch> watch;
  const void* self = nullptr;
  RgbaPicture rgba;

  // False with an error set when there is nothing to show.
  bool copyPixels(const uint8_t** out, uint32_t* width, uint32_t* height, GError** error) {
    watch->asked(self);
    const PixelBufferRef picture = texture->copyPixelBuffer();
    if (!picture) {
      g_set_error_literal(error, textureErrorQuark(), kNoPicture, "no picture has arrived yet");
      return false;
    }
    if (picture->format() != kPixelFormatBGRA) {
      g_set_error_literal(error, textureErrorQuark(), kWrongFormat, "the picture has another format than BGRA");
      return false;
    }
    uint8_t* const pixels = rgba.resize(picture->width(), picture->height());
    if (pixels == nullptr) {
      g_set_error_literal(error, textureErrorQuark(), kNoMemory, "no memory for the picture");
      return false;
    }
    picture->lockBaseAddress(kPixelBufferLockReadOnly);
    // libyuv names by the order in a little-endian word: its ARGB is B, G, R, A in memory, its ABGR is R, G, B, A.
    const int failed = picture->baseAddress() == nullptr ||
                       libyuv::ARGBToABGR(picture->baseAddress(), static_cast<int>(picture->bytesPerRow()), pixels,
                                          static_cast<int>(picture->width() * kBytesPerPixel),
                                          static_cast<int>(picture->width()), static_cast<int>(picture->height())) != 0;
    picture->unlockBaseAddress(kPixelBufferLockReadOnly);
    if (failed != 0) {
      g_set_error_literal(error, textureErrorQuark(), kWrongFormat, "the picture has no pixels");
      return false;
    }
    *out = pixels;
    *width = static_cast<uint32_t>(picture->width());
    *height = static_cast<uint32_t>(picture->height());
    return true;
  }
};

}  // namespace mirn

struct _MirnPixelTexture {
  FlPixelBufferTexture parent_instance;
  mirn::PixelTextureState* state;
};

G_DEFINE_TYPE(MirnPixelTexture, mirn_pixel_texture, fl_pixel_buffer_texture_get_type())

namespace {

gboolean copyPixels(FlPixelBufferTexture* texture, const uint8_t** out_buffer, uint32_t* width, uint32_t* height,
                    GError** error) {
  return MIRN_PIXEL_TEXTURE(texture)->state->copyPixels(out_buffer, width, height, error) ? TRUE : FALSE;
}

void finalizeTexture(GObject* object) {
  delete MIRN_PIXEL_TEXTURE(object)->state;
  G_OBJECT_CLASS(mirn_pixel_texture_parent_class)->finalize(object);
}

}  // namespace

static void mirn_pixel_texture_class_init(MirnPixelTextureClass* klass) {
  FL_PIXEL_BUFFER_TEXTURE_CLASS(klass)->copy_pixels = copyPixels;
  G_OBJECT_CLASS(klass)->finalize = finalizeTexture;
}

static void mirn_pixel_texture_init(MirnPixelTexture* self) {
  self->state = nullptr;
}

namespace mirn {

MirnPixelTexture* newPixelTexture(std::shared_ptr<ExternalTexture> texture, std::shared_ptr<RasterWatch> watch) {
  auto* self = MIRN_PIXEL_TEXTURE(g_object_new(mirn_pixel_texture_get_type(), nullptr));
  self->state = new PixelTextureState{std::move(texture), std::move(watch), self, {}};
  return self;
}

}  // namespace mirn
