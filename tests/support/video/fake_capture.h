#pragma once

// A capture system whose frames come when a test says so, and whose every step can be made to fail.

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/capture.h"

namespace mirn::test {

inline CaptureFormat makeFormat(FourCharCode pixelFormat, int32_t width, int32_t height, uint32_t fps) {
  return {pixelFormat, width, height, captureMediaSubtype(pixelFormat), {1, fps}};
}

/// Both sizes in the three pixel formats, 30 frames a second.
inline std::vector<CaptureFormat> usualFormats() {
  return {makeFormat(kCaptureYuyv, 1280, 720, 30), makeFormat(kCaptureYuyv, 1920, 1080, 30),
          makeFormat(kCaptureNv12, 1280, 720, 30), makeFormat(kCaptureNv12, 1920, 1080, 30),
          makeFormat(kCaptureMjpg, 1280, 720, 30), makeFormat(kCaptureMjpg, 1920, 1080, 30)};
}

class FakeCaptureDevice final : public CaptureDevice {
 public:
  explicit FakeCaptureDevice(std::string name, std::vector<CaptureFormat> formats = usualFormats(),
                             std::string id = "fake-1")
      : name_(std::move(name)), id_(std::move(id)), formats_(sortedFormats(std::move(formats))) {}

  std::string localizedName() const override { return name_; }
  std::string uniqueID() const override { return id_; }
  std::string topologyPath() const override { return "1-1"; }
  std::string nodeName() const override { return "fake:" + id_; }
  bool hasMediaType(MediaType type) const override { return video && CaptureDevice::hasMediaType(type); }
  bool isConnected() const override { return connected; }
  std::vector<CaptureFormatRef> formats() override { return formats_; }
  void setFormats(std::vector<CaptureFormat> formats) { formats_ = sortedFormats(std::move(formats)); }

  /// The one of these properties; null when the list has none.
  CaptureFormatRef format(FourCharCode pixelFormat, int32_t width) const {
    for (const CaptureFormatRef& entry : formats_) {
      if (entry->pixelFormat == pixelFormat && entry->width == width) {
        return entry;
      }
    }
    return nullptr;
  }

  /// One frame into whatever session runs, from the calling thread.
  void push(PixelBufferRef buffer) { deliverFrame(std::move(buffer), {1, sequence_++}); }
  void push(size_t width, size_t height) { push(PixelBuffer::create(width, height, kPixelFormatBGRA)); }
  void pushDamaged() { deliverDamagedFrame(); }
  void stopByItself(int code) { deliverStopped({code, nodeName(), "stopped", ""}); }

  std::atomic<bool> video{true};
  std::atomic<bool> connected{true};
  std::atomic<int> openError{0};
  std::atomic<int> lockError{0};
  std::atomic<int> applyError{0};
  std::atomic<bool> applyThrows{false};  // as where the memory ends
  std::atomic<int> startError{0};
  std::atomic<int> opens{0};
  std::atomic<int> closes{0};
  std::atomic<int> starts{0};
  std::atomic<int> stops{0};
  std::atomic<int> applied{0};
  std::atomic<bool> streaming{false};

 protected:
  bool openNode(CaptureError* error) override { return answer(openError, error) && ++opens > 0; }
  void closeNode() override { ++closes; }
  bool acquireConfiguration(CaptureError* error) override { return answer(lockError, error); }
  void releaseConfiguration() override {}
  bool applyFormat(const CaptureFormat& /*format*/, CaptureError* error) override {
    if (applyThrows) {
      throw std::bad_alloc();
    }
    return answer(applyError, error) && ++applied > 0;
  }
  bool startStream(CaptureError* error) override {
    if (!answer(startError, error)) {
      return false;
    }
    ++starts;
    streaming = true;
    return true;
  }
  void stopStream() override {
    ++stops;
    streaming = false;
  }

 private:
  bool answer(int code, CaptureError* error) const {
    if (code != 0 && error != nullptr) {
      *error = {code, nodeName(), "made to fail", "Don't."};
    }
    return code == 0;
  }

  const std::string name_;
  const std::string id_;
  std::vector<CaptureFormatRef> formats_;
  uint32_t sequence_ = 0;
};

class FakeCaptureSystem final : public CaptureSystem {
 public:
  FakeCaptureSystem() { setCaptureSystem(this); }
  ~FakeCaptureSystem() override { setCaptureSystem(nullptr); }

  std::vector<std::shared_ptr<CaptureDevice>> devices() override { return {list.begin(), list.end()}; }
  std::shared_ptr<CaptureSession> createSession() override {
    return failSession ? nullptr : CaptureSystem::createSession();
  }
  std::shared_ptr<CaptureVideoOutput> createVideoOutput() override {
    return failOutput ? nullptr : CaptureSystem::createVideoOutput();
  }

  std::shared_ptr<FakeCaptureDevice> add(std::string name, std::vector<CaptureFormat> formats = usualFormats(),
                                         std::string id = "fake-1") {
    list.push_back(std::make_shared<FakeCaptureDevice>(std::move(name), std::move(formats), std::move(id)));
    return list.back();
  }

  std::vector<std::shared_ptr<FakeCaptureDevice>> list;
  bool failSession = false;
  bool failOutput = false;
};

}  // namespace mirn::test
