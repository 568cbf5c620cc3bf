#pragma once

// The system log (syslog, facility user): capture and texture messages. Never standard output.

#include <string>

namespace mirn {

/// One line, printf-like, cut at 2047 bytes. Thread-safe.
void systemLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Where lines go instead of syslog, for tests; nullptr = syslog again. `sink` runs on the logging thread, under the
/// log's lock: it must not log.
using SystemLogSink = void (*)(const std::string& line);
void setSystemLogSink(SystemLogSink sink);

}  // namespace mirn
