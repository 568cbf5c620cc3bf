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
constexpr size_t kStartBytes = 64;  // "[4294967295]\t2026-11-15 23:57:01.", with room for years of any length

// How a thread's lines begin within one second, so that it need not be worked out for each line.
struct LineCache {
  char start[kStartBytes];
  size_t length;  // 0: not known yet
  time_t second;
};

thread_local constinit LineCache t_line_cache{};

// The only thread of a forked child has another id.
void forgetThreadId() {
  t_line_cache.length = 0;
}

void learnStart(LineCache& cache, time_t second) {
  static const int registered = pthread_atfork(nullptr, nullptr, forgetThreadId);
  static_cast<void>(registered);
  const auto id = static_cast<uint32_t>(::syscall(SYS_gettid));
  auto length = static_cast<size_t>(std::snprintf(cache.start, sizeof cache.start, "[%u]\t", id));
  tm local{};
  if (localtime_r(&second, &local)) {
    length += std::strftime(cache.start + length, sizeof cache.start - length, "%Y-%m-%d %H:%M:%S.", &local);
  }
  cache.length = length;
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

}  // namespace

size_t formatLineHead(char* out, int level, char separator) {
  LineCache& cache = t_line_cache;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (cache.second != now.tv_sec || cache.length == 0) {
    learnStart(cache, now.tv_sec);
  }
  const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1000000);
  std::memcpy(out, cache.start, kStartBytes);  // all of it: a fixed size is two moves
  char* end = out + cache.length;
  *end++ = static_cast<char>('0' + milliseconds / 100);
  *end++ = static_cast<char>('0' + milliseconds / 10 % 10);
  *end++ = static_cast<char>('0' + milliseconds % 10);
  *end++ = separator;
  std::memcpy(end, levelTag(level), kTagBytes);
  end += kTagBytes;
  *end++ = separator;
  return static_cast<size_t>(end - out);
}

std::string localTimeText(const char* format) {
  const time_t now = time(nullptr);
  tm local{};
  char text[kStartBytes];
  const size_t length = localtime_r(&now, &local) ? std::strftime(text, sizeof text, format, &local) : 0;
  return {text, length};
}

}  // namespace mirn
