#include "platform/system_log.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "deps/pellum/thread_annotations.h"

namespace mirn {
namespace {

Mutex g_sinkLock;
SystemLogSink g_sink MIRN_GUARDED_BY(g_sinkLock) = nullptr;

constexpr size_t kLineBytes = 2048;

}  // namespace

void systemLog(const char* format, ...) {
  char line[kLineBytes];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  if (length < 0) {
    return;
  }
  MutexGuard guard(g_sinkLock);
  if (g_sink != nullptr) {
    g_sink(line);
  } else {
    syslog(LOG_USER | LOG_NOTICE, "%s", line);
  }
}

void setSystemLogSink(SystemLogSink sink) {
  MutexGuard guard(g_sinkLock);
  g_sink = sink;
}

}  // namespace mirn
