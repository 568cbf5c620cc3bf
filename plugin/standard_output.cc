#include "plugin/standard_output.h"

#include <cstdarg>
#include <cstdio>

namespace mirn {

void printStandardOutput(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stdout, format, arguments);
  va_end(arguments);
  std::fflush(stdout);
}

}  // namespace mirn
