// os-release(5): PRETTY_NAME; uname(2): the kernel's release.
#include "platform/os_version.h"

#include <sys/utsname.h>

#include <fstream>
#include <string>
#include <string_view>

#include "platform/linux/os_release.h"
#include "platform/linux/valid_text.h"

namespace mirn {
namespace {

constexpr std::string_view kBlanks = " \t\r";

// Values follow the shell's quoting: bare, or in one pair of quotes; inside double ones a backslash stands before each
// $, ", \ and `.
std::string unquoted(std::string_view value) {
  value = value.substr(0, value.find_last_not_of(kBlanks) + 1);
  const char quote = value.empty() ? '\0' : value.front();
  if (value.size() < 2 || (quote != '"' && quote != '\'') || value.back() != quote) return std::string(value);
  value = value.substr(1, value.size() - 2);
  if (quote == '\'') return std::string(value);
  std::string text;
  for (size_t i = 0; i < value.size(); ++i) {
    const bool escape = value[i] == '\\' && i + 1 < value.size();
    if (escape && std::string_view("$\"\\`").find(value[i + 1]) != std::string_view::npos) ++i;
    text += value[i];
  }
  return text;
}

}  // namespace

std::string prettyNameFrom(std::initializer_list<std::string> paths) {
  constexpr std::string_view kKey = "PRETTY_NAME=";
  for (const std::string& path : paths) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with(kKey)) return validText(unquoted(std::string_view(line).substr(kKey.size())));
    }
  }
  return "Linux";
}

std::string operatingSystemVersionString() {
  utsname names{};
  std::string version = prettyNameFrom({"/etc/os-release", "/usr/lib/os-release"});
  if (uname(&names) == 0) version.append(" ").append(names.release);
  return version;
}

}  // namespace mirn
