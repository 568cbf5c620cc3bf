#include <cerrno>
#include <utility>

#include "platform/capture.h"
#include "platform/frame_mailbox.h"

namespace mirn {

// ---- CaptureVideoOutput ----

CaptureVideoOutput::CaptureVideoOutput() : mailbox_(std::make_shared<detail::FrameMailbox>(this)) {}

CaptureVideoOutput::~CaptureVideoOutput() {
  mailbox_->setDelegate(nullptr, nullptr);
}

void CaptureVideoOutput::setSampleBufferDelegate(SampleBufferDelegate* delegate, TaskQueue* queue) {
  mailbox_->setDelegate(delegate, queue);
}

bool CaptureVideoOutput::setVideoSettings(PixelFormat format) {
  if (format != kPixelFormatBGRA) {
    return false;
  }
  videoPixelFormat_.store(format, std::memory_order_relaxed);
  return true;
}

PixelFormat CaptureVideoOutput::videoPixelFormat() const {
  return videoPixelFormat_.load(std::memory_order_relaxed);
}

void CaptureVideoOutput::setAlwaysDiscardsLateVideoFrames(bool discards) {
  discardsLate_.store(discards, std::memory_order_relaxed);
}

bool CaptureVideoOutput::alwaysDiscardsLateVideoFrames() const {
  return discardsLate_.load(std::memory_order_relaxed);
}

// ---- CaptureSession ----

CaptureSession::CaptureSession() : counters_(std::make_shared<detail::SessionCounters>()) {}

CaptureSession::~CaptureSession() {
  stopRunning();
  if (output_) {
    output_->mailbox_->detach();
  }
}

void CaptureSession::commitConfiguration() {
  if (configurations_ > 0) {
    --configurations_;
  }
}

bool CaptureSession::canAddInput(const std::shared_ptr<CaptureDeviceInput>& input) const {
  return input != nullptr && input_ == nullptr;
}

void CaptureSession::addInput(std::shared_ptr<CaptureDeviceInput> input) {
  if (!canAddInput(input)) {
    return;
  }
  input_ = std::move(input);
  choicesAtInput_ = input_->device()->formatChoices();
  if (output_) {
    output_->mailbox_->attach(counters_, input_->device().get());
  }
}

bool CaptureSession::canAddOutput(const std::shared_ptr<CaptureVideoOutput>& output) const {
  return output != nullptr && output_ == nullptr && !output->mailbox_->attached();
}

void CaptureSession::addOutput(std::shared_ptr<CaptureVideoOutput> output) {
  if (!canAddOutput(output)) {
    return;
  }
  output_ = std::move(output);
  output_->mailbox_->attach(counters_, input_ ? input_->device().get() : nullptr);
}

bool CaptureSession::startRunning(CaptureError* error) {
  if (isRunning()) {
    return true;
  }
  CaptureError failure;
  if (!input_ || !output_ || configurations_ > 0) {
    failure = {EINVAL, "", "the session is not complete", ""};
  } else if (applyPreset(&failure) && input_->device()->startStreaming(output_->mailbox_, &failure)) {
    clearLastCaptureError();
    return true;
  }
  reportCaptureError(failure);
  if (error != nullptr) {
    *error = failure;
  }
  return false;
}

bool CaptureSession::applyPreset(CaptureError* error) {
  CaptureDevice& device = *input_->device();
  if (preset_ != CaptureSessionPreset::kHigh || device.formatChoices() != choicesAtInput_) {
    return true;
  }
  const CaptureFormatRef format = highPresetFormat(device.formats());
  if (!format) {
    return true;  // a device without a list starts as it is
  }
  if (!device.lockForConfiguration(error)) {
    return false;
  }
  const ConfigurationUnlock unlock(&device);
  const bool set = device.setActiveFormat(format, error);
  choicesAtInput_ = device.formatChoices();
  return set;
}

void CaptureSession::stopRunning() {
  if (input_ && output_) {
    input_->device()->stopStreaming(output_->mailbox_.get());
  }
  counters_->running.store(false, std::memory_order_release);
}

bool CaptureSession::isRunning() const {
  return counters_->running.load(std::memory_order_acquire);
}

CaptureStatistics CaptureSession::statistics() const {
  const detail::SessionCounters& numbers = *counters_;
  CaptureStatistics result;
  result.framesCaptured = numbers.framesCaptured.load(std::memory_order_relaxed);
  result.framesDelivered = numbers.framesDelivered.load(std::memory_order_relaxed);
  result.droppedLate = numbers.droppedLate.load(std::memory_order_relaxed);
  result.droppedDamaged = numbers.droppedDamaged.load(std::memory_order_relaxed);
  const uint64_t size = numbers.size.load(std::memory_order_relaxed);
  result.width = static_cast<int32_t>(size >> 32);
  result.height = static_cast<int32_t>(size & 0xffffffff);
  const uint64_t interval = numbers.interval.load(std::memory_order_relaxed);
  result.interval = {static_cast<uint32_t>(interval >> 32), static_cast<uint32_t>(interval & 0xffffffff)};
  result.pixelFormat = numbers.pixelFormat.load(std::memory_order_relaxed);
  const int64_t newest = numbers.newestFrameNs.load(std::memory_order_relaxed);
  result.newestFrameAgeNs = newest < 0 ? -1 : detail::monotonicNs() - newest;
  result.running = numbers.running.load(std::memory_order_acquire);
  result.stopCode = numbers.stopCode.load(std::memory_order_relaxed);
  return result;
}

}  // namespace mirn
