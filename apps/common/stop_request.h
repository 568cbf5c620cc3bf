// The wish that the program ends (Ctrl+C, a closed terminal, a service manager), as an event of the main loop instead
// of a death in the middle of a key press.
#pragma once

#include <array>
#include <functional>

namespace mirn {

// While one of these lives, SIGINT, SIGTERM and SIGHUP are noted when the default main context is served; after the
// last one they end the program again. A signal that the program was started with as ignored stays ignored. Bound to
// the main thread.
class StopRequest {
 public:
  using Callback = std::function<void(int signal)>;

  // `noted` (may be empty) is called for each signal, from the main loop.
  explicit StopRequest(Callback noted = {});
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;

  // The first signal that came; 0 = none yet.
  int signal() const { return signal_; }

 private:
  struct Watch {
    StopRequest* owner = nullptr;
    int signal = 0;
    unsigned source = 0;  // 0 = the signal is left alone
  };
  static int onSignal(void* watch);

  Callback noted_;
  int signal_ = 0;
  std::array<Watch, 3> watches_{};
};

// "SIGINT", "SIGTERM", "SIGHUP".
const char* signalName(int signal);

// Ends the process the way the signal would have, so that a shell that runs a script stops, too (status 128 + signal).
// Nothing else is torn down: do that first.
[[noreturn]] void endBySignal(int signal);

// From now on a write to a reader that is gone fails instead of ending the program. Call at the start of main().
void ignoreBrokenPipes();

}  // namespace mirn
