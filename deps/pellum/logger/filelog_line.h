// How a log line begins. Reentrant.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace mirn {

// A message with its terminating NUL: what is longer is cut.
inline constexpr size_t kMessageBytes = 10240;
// Room for everything that stands before the message.
inline constexpr size_t kLineHeadBytes = 96;

// Needs kLineHeadBytes of room. Writes "[thread]\t", the local time with milliseconds, the level's tag and both
// separators. Returns the bytes written, at most kLineHeadBytes. No terminating NUL.
size_t formatLineHead(char* out, int level, char separator);

// Formats into kMessageBytes bytes. Returns the length of the text; a null or failing format gives an empty one.
size_t formatMessage(char* out, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

// The local time now, as strftime has it.
std::string localTimeText(const char* format);

}  // namespace mirn
