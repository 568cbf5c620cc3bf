#include "video/camera_manager.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/mirn_identity.h"

namespace mirn {
namespace {

// One being shown, one being stored, one being painted, and one for a reader that takes its time.
constexpr size_t kCanvasesKept = 4;

void printLine(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

// The first format of exactly this size. The comparison is with what a 32-bit dimension can be.
CaptureFormatRef formatOfSize(CaptureDevice& device, int64_t width, int64_t height) {
  for (const CaptureFormatRef& format : device.formats()) {
    if (format->width == width && format->height == height) {
      return format;
    }
  }
  return nullptr;
}

}  // namespace

class CameraManager::StoreTask : public QueueTask {
 public:
  explicit StoreTask(CameraManager& manager) : manager_(manager) {}
  void run() override { manager_.storeNext(); }

 private:
  CameraManager& manager_;
};

CameraManager::CameraManager() : storeTask_(std::make_shared<StoreTask>(*this)) {}

CameraManager::~CameraManager() {
  if (captureSession) {
    captureSession->stopRunning();
  }
  if (videoOutput) {
    videoOutput->setSampleBufferDelegate(nullptr, nullptr);
  }
}

bool CameraManager::open() {
  std::shared_ptr<CaptureDevice> found;
  for (const auto& device : captureSystem().devicesWithMediaType(MediaType::kVideo)) {
    if (device->localizedName() == kMirnProductName) {
      found = device;
      break;
    }
  }
  if (!found) {
    return false;
  }
  captureDevice = std::move(found);
  CaptureError error;
  std::shared_ptr<CaptureDeviceInput> input = captureSystem().createDeviceInput(captureDevice, &error);
  if (!input) {
    printLine("Error initializing camera: " + error.localizedDescription());
    return false;
  }
  captureSession = captureSystem().createSession();
  if (captureSession) {
    captureSession->beginConfiguration();
  }
  if (!captureSession || !captureSession->canAddInput(input)) {
    printLine("Cannot add input to session.");
    return false;
  }
  captureSession->addInput(std::move(input));
  if (!activate720P()) {
    return false;
  }
  videoOutput = captureSystem().createVideoOutput();
  if (videoOutput) {
    videoOutput->setVideoSettings(kPixelFormatBGRA);
    videoOutput->setAlwaysDiscardsLateVideoFrames(true);
  }
  if (!captureSession->canAddOutput(videoOutput)) {
    printLine("Cannot add video output to session.");
    return false;
  }
  captureSession->addOutput(videoOutput);
  videoOutput->setSampleBufferDelegate(this, &globalWorkQueue());
  captureSession->commitConfiguration();
  return captureSession->startRunning();  // a device whose frames don't start is told, too: that is meant
}

// The messages name another size than the one sought: that is meant.
bool CameraManager::activate720P() {
  const CaptureFormatRef format = formatOfSize(*captureDevice, 1280, 720);
  if (!format) {
    printLine("640x480 resolution not supported");
    return true;
  }
  CaptureError error;
  if (!captureDevice->lockForConfiguration(&error)) {
    printLine("Error initializing camera: " + error.localizedDescription());
    return false;
  }
  captureDevice->setActiveFormat(format);
  captureDevice->unlockForConfiguration();
  printLine("Resolution set to 640x480");
  return true;
}

bool CameraManager::setResolution(int64_t width, int64_t height) {
  if (!captureDevice) {
    printLine("Capture device is not initialized.");
    return false;
  }
  CaptureError error;
  if (!captureDevice->lockForConfiguration(&error)) {
    printLine("Error setting resolution: " + error.localizedDescription());
    return false;
  }
  const CaptureFormatRef format = formatOfSize(*captureDevice, width, height);
  bool active = false;
  if (format) {
    active = captureDevice->setActiveFormat(format, &error);
    if (!active) {  // a driver may refuse what it lists: told and printed, which is meant
      printLine("Error setting resolution: " + error.localizedDescription());
    }
  } else {
    printLine("Resolution not supported.");
  }
  captureDevice->unlockForConfiguration();
  return active;
}

std::vector<std::string> CameraManager::listDevices() {
  std::vector<std::string> names;
  for (const auto& device : captureSystem().devices()) {
    if (device->hasMediaType(MediaType::kVideo)) {
      names.push_back(device->localizedName());
    }
  }
  return names;
}

std::optional<FrameData> CameraManager::currentFrame() {
  std::optional<FrameData> frame;
  frameQueue.sync([this, &frame] { frame = _currentFrame; });
  return frame;
}

void CameraManager::setCurrentFrame(std::optional<FrameData> frame) {
  MutexGuard guard(writesLock_);  // held over the submission: frames are stored in the order of these calls
  writes_.push(std::move(frame));
  if (!frameQueue.barrierAsync(storeTask_)) {
    writes_.pop();  // nobody to store it: this one, since nothing else can be waiting either
  }
}

void CameraManager::storeNext() {
  std::optional<FrameData> former;  // given back after the lock
  MutexGuard guard(writesLock_);
  former = std::exchange(_currentFrame, writes_.pop());
}

void CameraManager::captureOutput(CaptureVideoOutput& /*output*/, const SampleBuffer& sampleBuffer,
                                  const CaptureConnection& /*connection*/) {
  if (!sampleBuffer.imageBuffer) {
    printLine("Failed to get pixel buffer.");
    return;
  }
  PixelBuffer& picture = *sampleBuffer.imageBuffer;
  picture.lockBaseAddress(kPixelBufferLockReadOnly);
  const bool readable = picture.baseAddress() != nullptr;
  if (!readable) {
    printLine("Failed to get base address.");
  }
  const bool stored = readable && convert(picture);
  picture.unlockBaseAddress(kPixelBufferLockReadOnly);
  if (stored) {
    frameWidth.store(kCanvasWidth, std::memory_order_relaxed);
    frameHeight.store(kCanvasHeight, std::memory_order_relaxed);
  }
}

bool CameraManager::convert(PixelBuffer& picture) {
  const std::optional<Letterbox> box = letterbox(picture.width(), picture.height());
  if (!box || picture.bytesPerRow() < picture.width() * 4) {
    droppedFrames_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  MutexGuard guard(conversionLock_);
  const FrameBytesRef canvas = freeCanvas();
  uint8_t* bytes = canvas->mutableData();
  if (canvas->painted != *box) {
    std::memset(bytes, 0, kCanvasBytes);  // the bars lie elsewhere now
    canvas->painted = *box;
  }
  uint8_t* corner = bytes + static_cast<size_t>(box->top) * kCanvasBytesPerRow +
                    static_cast<size_t>(box->left) * kCanvasBytesPerPixel;
  scaler_.scaleAndPack({picture.baseAddress(), picture.width(), picture.height(), picture.bytesPerRow()},
                       {corner, static_cast<size_t>(box->width), static_cast<size_t>(box->height), kCanvasBytesPerRow});
  setCurrentFrame(FrameData{kCanvasWidth, kCanvasHeight, canvas});
  return true;
}

FrameBytesRef CameraManager::freeCanvas() {
  for (const FrameBytesRef& canvas : canvases_) {
    if (canvas->heldOnlyByCaller()) {
      return canvas;
    }
  }
  canvasAllocations_.fetch_add(1, std::memory_order_relaxed);
  FrameBytesRef fresh(new FrameBytes);
  if (canvases_.size() < kCanvasesKept) {
    canvases_.push_back(fresh);
  }
  return fresh;
}

}  // namespace mirn
