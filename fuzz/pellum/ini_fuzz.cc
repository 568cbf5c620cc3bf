// Hostile configuration files through the logger's loader.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "deps/pellum/logger/flogger.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int file = ::memfd_create("configuration", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  if (::ftruncate(file, 0) != 0 || ::pwrite(file, data, size, 0) != static_cast<ssize_t>(size)) {
    std::abort();
  }
  mirn::flogger logger;
  logger.enable(false);
  logger.loadcfg(path.c_str());
  logger.write_log(1, "%s", "whatever the mask is");
  return 0;
}
