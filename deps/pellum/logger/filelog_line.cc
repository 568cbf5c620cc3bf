#include "deps/pellum/logger/filelog_line.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace mirn {
namespace {

constexpr size_t kTagBytes = 9;
constexpr size_t kTimeBytes = 48;  // "2026-11-15 23:57:01", with room for years of any length

// What a thread need not work out again for each line: "[id]\t" for as long as it lives, the time for a second.
struct LineCache {
  char thread[16];
  size_t thread_length;  // 0: not known yet
  time_t second;
  char time[kTimeBytes];
  size_t time_length;  // 0: not known yet
};

thread_local constinit LineCache t_line_cache{};

// The only thread of a forked child has another id.
void forgetThreadId() {
  t_line_cache.thread_length = 0;
}

void learnThreadId(LineCache& cache) {
  static const int registered = pthread_atfork(nullptr, nullptr, forgetThreadId);
  static_cast<void>(registered);
  const auto id = static_cast<uint32_t>(::syscall(SYS_gettid));
  cache.thread_length = static_cast<size_t>(std::snprintf(cache.thread, sizeof cache.thread, "[%u]\t", id));
}

void learnTime(LineCache& cache, time_t second) {
  tm local{};
  cache.time_length =
      localtime_r(&second, &local) ? std::strftime(cache.time, sizeof cache.time, "%Y-%m-%d %H:%M:%S", &local) : 0;
  cache.second = second;
}

const char* levelTag(int level) {
  switch (level) {
    case 1:
      return "- Info  -";  // two spaces: all tags have the same width
    case 2:
      return "+Warning+";
    case 4:
      return "* Error *";
    case 8:
      return "= Debug =";
    default:
      return "?unknown?";
  }
}

char* put(char* out, const char* text, size_t length) {
  std::memcpy(out, text, length);
  return out + length;
}

}  // namespace

size_t formatLineHead(char* out, int level, char separator) {
  LineCache& cache = t_line_cache;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (cache.thread_length == 0) {
    learnThreadId(cache);
  }
  if (cache.second != now.tv_sec || cache.time_length == 0) {
    learnTime(cache, now.tv_sec);
  }
  const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
  char* end = put(out, cache.thread, cache.thread_length);
  end = put(end, cache.time, cache.time_length);
  *end++ = '.';
  *end++ = static_cast<char>('0' + milliseconds / 100);
  *end++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *end++ = static_cast<char>('0' + milliseconds % 10);
  *end++ = separator;
  end = put(end, levelTag(level), kTagBytes);
  *end++ = separator;
  return static_cast<size_t>(end - out);
}

size_t formatMessage(char* out, const char* format, va_list arguments) {
  out[0] = '\0';
  const int length = format ? std::vsnprintf(out, kMessageBytes, format, arguments) : 0;
  if (length < 0) {
    return 0;
  }
  // Not the returned length: a "%c" may have printed a NUL, and the message is the text before it.
  return strnlen(out, kMessageBytes - 1);
}

std::string localTimeText(const char* format) {
  const time_t now = time(nullptr);
  tm local{};
  char text[kTimeBytes];
  const size_t length = localtime_r(&now, &local) ? std::strftime(text, sizeof text, format, &local) : 0;
  return {text, length};
}

}  // namespace mirn
