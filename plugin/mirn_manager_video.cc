// The video half of the device manager: capture session, formats, colour, frame delivery.

#include <vector>

#include "platform/main_queue.h"
#include "platform/mirn_identity.h"
#include "platform/system_log.h"
#include "plugin/mirn_manager.h"
#include "video/mirn_texture.h"

namespace mirn {

bool gNormalColor = true;

namespace {

struct PictureSize {
  int32_t width;
  int32_t height;
};
constexpr PictureSize k1080P{1920, 1080};
constexpr PictureSize k720P{1280, 720};

void logDevice(const CaptureDevice& device) {
  systemLog("devicename: %s, deviceid: %s", device.localizedName().c_str(), device.uniqueID().c_str());
}

void logFormats(const std::vector<CaptureFormatRef>& formats) {
  std::string list = "(";
  for (const CaptureFormatRef& format : formats) {
    list += (list.size() > 1 ? ", " : "") + describe(*format);
  }
  systemLog("formats %s)", list.c_str());
}

bool matches(const CaptureFormat& format, PictureSize size, FourCharCode subtype) {
  return format.width == size.width && format.height == size.height && format.mediaSubtype == subtype;
}

}  // namespace

std::vector<std::string> MirnManager::getDeviceList() {
  std::vector<std::string> names;
  for (const auto& device : captureSystem().devicesWithMediaType(MediaType::kVideo)) {
    logDevice(*device);
    names.push_back(device->localizedName());
  }
  return names;
}

bool MirnManager::open() {
  for (const auto& device : captureSystem().devicesWithMediaType(MediaType::kVideo)) {
    if (device->localizedName() == kMirnProductName) {
      captureDevice_ = device;
      logDevice(*device);
      break;
    }
  }
  if (!captureDevice_) {
    return false;
  }
  storeFormats();
  captureSession_ = captureSystem().createSession();
  if (!captureSession_) {
    return false;
  }
  captureSession_->setSessionPreset(CaptureSessionPreset::kHigh);
  videoInput_ = captureSystem().createDeviceInput(captureDevice_, nullptr);
  if (!videoInput_) {
    return false;
  }
  captureSession_->addInput(videoInput_);
  videoOutput_ = captureSystem().createVideoOutput();
  if (!videoOutput_) {
    return false;
  }
  videoOutput_->setSampleBufferDelegate(this, &mainQueue());
  videoOutput_->setVideoSettings(kPixelFormatBGRA);
  if (!captureSession_->canAddOutput(videoOutput_)) {
    return false;
  }
  captureSession_->addOutput(videoOutput_);
  return captureSession_->startRunning();  // a device whose frames don't start is told, too: that is meant
}

// The last match of each kind wins: devices list the fastest last. A slot without a match keeps what it held.
void MirnManager::storeFormats() {
  const std::vector<CaptureFormatRef> formats = captureDevice_->formats();
  logFormats(formats);
  for (const CaptureFormatRef& format : formats) {
    if (matches(*format, k1080P, kPixelFormat420v)) {
      normalcolor_ = format;
    } else if (matches(*format, k1080P, kPixelFormatYuvs)) {
      bestcolor_ = format;
    } else if (matches(*format, k720P, kPixelFormat420v)) {
      normalcolor_720_ = format;
    } else if (matches(*format, k720P, kPixelFormatYuvs)) {
      bestcolor_720_ = format;
    }
  }
}

bool MirnManager::setVideoQuality(const std::string* quality) {
  if (!captureDevice_ || !captureDevice_->lockForConfiguration()) {
    return false;
  }
  const bool small = quality != nullptr && *quality == "720P";
  if (!small && (quality == nullptr || *quality != "1080P")) {
    return false;  // the lock stays held: that is meant
  }
  const ConfigurationUnlock unlock(captureDevice_.get());
  if (small) {
    captureDevice_->setActiveFormat(gNormalColor ? normalcolor_720_ : bestcolor_720_);
  } else {
    captureDevice_->setActiveFormat(gNormalColor ? normalcolor_ : bestcolor_);
  }
  const PictureSize& size = small ? k720P : k1080P;
  sourceWidth_ = size.width;
  sourceHeight_ = size.height;
  return true;
}

void MirnManager::normalColor() {
  switchColor(true);
}

void MirnManager::bestColor() {
  switchColor(false);
}

void MirnManager::switchColor(bool normal) {
  if (!captureDevice_ || !captureDevice_->lockForConfiguration()) {
    return;
  }
  const ConfigurationUnlock unlock(captureDevice_.get());
  if (sourceWidth_ == k720P.width && sourceHeight_ == k720P.height) {
    captureDevice_->setActiveFormat(normal ? normalcolor_720_ : bestcolor_720_);
  } else if (sourceWidth_ == k1080P.width && sourceHeight_ == k1080P.height) {
    captureDevice_->setActiveFormat(normal ? normalcolor_ : bestcolor_);
  }
  gNormalColor = normal;
}

void MirnManager::close() {
  if (captureSession_) {
    captureSession_->stopRunning();
  }
  captureSession_.reset();
  captureDevice_.reset();
  videoInput_.reset();
  videoOutput_.reset();
}

void MirnManager::bindTexture(int64_t textureId) {
  textureId_ = textureId;
}

MirnSize MirnManager::getSize() {
  return {static_cast<double>(sourceWidth_), static_cast<double>(sourceHeight_)};
}

void MirnManager::captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sampleBuffer,
                                const CaptureConnection& /*connection*/) {
  // The ids are taken first: a host may destroy a texture from another thread between the calls below. From inside them
  // it must not: each holds the textures' lock over the engine's call.
  liveTextureIds(frameTextureIds_);
  for (const int64_t id : frameTextureIds_) {
    updateTexture(id, sampleBuffer.imageBuffer);
  }
}

}  // namespace mirn
