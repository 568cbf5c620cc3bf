// Input that waits for the device's answers: a command's exit status tells whether the keys were played.
#pragma once

#include <cstdint>

#include "apps/common/input_sink.h"
#include "apps/common/session.h"

namespace mirn {

// Passes input on and counts the answers that it must bring. Bound to the main thread.
class AnsweredInput final : public InputSink {
 public:
  explicit AnsweredInput(Session& session);

  void keyDown(int virtual_key) override;
  void keyUp(int virtual_key) override;
  // Call it PointerRest::kMovesToBeSure times for one position: one answer is expected for that many moves.
  void mouseMove(int x, int y) override;
  void mouseButton(const char* type, int x, int y) override;
  void mouseWheel(int x, int y, int delta) override;

  // After a failure: releases every key and gives the device a moment for what is on its way.
  void letGo();

  // Serves the main loop until every answer came; false when the device refused one or stayed silent for `limit`.
  bool wait(std::chrono::milliseconds limit);

 private:
  uint64_t answered() const;
  uint64_t refused() const;

  Session& session_;
  uint64_t first_answered_;
  uint64_t first_refused_;
  uint64_t expected_ = 0;
  int moves_ = 0;
};

}  // namespace mirn
