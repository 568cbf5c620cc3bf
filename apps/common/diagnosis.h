// What is wrong, and the one thing to do about it: from a few facts to a state with a title and an advice.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace mirn {

enum class Condition {
  kStarting,      // too early to say
  kFine,          // picture and keyboard are there
  kNotPluggedIn,  // no device with the Mirn's identifiers on the bus
  kNoPermission,  // a node is there but may not be opened
  kBusy,          // another program holds the camera
  kNoCamera,      // the bus shows the Mirn, but the system has no camera of it
  kOpenFailed,    // the camera can't be opened for another reason
  kNoSignal,      // the camera runs and has never delivered a picture
  kStalled,       // pictures came and then stopped
  kNoKeyboard,    // pictures come, the keyboard interface doesn't answer
};

struct Advice {
  const char* word;  // for scripts: "no-signal"
  std::string title;
  std::string text;  // what to do, one or two sentences
};

// The reasons that a failed open can name.
enum class OpenFailure { kNone, kNotFound, kPermission, kBusy, kOther };
// From the errno of the last open error; 0 = none.
OpenFailure classifyOpenError(int code);

struct DeviceFacts {
  bool present = false;  // the bus shows a Mirn
  bool proxy = false;    // the keyboard interface is open and answered
  bool open = false;     // the capture session runs
  OpenFailure failure = OpenFailure::kNone;
  std::string failure_detail;                         // the reason text with its node
  uint64_t frames = 0;                                // delivered since the session was opened
  OpenFailure keyboard_failure = OpenFailure::kNone;  // of the keyboard interface, while there is no proxy
  std::string keyboard_detail;
};

// Turns facts over time into a condition. Reentrant; time comes from the caller.
class Diagnosis {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // A capture stick needs a moment after the start before its first picture, and after plugging until its camera is
  // there.
  static constexpr std::chrono::milliseconds kFirstPicture{2500};
  // Slowest source is 5 pictures a second; several missing ones are no jitter any more.
  static constexpr std::chrono::milliseconds kStallAfter{1500};

  Condition update(const DeviceFacts& facts, Time now);
  Condition condition() const { return condition_; }

 private:
  Condition judge(const DeviceFacts& facts, Time now);

  Condition condition_ = Condition::kStarting;
  std::optional<Time> without_picture_;  // since when it is plugged in and not open
  std::optional<Time> opened_;
  std::optional<Time> last_frame_;
  uint64_t frames_ = 0;
};

Advice adviceFor(Condition condition, const DeviceFacts& facts);

}  // namespace mirn
