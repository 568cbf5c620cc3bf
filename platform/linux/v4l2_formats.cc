#include "platform/linux/v4l2_formats.h"

#include <array>
#include <cerrno>

namespace mirn {
namespace {

// A driver that never ends its lists must not keep us.
constexpr uint32_t kMostFormats = 64;
constexpr uint32_t kMostSizes = 256;
constexpr uint32_t kMostIntervals = 256;

struct Size {
  uint32_t width;
  uint32_t height;
};
constexpr std::array<Size, 5> kUsualSizes = {{{640, 480}, {1280, 720}, {1920, 1080}, {2560, 1440}, {3840, 2160}}};

bool faster(const CaptureInterval& left, const CaptureInterval& right) {
  return right.numerator == 0 || static_cast<uint64_t>(left.denominator) * right.numerator >
                                     static_cast<uint64_t>(right.denominator) * left.numerator;
}

CaptureInterval fastestInterval(V4l2Calls& calls, int fd, uint32_t pixelFormat, Size size) {
  CaptureInterval fastest;
  for (uint32_t index = 0; index < kMostIntervals; ++index) {
    v4l2_frmivalenum entry{};
    entry.index = index;
    entry.pixel_format = pixelFormat;
    entry.width = size.width;
    entry.height = size.height;
    if (calls.control(fd, VIDIOC_ENUM_FRAMEINTERVALS, &entry) != 0) {
      break;
    }
    const v4l2_fract& fraction = entry.type == V4L2_FRMIVAL_TYPE_DISCRETE ? entry.discrete : entry.stepwise.min;
    const CaptureInterval interval = {fraction.numerator, fraction.denominator};
    if (interval.numerator != 0 && faster(interval, fastest)) {
      fastest = interval;
    }
    if (entry.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
      break;
    }
  }
  return fastest;
}

bool inRange(const v4l2_frmsize_stepwise& range, Size size) {
  const auto fits = [](uint32_t value, uint32_t least, uint32_t most, uint32_t step) {
    return value >= least && value <= most && (step == 0 || (value - least) % step == 0);
  };
  return fits(size.width, range.min_width, range.max_width, range.step_width) &&
         fits(size.height, range.min_height, range.max_height, range.step_height);
}

std::vector<Size> enumerateSizes(V4l2Calls& calls, int fd, uint32_t pixelFormat) {
  std::vector<Size> sizes;
  for (uint32_t index = 0; index < kMostSizes; ++index) {
    v4l2_frmsizeenum entry{};
    entry.index = index;
    entry.pixel_format = pixelFormat;
    if (calls.control(fd, VIDIOC_ENUM_FRAMESIZES, &entry) != 0) {
      break;
    }
    if (entry.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
      for (const Size& size : kUsualSizes) {
        if (inRange(entry.stepwise, size)) {
          sizes.push_back(size);
        }
      }
      break;
    }
    const Size size = {entry.discrete.width, entry.discrete.height};
    if (size.width >= 1 && size.height >= 1 && size.width <= kPixelBufferMaxSide &&
        size.height <= kPixelBufferMaxSide) {
      sizes.push_back(size);
    }
  }
  return sizes;
}

YuvMatrix matrixOf(const v4l2_pix_format& format) {
  uint32_t encoding = format.ycbcr_enc;
  if (encoding == V4L2_YCBCR_ENC_DEFAULT) {
    if (format.colorspace == V4L2_COLORSPACE_DEFAULT) {
      return defaultYuvMatrix(static_cast<int32_t>(format.height));
    }
    encoding = V4L2_MAP_YCBCR_ENC_DEFAULT(format.colorspace);
  }
  return encoding == V4L2_YCBCR_ENC_709 || encoding == V4L2_YCBCR_ENC_XV709 ? YuvMatrix::kBt709 : YuvMatrix::kBt601;
}

YuvRange rangeOf(const v4l2_pix_format& format) {
  if (format.quantization != V4L2_QUANTIZATION_DEFAULT) {
    return format.quantization == V4L2_QUANTIZATION_FULL_RANGE ? YuvRange::kFull : YuvRange::kVideo;
  }
  return format.colorspace == V4L2_COLORSPACE_JPEG ? YuvRange::kFull : YuvRange::kVideo;
}

}  // namespace

FourCharCode fromV4l2Format(uint32_t pixelFormat) {
  return pixelFormat == V4L2_PIX_FMT_JPEG ? kCaptureMjpg : __builtin_bswap32(pixelFormat);
}

uint32_t toV4l2Format(FourCharCode pixelFormat) {
  return __builtin_bswap32(pixelFormat);
}

bool isCaptureNode(const v4l2_capability& capability) {
  const uint32_t capabilities =
      (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
  constexpr uint32_t kNeeded = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  return (capabilities & kNeeded) == kNeeded;
}

std::vector<CaptureFormat> enumerateFormats(V4l2Calls& calls, int fd) {
  std::vector<CaptureFormat> formats;
  for (uint32_t index = 0; index < kMostFormats; ++index) {
    v4l2_fmtdesc entry{};
    entry.index = index;
    entry.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (calls.control(fd, VIDIOC_ENUM_FMT, &entry) != 0) {
      break;
    }
    const FourCharCode code = __builtin_bswap32(entry.pixelformat);
    const FourCharCode subtype = captureMediaSubtype(code);
    if (subtype == 0) {
      continue;
    }
    for (const Size& size : enumerateSizes(calls, fd, entry.pixelformat)) {
      formats.push_back({code, static_cast<int32_t>(size.width), static_cast<int32_t>(size.height), subtype,
                         fastestInterval(calls, fd, entry.pixelformat, size)});
    }
  }
  return formats;
}

FrameLayout layoutOf(const v4l2_pix_format& format) {
  FrameLayout layout;
  layout.pixelFormat = fromV4l2Format(format.pixelformat);
  layout.width = static_cast<int32_t>(format.width);
  layout.height = static_cast<int32_t>(format.height);
  layout.bytesPerLine = layout.pixelFormat == kCaptureMjpg ? 0 : format.bytesperline;
  layout.matrix = matrixOf(format);
  layout.range = rangeOf(format);
  return layout;
}

bool meansGone(int code) {
  return code == ENODEV || code == ENXIO || code == ENOENT || code == ESHUTDOWN;
}

CaptureError v4l2Error(int code, const std::string& node, const std::string& doing) {
  if (code == EBUSY) {
    return {code, node, "the device is in use by another program",
            "Close that program (fuser -v " + node + " shows it) and open again."};
  }
  if (code == EACCES || code == EPERM) {
    return {
        code, node, "this user may not open the node",
        "Add the user to the group 'video' or install the udev rule that comes with the package, then log in again."};
  }
  if (meansGone(code)) {
    return {code, node, doing + " failed, the device is gone", "Plug it in and open again."};
  }
  return {code, node, doing + " failed", "Unplug the device, plug it in and open again."};
}

}  // namespace mirn
