#pragma once

// Collects what goes to the system log while it lives. One at a time.

#include <string>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/system_log.h"

namespace mirn::test {

class LogCapture {
 public:
  LogCapture() {
    lines().clear();
    setSystemLogSink([](const std::string& line) { lines().push_back(line); });
  }
  ~LogCapture() { setSystemLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Read it when nobody logs.
  static std::vector<std::string>& lines() {
    static std::vector<std::string> collected;  // written under the log's own lock
    return collected;
  }
  static bool has(const std::string& part) {
    for (const std::string& line : lines()) {
      if (line.find(part) != std::string::npos) {
        return true;
      }
    }
    return false;
  }
};

}  // namespace mirn::test
