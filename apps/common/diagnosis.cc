#include "apps/common/diagnosis.h"

#include <cerrno>

namespace mirn {
namespace {

Condition ofFailure(OpenFailure failure) {
  switch (failure) {
    case OpenFailure::kPermission:
      return Condition::kNoPermission;
    case OpenFailure::kBusy:
      return Condition::kBusy;
    default:
      return Condition::kOpenFailed;
  }
}

std::string detail(const DeviceFacts& facts) {
  const std::string& text = facts.failure_detail.empty() ? facts.keyboard_detail : facts.failure_detail;
  return text.empty() ? std::string() : " (" + text + ")";
}

}  // namespace

OpenFailure classifyOpenError(int code) {
  switch (code) {
    case 0:
      return OpenFailure::kNone;
    case EACCES:
    case EPERM:
      return OpenFailure::kPermission;
    case EBUSY:
      return OpenFailure::kBusy;
    case ENODEV:
    case ENOENT:
    case ENXIO:
      return OpenFailure::kNotFound;
    default:
      return OpenFailure::kOther;
  }
}

Condition Diagnosis::update(const DeviceFacts& facts, Time now) {
  if (facts.open || !facts.present) {
    without_picture_.reset();
  } else if (!without_picture_) {
    without_picture_ = now;
  }
  if (!facts.open) {
    opened_.reset();
    last_frame_.reset();
    frames_ = 0;
  } else {
    if (!opened_) {
      opened_ = now;
      frames_ = 0;
    }
    if (facts.frames != frames_) {
      frames_ = facts.frames;
      last_frame_ = now;
    }
  }
  condition_ = judge(facts, now);
  return condition_;
}

Condition Diagnosis::judge(const DeviceFacts& facts, Time now) {
  if (!facts.present) {
    return Condition::kNotPluggedIn;
  }
  if (!facts.open) {
    if (facts.failure != OpenFailure::kNone && facts.failure != OpenFailure::kNotFound) {
      return ofFailure(facts.failure);
    }
    return now - *without_picture_ < kFirstPicture ? Condition::kStarting : Condition::kNoCamera;
  }
  if (!last_frame_) {
    return now - *opened_ < kFirstPicture ? Condition::kStarting : Condition::kNoSignal;
  }
  if (now - *last_frame_ > kStallAfter) {
    return Condition::kStalled;
  }
  if (facts.proxy) {
    return Condition::kFine;
  }
  return facts.keyboard_failure == OpenFailure::kPermission ? Condition::kNoPermission : Condition::kNoKeyboard;
}

Advice adviceFor(Condition condition, const DeviceFacts& facts) {
  switch (condition) {
    case Condition::kStarting:
      return {"starting", "Starting", "Waiting for the first picture."};
    case Condition::kFine:
      return {"fine", "", ""};
    case Condition::kNotPluggedIn:
      return {"not-plugged-in", "Not plugged in",
              "Plug the Mirn into a USB port of this computer. The picture comes by itself."};
    case Condition::kNoPermission:
      return {"no-permission", "No permission",
              "This user may not open the Mirn" + detail(facts) +
                  ". Install the package's udev rule (mirn-udev), then unplug the Mirn and plug it in again."};
    case Condition::kBusy:
      return {"busy", "Busy in another program",
              "Another program is using the Mirn's camera" + detail(facts) +
                  ". Close it; \"mirnctl doctor\" says which one it is."};
    case Condition::kNoCamera:
      return {"no-camera", "No camera",
              "The Mirn is plugged in, but its camera was not found. Unplug it and plug it in again; "
              "\"mirnctl doctor\" says what is missing."};
    case Condition::kOpenFailed:
      return {"open-failed", "Can't open the camera",
              "The Mirn's camera can't be opened" + detail(facts) + ". Unplug the Mirn and plug it in again."};
    case Condition::kNoSignal:
      return {
          "no-signal", "No signal",
          "The Mirn delivers no picture. Wake the target computer and check the video cable between it and the Mirn."};
    case Condition::kStalled:
      return {"stalled", "Stalled",
              "The picture has stopped. Check the USB cable and the port's load, then use \"Reconnect\" in the menu."};
    case Condition::kNoKeyboard:
      return {"no-keyboard", "Keyboard doesn't answer",
              "The picture is there, but the Mirn's keyboard interface can't be opened or doesn't answer. "
              "Check with \"mirnctl doctor\", or unplug the Mirn and plug it in again."};
  }
  return {"unknown", "Unknown", ""};
}

}  // namespace mirn
