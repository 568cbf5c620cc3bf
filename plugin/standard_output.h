// The few plain lines that go to standard output instead of the log.
#pragma once

namespace mirn {

// printf-like, flushed at once, nothing added. Thread-safe, also after main has ended.
void printStandardOutput(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace mirn
