// A pointer at rest must end where it rests, although only one absolute move in seven reaches the device.
#pragma once

#include <chrono>
#include <optional>

#include "apps/common/input_sink.h"
#include "apps/common/pointer_map.h"

namespace mirn {

// The plug-in sends one absolute move in seven and holds the newest one back until a button, wheel or key event.
// Seven equal moves in a row therefore always bring that position out, wherever its count stands, and leave the
// count as it was; the move that stays held then is the same position, so a later flush moves nothing.
// Bound to the main thread; time comes from the caller.
class PointerRest {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr int kMovesToBeSure = 7;
  // A hand that has not moved for this long rests.
  static constexpr std::chrono::milliseconds kRestAfter{25};

  explicit PointerRest(InputSink& sink) : sink_(sink) {}

  // The pointer moved: sends one move.
  void move(int x, int y, Time now);
  // A button or wheel event at this position was sent: it carries the position itself, nothing is left to say.
  void settledAt(int x, int y);
  // When settle() wants to be called; nothing while no move waits.
  std::optional<Time> due() const;
  // Brings the resting position out when it is due (or at once with `force`); true when moves were sent.
  bool settle(Time now, bool force = false);
  // The proxy is new or the gate moved, so what was sent may not have arrived: a pointer that was put somewhere wants
  // to be settled there again.
  void again(Time now);

  int x() const { return x_; }
  int y() const { return y_; }

 private:
  InputSink& sink_;
  int x_ = kFullScale / 2;
  int y_ = kFullScale / 2;
  std::optional<Time> moved_;
  bool placed_ = false;
};

}  // namespace mirn
