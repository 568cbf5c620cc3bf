// The files of a logger: opening, rotation, the hourly style.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "deps/pellum/logger/filelog.h"
#include "deps/pellum/logger/filelog_line.h"

namespace mirn {
namespace {

constexpr mode_t kDirectoryMode = 0707;  // deliberate
constexpr size_t kPathBytes = 512;       // of an entry in delete_earliest_logfile, with the NUL
constexpr const char* kSourcePath = "deps/pellum/logger/flogger";

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool notLater(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec <= b.tv_nsec;
}

struct DirectoryCloser {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

// The smallest free number; -1 when there is none.
int freeBackupNumber(const std::string& current) {
  for (int n = 1; n < INT_MAX; ++n) {
    if (!exists(current + '.' + std::to_string(n))) {
      return n;
    }
  }
  return -1;
}

}  // namespace

void delete_earliest_logfile(const char* directory, const char* part, unsigned int max_count) {
  const std::unique_ptr<DIR, DirectoryCloser> entries(directory && part ? ::opendir(directory) : nullptr);
  if (!entries) {
    return;
  }
  timespec earliest{};
  clock_gettime(CLOCK_REALTIME, &earliest);
  std::string earliest_path;
  unsigned int count = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0 ||
        !std::strstr(entry->d_name, part)) {
      continue;
    }
    char path[kPathBytes];
    const int length = std::snprintf(path, sizeof path, "%s/%s", directory, entry->d_name);
    struct stat status {};
    // A path that had to be cut might name another file.
    if (length < 0 || static_cast<size_t>(length) >= sizeof path || ::stat(path, &status) != 0 ||
        S_ISDIR(status.st_mode)) {
      continue;
    }
    ++count;
    if (notLater(status.st_mtim, earliest)) {
      earliest = status.st_mtim;
      earliest_path = path;
    }
  }
  if (count >= max_count && !earliest_path.empty()) {
    ::unlink(earliest_path.c_str());
  }
}

void filelog::openStream(const std::string& path, const char* mode) {
  file_ = std::fopen(path.c_str(), mode);
}

bool filelog::openLocked(const std::string& name, _logstyle style, bool append) {
  bytes_written_ = 0;
  ::mkdir(directory_.c_str(), kDirectoryMode);
  style_ = style;
  base_name_ = name;
  if (style == by_hour) {
    hour_file_.clear();  // the first line opens its file, also after a close within the hour
    return true;
  }
  const std::string stem = directory_ + '/' + base_name_;
  const std::string current = stem + ".log";
  struct stat status {};
  if (::stat(current.c_str(), &status) != 0) {
    openStream(current, "w+be");
  } else if (append) {
    bytes_written_ = static_cast<uint64_t>(status.st_size);
    openStream(current, "a+be");
  } else {
    moveToBackup(stem);
    openStream(current, "w+be");
  }
  return file_ != nullptr;
}

// D/N.log makes room for a new one. Numbered backups are never deleted; of time-stamped ones, two in the same second
// leave one.
void filelog::moveToBackup(const std::string& stem) {
  const std::string current = stem + ".log";
  if (file_max_count_ < 2) {
    const int number = freeBackupNumber(current);
    if (number > 0) {
      ::rename(current.c_str(), (current + '.' + std::to_string(number)).c_str());
    }
    return;
  }
  delete_earliest_logfile(directory_.c_str(), base_name_.c_str(), file_max_count_);
  ::rename(current.c_str(), (stem + '.' + localTimeText("%Y%m%d-%H%M%S") + ".log").c_str());
}

void filelog::closeLocked() {
  if (file_) {
    std::fclose(file_);
    file_ = nullptr;
  }
}

void filelog::current_file_byhour() {
  const std::string hour = localTimeText("%Y%m%d%H");
  CMutexLockGuard file(file_lock_);
  std::string path = directory_ + '/' + base_name_ + '.' + hour + ".log";
  if (path != hour_file_) {
    closeLocked();
    hour_file_ = std::move(path);
    openStream(hour_file_, "ab+e");
  }
}

void filelog::write_file_with_hour(std::string_view line) {
  current_file_byhour();
  CMutexLockGuard file(file_lock_);
  errno = EBADF;  // what no file means
  const size_t written = file_ && !line.empty() ? std::fwrite(line.data(), 1, line.size(), file_) : 0;
  // On a full disk the stream takes lines, or the beginning of them, that it can't pass on: those are lost as well.
  if (written == 0 || written != line.size() || std::fflush(file_) != 0) {
    std::printf("[filelog] write failed(%d), %s:%s\n", errno, kSourcePath, "write_file_with_hour");
  }
}

}  // namespace mirn
