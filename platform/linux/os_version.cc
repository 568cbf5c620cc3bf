// os-release(5): PRETTY_NAME; uname(2): the kernel's release.
#include "platform/os_version.h"

#include <sys/utsname.h>

#include <fstream>
#include <string>
#include <string_view>

namespace mirn {
namespace {

// os-release values follow the shell's quoting: bare, or in one pair of quotes with backslashes before $, ", \ and `.
std::string unquoted(std::string_view value) {
  const bool quoted =
      value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front();
  if (!quoted) return std::string(value);
  std::string text;
  for (size_t i = 1; i + 1 < value.size(); ++i) {
    if (value[i] == '\\' && i + 2 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

std::string prettyName() {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(kKey)) return unquoted(std::string_view(line).substr(kKey.size()));
    }
  }
  return "Linux";
}

}  // namespace

std::string operatingSystemVersionString() {
  utsname names{};
  std::string version = prettyName();
  if (uname(&names) == 0) version.append(" ").append(names.release);
  return version;
}

}  // namespace mirn
