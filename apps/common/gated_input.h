// A person's input on its way to the target: it goes out only while it may, and what was pressed is always let go.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

#include "apps/common/input_sink.h"

namespace mirn {

// Bound to the main thread.
class GatedInput final : public InputSink {
 public:
  // `target` is borrowed. `allowed` is asked for each event; `sent` is told of each that passes. `elsewhere` says
  // whether the keyboard interface plays into another computer than the one on the screen.
  GatedInput(InputSink& target, std::function<bool()> allowed, std::function<void()> sent,
             std::function<bool()> elsewhere);

  void keyDown(int virtual_key) override;
  void keyUp(int virtual_key) override;
  void mouseMove(int x, int y) override;
  void mouseButton(const char* type, int x, int y) override;
  void mouseWheel(int x, int y, int delta) override;

  // A key, button or notch passed less than `time` ago; a move is no matter, since the next one says as much.
  bool passedWithin(std::chrono::milliseconds time) const;

  // keyUp 0 and the three button-ups at this place, also while input is held back. While the keyboard is elsewhere only
  // keyUp 0 goes out, and that only after a press: it moves nothing. The rest is owed until the two belong together.
  void releaseEverything(int x, int y);
  // The gate may have opened or closed, or the proxy is new: sends the releases that are called for now.
  void gateChanged(int x, int y);

 private:
  enum class Kind { kMove, kOther };
  bool pass(Kind kind = Kind::kOther);

  InputSink& target_;
  std::function<bool()> allowed_;
  std::function<void()> sent_;
  std::function<bool()> elsewhere_;
  bool pressed_ = false;  // a key or button went down since the last release of everything
  bool owed_ = false;     // a release of everything was cut short
  std::optional<std::chrono::steady_clock::time_point> passed_;
};

}  // namespace mirn
