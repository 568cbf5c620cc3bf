// What every command of mirnctl works with.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/session.h"
#include "apps/common/stop_request.h"
#include "apps/common/virtual_world.h"
#include "apps/mirnctl/report.h"

namespace mirn {

struct GlobalOptions {
  bool json = false;
  bool use_virtual = false;
  bool verbose = false;  // the library's own lines on standard error
  VirtualOptions virtual_options;
  std::vector<std::string> denied;  // "camera", "hid": what of the virtual device may not be opened
  int pull_after_ms = -1;           // the virtual device is unplugged then; -1 = never
  int plug_after_ms = -1;           // and plugged in (again) then
};

// Bound to the main thread.
class Context {
 public:
  Context(const GlobalOptions& options, int descriptor, int error_descriptor);
  // The connection to the device ends with the process: closing it here could throw the target's pointer into a corner.
  ~Context() = default;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  Report& report() { return report_; }
  const GlobalOptions& options() const { return options_; }
  VirtualWorld* world() { return world_; }
  // Installs the virtual device when it is asked for; an exit status otherwise.
  std::optional<int> prepare();
  Session& session();

  // From now on a signal doesn't end the program; who works for long asks for it.
  void heedSignals() { stop_.emplace(); }
  int signal() const { return stop_ ? stop_->signal() : 0; }  // 0 = none

  // The device is there, its keyboard interface answers, and what a crash left held is let go; else the exit status,
  // with everything said.
  std::optional<int> needKeyboard();
  // The picture runs and its first frame came, in `first`.
  std::optional<int> needPicture(const PictureChoice& format, std::chrono::milliseconds limit, PixelBufferRef* first);

 private:
  int keyboardTrouble();
  int pictureTrouble();
  int formatTrouble(const PictureChoice& wanted);
  void scheduleVirtualPlugging();

  GlobalOptions options_;
  Report report_;
  VirtualWorld* world_ = nullptr;
  std::unique_ptr<Session> session_;
  std::optional<StopRequest> stop_;
};

}  // namespace mirn
