#include "platform/linux/v4l2_device.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/v4l2_formats.h"
#include "platform/linux/valid_text.h"

namespace mirn {
namespace {

bool sameFormats(const std::vector<CaptureFormatRef>& left, const std::vector<CaptureFormatRef>& right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const CaptureFormatRef& a, const CaptureFormatRef& b) {
                      return a->pixelFormat == b->pixelFormat && a->width == b->width && a->height == b->height &&
                             a->mediaSubtype == b->mediaSubtype && a->interval.numerator == b->interval.numerator &&
                             a->interval.denominator == b->interval.denominator;
                    });
}

std::string cardNameOf(const v4l2_capability& capability) {
  const auto* text = reinterpret_cast<const char*>(capability.card);
  return {text, strnlen(text, sizeof capability.card)};
}

v4l2_format captureFormat() {
  v4l2_format format{};
  format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  return format;
}

}  // namespace

V4l2Device::V4l2Device(V4l2NodeInfo info, std::shared_ptr<V4l2Calls> calls)
    : info_(std::move(info)), calls_(std::move(calls)) {}

V4l2Device::~V4l2Device() {
  stream_.reset();
}

V4l2Look V4l2Device::look() {
  MutexGuard guard(nodeLock_);
  if (node_.valid()) {
    return lookThrough(node_.get());
  }
  int fd = -1;
  const int code = calls_->open(info_.path, fd);
  if (code != 0) {
    return meansGone(code) ? V4l2Look::kGone : V4l2Look::kInaccessible;
  }
  const V4l2Fd momentary(*calls_, fd);
  return lookThrough(momentary.get());
}

V4l2Look V4l2Device::lookThrough(int fd) {
  v4l2_capability capability{};
  if (calls_->control(fd, VIDIOC_QUERYCAP, &capability) != 0) {
    gone_.store(true);
    return V4l2Look::kGone;
  }
  if (!isCaptureNode(capability)) {
    return V4l2Look::kOther;
  }
  cardName_ = cardNameOf(capability);
  std::vector<CaptureFormatRef> found = sortedFormats(enumerateFormats(*calls_, fd));
  if (!sameFormats(found, formats_)) {
    formats_ = std::move(found);
  }
  return V4l2Look::kCapture;
}

std::string V4l2Device::localizedName() const {
  if (!info_.product.empty()) {
    return validText(info_.product);
  }
  MutexGuard guard(nodeLock_);
  return validText(cardName_.empty() ? info_.card : cardName_);
}

bool V4l2Device::isConnected() const {
  if (gone_.load()) {
    return false;
  }
  MutexGuard guard(nodeLock_);
  v4l2_capability capability{};
  return !node_.valid() || calls_->control(node_.get(), VIDIOC_QUERYCAP, &capability) == 0;
}

std::vector<CaptureFormatRef> V4l2Device::formats() {
  MutexGuard guard(nodeLock_);
  return formats_;
}

bool V4l2Device::fail(int code, const char* doing, CaptureError* error) const {
  if (error != nullptr) {
    *error = v4l2Error(code, info_.path, doing);
  }
  return false;
}

int V4l2Device::openDescriptor() const {
  MutexGuard guard(nodeLock_);
  return node_.get();
}

bool V4l2Device::openNode(CaptureError* error) {
  if (gone_.load()) {
    return fail(ENODEV, "opening", error);
  }
  int fd = -1;
  if (const int code = calls_->open(info_.path, fd); code != 0) {
    return fail(code, "opening", error);
  }
  V4l2Fd node(*calls_, fd);
  if (const int code = takeOwnership(fd); code != 0) {
    return fail(code, "taking the device", error);
  }
  layout_.reset();
  MutexGuard guard(nodeLock_);
  node_ = std::move(node);
  return true;
}

// Right after opening: the priority works against whoever comes first, the owner included. Then the format as it stands
// is set once, which makes a UVC driver take us for the owner, or say now that somebody else is.
int V4l2Device::takeOwnership(int fd) {
  uint32_t priority = V4L2_PRIORITY_RECORD;
  const int code = calls_->control(fd, VIDIOC_S_PRIORITY, &priority);
  if (code != 0 && code != ENOTTY && code != EINVAL) {
    return code;  // drivers without priorities answer one of these two
  }
  v4l2_format format = captureFormat();
  if (const int reading = calls_->control(fd, VIDIOC_G_FMT, &format); reading != 0) {
    return reading;
  }
  const int setting = calls_->control(fd, VIDIOC_S_FMT, &format);
  return setting == EBUSY || meansGone(setting) ? setting : 0;
}

void V4l2Device::closeNode() {
  layout_.reset();
  MutexGuard guard(nodeLock_);
  node_.reset();
}

