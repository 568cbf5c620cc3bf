// The process-wide logger: flogger::GetInitance().write_log(kLogError, "[%s] ...", ...).
#pragma once

#include "deps/pellum/logger/filelog.h"

namespace mirn {

class flogger : public filelog {
 public:
  // Defaults, then loadcfg(nullptr).
  flogger();

  // Built during static initialisation, or earlier by the first who asks; never destroyed, so that threads which
  // outlive main can still log. At the end of main it writes what waits, and from then on each line at once: nothing is
  // lost to the end of the process. The name is deliberate.
  static flogger& GetInitance();

  // Reads section "LOGGER" of an INI file, "/etc/dravio.ini" for null. All four values are applied, defaults included;
  // if the file can't be read, nothing changes.
  void loadcfg(const char* path);
  // A null directory is reported and changes nothing. Size in bytes.
  void loadcfg(const char* directory, unsigned long level_mask, unsigned long max_size, unsigned short file_max_count);

 private:
  static flogger* make();
  static flogger& s_logger;
};

}  // namespace mirn
