// Input that waits for the device's answers: a command's exit status tells whether the keys were played.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "apps/common/input_sink.h"
#include "apps/common/session.h"
#include "apps/common/stop_request.h"
#include "apps/mirnctl/report.h"

namespace mirn {

// Passes input on at the pace of the device, a few events ahead of its answers, and counts what it must answer. A
// refusal, a silence or a signal ends it: what comes after is not sent. Make it after Context::needKeyboard(), which
// leaves nothing unanswered. Bound to the main thread.
class AnsweredInput final : public InputSink {
 public:
  // Events that may be unanswered at a time: so many still go out after a signal.
  static constexpr uint64_t kInFlight = 8;

  explicit AnsweredInput(Session& session);

  void keyDown(int virtual_key) override;
  void keyUp(int virtual_key) override;
  // Call it PointerRest::kMovesToBeSure times for one position: one answer is expected for that many moves.
  void mouseMove(int x, int y) override;
  void mouseButton(const char* type, int x, int y) override;
  void mouseWheel(int x, int y, int delta) override;

  // Serves the main loop until every answer came; false when it ended before, see above.
  bool wait();

  // The signal that came; 0 = none.
  int signal() const { return stop_.signal(); }

  // The command's end when the input was not played whole: lets go of every key (and of the buttons, when the pointer
  // was used, where it was put last), waits for the device to take that, and says what happened: `message`, or the
  // signal. The exit status.
  int failure(Report& report, const std::string& message, const Json& fields = Json::object());

 private:
  struct Place {
    int x = 0;
    int y = 0;
  };
  uint64_t answered() const;
  uint64_t refused() const;
  // By a refusal or a signal.
  bool ended() const { return stop_.signal() != 0 || refused() != first_refused_; }
  // Serves the main loop until at most so many events are unanswered. The patience begins anew with each answer.
  bool waitUntilUnanswered(uint64_t most, const std::function<bool()>& ended);
  bool mayGoOn();
  bool letGo();

  Session& session_;
  StopRequest stop_;
  uint64_t first_answered_;
  uint64_t first_refused_;
  uint64_t expected_ = 0;
  int moves_ = 0;
  bool whole_ = true;  // nothing was left out
  std::optional<Place> place_;
};

}  // namespace mirn