// The lock is the priority that the open node has; the base class counts.
bool V4l2Device::acquireConfiguration(CaptureError* /*error*/) {
  return true;
}

void V4l2Device::releaseConfiguration() {}

// The driver adjusts what it doesn't know instead of refusing it; `layout` is what it will send.
int V4l2Device::setFormat(int32_t width, int32_t height, FourCharCode pixelFormat, FrameLayout& layout) {
  v4l2_format format = captureFormat();
  format.fmt.pix.width = static_cast<uint32_t>(width);
  format.fmt.pix.height = static_cast<uint32_t>(height);
  format.fmt.pix.pixelformat = toV4l2Format(pixelFormat);
  format.fmt.pix.field = V4L2_FIELD_ANY;
  const int code = calls_->control(openDescriptor(), VIDIOC_S_FMT, &format);
  if (code == 0) {
    layout = layoutOf(format.fmt.pix);
  }
  return code;
}

CaptureInterval V4l2Device::interval() const {
  v4l2_streamparm parameters{};
  parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
  if (calls_->control(openDescriptor(), VIDIOC_G_PARM, &parameters) != 0) {
    return {};
  }
  const v4l2_fract& time = parameters.parm.capture.timeperframe;
  return {time.numerator, time.denominator};
}

void V4l2Device::setInterval(const CaptureInterval& interval) {
  if (interval.numerator != 0) {
    v4l2_streamparm parameters{};
    parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe = {interval.numerator, interval.denominator};
    // A driver without a choice of rates refuses, and any driver may take another than this one: what it has in the
    // end is asked for when it matters.
    calls_->control(openDescriptor(), VIDIOC_S_PARM, &parameters);
  }
}

bool V4l2Device::applyFormat(const CaptureFormat& wanted, CaptureError* error) {
  const CaptureInterval former = interval();
  FrameLayout layout;
  if (const int code = setFormat(wanted.width, wanted.height, wanted.pixelFormat, layout); code != 0) {
    return fail(code, "setting the format", error);
  }
  if (layout.width != wanted.width || layout.height != wanted.height || layout.pixelFormat != wanted.pixelFormat) {
    if (layout_) {
      setFormat(layout_->width, layout_->height, layout_->pixelFormat, *layout_);
      setInterval(former);  // setting a format brings the driver's own choice of a rate
    }
    return fail(EINVAL, "setting the format", error);
  }
  layout_ = layout;
  setInterval(wanted.interval);
  return true;
}

// The layout as the driver has it, when nobody has set one since the node was opened.
int V4l2Device::readLayout() {
  if (layout_) {
    return 0;
  }
  v4l2_format format = captureFormat();
  const int code = calls_->control(openDescriptor(), VIDIOC_G_FMT, &format);
  if (code == 0) {
    layout_ = layoutOf(format.fmt.pix);
  }
  return code;
}

CaptureFormat V4l2Device::flowingFormat(const CaptureFormat& active) {
  if (readLayout() != 0) {
    return active;  // the start, which follows, fails with the reason
  }
  const CaptureInterval told = interval();
  const bool known = told.numerator != 0 && told.denominator != 0;
  return {layout_->pixelFormat, layout_->width, layout_->height, captureMediaSubtype(layout_->pixelFormat),
          known ? told : active.interval};
}

bool V4l2Device::startStream(CaptureError* error) {
  const int fd = openDescriptor();
  if (const int code = readLayout(); code != 0) {
    return fail(code, "reading the format", error);
  }
  const bool knownSize = layout_->width >= 1 && layout_->height >= 1 &&
                         static_cast<size_t>(layout_->width) <= kPixelBufferMaxSide &&
                         static_cast<size_t>(layout_->height) <= kPixelBufferMaxSide;
  if (captureMediaSubtype(layout_->pixelFormat) == 0 || !knownSize) {
    return fail(EINVAL, "reading the format (none that can be shown)", error);
  }
  stream_ = V4l2Stream::start(*calls_, fd, info_.path, *layout_, *this, error);
  return stream_ != nullptr;
}

void V4l2Device::stopStream() {
  stream_.reset();
}

void V4l2Device::onStreamFrame(PixelBufferRef picture, const CaptureFrameInfo& info) {
  deliverFrame(std::move(picture), info);
}

void V4l2Device::onStreamDamage() {
  deliverDamagedFrame();
}

void V4l2Device::onStreamLate() {
  deliverLateFrame();
}

void V4l2Device::onStreamEnd(const CaptureError& error) {
  if (meansGone(error.code)) {
    gone_.store(true);
  }
  deliverStopped(error);
}

}  // namespace mirn
