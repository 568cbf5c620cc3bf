#pragma once

// What a V4L2 node offers and reports, in the words of platform/capture.h and platform/frame_converter.h.

#include <linux/videodev2.h>

#include <string>
#include <vector>

#include "platform/capture.h"
#include "platform/frame_converter.h"
#include "platform/linux/v4l2_calls.h"

namespace mirn {

/// V4L2 has the first character in the lowest byte.
FourCharCode fromV4l2Format(uint32_t pixelFormat);
uint32_t toV4l2Format(FourCharCode pixelFormat);

/// True for a node that captures single-planar video and can stream. A UVC metadata node is none.
bool isCaptureNode(const v4l2_capability& capability);

/// YUYV, NV12 and MJPG in every discrete size, each with its fastest interval; of a stepwise range the usual sizes that
/// lie in it. In the driver's order.
std::vector<CaptureFormat> enumerateFormats(V4l2Calls& calls, int fd);

/// Rows and colour of what the driver will send. Colour as reported; what it leaves open follows V4L2's own defaults,
/// and with no colour space at all BT.709 from 720 lines on, else BT.601.
FrameLayout layoutOf(const v4l2_pix_format& format);

/// An error with the words a person needs. `doing` as in "starting the stream".
CaptureError v4l2Error(int code, const std::string& node, const std::string& doing);

/// True for the codes a node answers once its device is gone.
bool meansGone(int code);

}  // namespace mirn
