#include "deps/pellum/logger/flogger.h"

#define SI_IMPLEMENTATION  // the templates are compiled here, not taken from a library
#define SI_NO_CONVERSION   // 8-bit text alone needs none of the wide converters
#include <SimpleIni.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "deps/pellum/base_assert.h"

namespace mirn {
namespace {

constexpr const char* kConfigurationFile = "/etc/dravio.ini";
constexpr const char* kSection = "LOGGER";
// A configuration file is a few lines. What is no regular file, or larger than this, is not read: it might never end.
constexpr off_t kMaxConfigurationBytes = 1 << 20;

using Ini = CSimpleIniTempl<char, SI_GenericNoCase<char>, SI_ConvertA<char>>;

bool mayBeRead(const char* path) {
  struct stat status {};
  return ::stat(path, &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= kMaxConfigurationBytes;
}

}  // namespace

flogger& flogger::s_logger = flogger::GetInitance();

flogger& flogger::GetInitance() {
  static flogger* const logger = make();
  return *logger;
}

flogger* flogger::make() {
  static const pid_t owner = ::getpid();
  // A forked child has copies of lines that its parent writes, and of locks whose threads it does not have.
  static_cast<void>(std::atexit([] {
    if (::getpid() == owner) {
      GetInitance().writeThrough();
    }
  }));
  return new flogger;
}

flogger::flogger() {
  loadcfg(nullptr);
}

void flogger::loadcfg(const char* path) {
  const char* file = path ? path : kConfigurationFile;
  Ini ini(/*isUtf8=*/true, /*isMultiKey=*/true, /*isMultiLine=*/true);
  if (!mayBeRead(file) || ini.LoadFile(file) < 0) {
    return;
  }
  // An absent path means the empty one, and so the root directory. That is meant.
  const char* directory = ini.GetValue(kSection, "PATH", "");
  const auto level_mask = static_cast<unsigned long>(ini.GetLongValue(kSection, "MASK", -1));
  const auto max_mebibytes = static_cast<unsigned long>(ini.GetLongValue(kSection, "MAXSIZE", 16));
  const auto file_max_count = static_cast<unsigned short>(ini.GetLongValue(kSection, "FILE_MAX_COUNT", 0));
  loadcfg(directory, level_mask, max_mebibytes << 20, file_max_count);
}

void flogger::loadcfg(const char* directory, unsigned long level_mask, unsigned long max_size,
                      unsigned short file_max_count) {
  if (!baseAssert(directory != nullptr, "directory != nullptr", "flogger")) {
    return;
  }
  Path(directory, file_max_count);
  Flag(level_mask);
  MaxSize(max_size);
}

}  // namespace mirn
