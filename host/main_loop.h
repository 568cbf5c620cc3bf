// The platform thread's loop: the default GLib main context, on which channel messages, posted tasks and captured
// frames are served one at a time.
#pragma once

#include <chrono>
#include <functional>

namespace mirn {

// All functions are bound to the platform thread: the one that runs the default main context. They may be nested.

// Serves the loop until `done` answers true or the time is over; the answer is done()'s last one. `done` is asked
// before the first turn and after each. What other threads make true without the loop's knowledge is seen after
// `look_again` at the latest: who waits for long, or for ever, spares the processor with a longer one.
bool runLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
                  std::chrono::milliseconds look_again = std::chrono::milliseconds(2));

// Serves the loop that long. For programs with a command that says so; tests wait for conditions instead.
void runLoopFor(std::chrono::milliseconds time);

// Serves whatever is ready now, without waiting, at most `turns` times.
void drainLoop(int turns = 1000);

// Serves the loop until quitLoop() (callable from any thread; a quit before the run counts for the next one).
void runLoop();
void quitLoop();

}  // namespace mirn
