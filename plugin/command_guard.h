// What stands between a command and the engine: no exception passes, whatever a command ran out of.
#pragma once

#include <exception>
#include <string_view>

#include "deps/pellum/logger/flogger.h"

namespace mirn {

inline void logFailure(const char* plugin, std::string_view name, const char* reason) {
  flogger::GetInitance().write_log(kLogError, "[%s] %.*s failed: %s", plugin, static_cast<int>(name.size()),
                                   name.data(), reason);
}

// Runs `command`. False after its line in the log when it threw; the caller then answers what a failure answers.
template <typename Command>
bool runGuarded(const char* plugin, std::string_view name, const Command& command) {
  try {
    command();
    return true;
  } catch (const std::exception& failure) {
    logFailure(plugin, name, failure.what());
  } catch (...) {
    logFailure(plugin, name, "not a standard exception");
  }
  return false;
}

}  // namespace mirn
