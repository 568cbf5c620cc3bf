// A folder of its own for each test that writes log files, and readers of what was written.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace mirn {

class LogFolder {
 public:
  LogFolder() {
    std::string name = testing::TempDir() + "mirn-log-XXXXXX";
    path_ = ::mkdtemp(name.data());
  }
  ~LogFolder() { std::filesystem::remove_all(path_); }
  LogFolder(const LogFolder&) = delete;
  LogFolder& operator=(const LogFolder&) = delete;

  const char* c_str() const { return path_.c_str(); }
  std::string file(const std::string& name) const { return path_ + '/' + name; }

  std::string text(const std::string& name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  std::vector<std::string> lines(const std::string& name) const {
    std::istringstream in(text(name));
    std::vector<std::string> result;
    for (std::string line; std::getline(in, line);) {
      result.push_back(line);
    }
    return result;
  }
  void write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
  }
  // Modification time, in seconds before now.
  void setAge(const std::string& name, int seconds) const {
    timespec times[2]{};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = ::time(nullptr) - seconds;
    ::utimensat(AT_FDCWD, file(name).c_str(), times, 0);
  }
  bool has(const std::string& name) const { return std::filesystem::exists(file(name)); }
  std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      result.push_back(entry.path().filename().string());
    }
    std::sort(result.begin(), result.end());
    return result;
  }

 private:
  std::string path_;
};

// The message of a line in the default format.
inline std::string messageOf(const std::string& line) {
  const size_t tab = line.rfind('\t');
  return tab == std::string::npos ? line : line.substr(tab + 1);
}

// The groups of an extended POSIX regular expression that must match all of the text, the whole first; nothing if it
// doesn't.
inline std::vector<std::string> groupsOf(const std::string& text, const std::string& pattern) {
  regex_t expression;
  if (::regcomp(&expression, ("^" + pattern + "$").c_str(), REG_EXTENDED) != 0) {
    ADD_FAILURE() << "no regular expression: " << pattern;
    return {};
  }
  regmatch_t found[4];
  std::vector<std::string> groups;
  if (::regexec(&expression, text.c_str(), std::size(found), found, 0) == 0) {
    for (const regmatch_t& group : found) {
      if (group.rm_so >= 0) {
        groups.push_back(text.substr(static_cast<size_t>(group.rm_so), static_cast<size_t>(group.rm_eo - group.rm_so)));
      }
    }
  }
  ::regfree(&expression);
  return groups;
}

inline bool matches(const std::string& text, const std::string& pattern) {
  return !groupsOf(text, pattern).empty();
}

// Standard output, as a file descriptor, for as long as it lives.
class CapturedOutput {
 public:
  CapturedOutput() { testing::internal::CaptureStdout(); }
  std::string text() {
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
  }
};

}  // namespace mirn
