#include "apps/common/program_start.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace mirn {

PrivateTempDir::PrivateTempDir() {
  const char* given = std::getenv("TMPDIR");
  std::string above = given != nullptr ? given : "";
  if (above.ends_with('/')) {
    return;
  }
  for (const std::string& folder : {above, std::string("/tmp")}) {
    std::string pattern = folder + "/mirn-XXXXXX";
    if (!folder.empty() && mkdtemp(pattern.data()) != nullptr) {
      path_ = pattern + "/";
      setenv("TMPDIR", path_.c_str(), 1);
      return;
    }
  }
}

PrivateTempDir::~PrivateTempDir() {
  if (path_.empty()) {
    return;
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void fillMissingInput() {
  if (::fcntl(STDIN_FILENO, F_GETFD) == -1) {
    [[maybe_unused]] int filled = ::open("/dev/null", O_WRONLY);  // the lowest free number: standard input's
  }
}

int reserveStandardOutput() {
  std::fflush(stdout);
  int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy >= 0) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  return copy;
}

int silenceStandardError() {
  std::fflush(stderr);
  int copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (copy >= 0 && nowhere >= 0) {
    dup2(nowhere, STDERR_FILENO);
    dup2(nowhere, STDOUT_FILENO);
  }
  if (nowhere >= 0) {
    close(nowhere);
  }
  return copy;
}

bool writeAll(int descriptor, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t written = write(descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

}  // namespace mirn
