// File systems for one test alone: a process with mounts of its own, which nobody else sees.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace mirn {

// A small file system in memory, for as long as it lives.
class SmallDisk {
 public:
  SmallDisk(std::string where, const char* options)
      : where_(std::move(where)), mounted_(::mount("tmpfs", where_.c_str(), "tmpfs", 0, options) == 0) {}
  ~SmallDisk() {
    if (mounted_) ::umount2(where_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  bool mounted() const { return mounted_; }

 private:
  const std::string where_;
  const bool mounted_;
};

inline bool writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  const bool written = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  if (fd >= 0) ::close(fd);
  return written;
}

// Mounts of this process's own. Without the right to them, in a user namespace, where everybody has it; that needs a
// process of one thread, which a program under the thread sanitizer is not.
inline bool takeOwnMounts() {
  const std::string user = std::to_string(::getuid());
  const std::string group = std::to_string(::getgid());
  if (::unshare(CLONE_NEWNS) != 0) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    writeFile("/proc/self/setgroups", "deny");
    if (!writeFile("/proc/self/uid_map", user + " " + user + " 1") ||
        !writeFile("/proc/self/gid_map", group + " " + group + " 1")) {
      return false;
    }
  }
  return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

enum class OwnMounts : uint8_t { kTested, kNotAllowed };

// Runs `test` with a small disk at `where`, in a child process. What fails in there fails here.
template <typename Test>
OwnMounts withSmallDisk(const std::string& where, const Test& test) {
  constexpr int kFailed = 1;
  constexpr int kNotAllowed = 77;
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    int result = kNotAllowed;
    if (takeOwnMounts()) {
      const SmallDisk disk(where, "size=64k");
      if (disk.mounted()) {
        test();
        result = testing::Test::HasFailure() ? kFailed : 0;
      }
    }
    std::fflush(nullptr);
    ::_exit(result);
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed) return OwnMounts::kNotAllowed;
  EXPECT_EQ(status, 0) << "what failed stands above";
  return OwnMounts::kTested;
}

}  // namespace mirn
