// A levelled line logger: to standard output until a file is opened, then to a file that is rotated by size or by hour.
// Thread-safe. Nothing is ever reported to who logs: a full disk costs lines, not calls.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "deps/pellum/mutex_lock.h"

// Lets the compiler check formats at every call.
#define MIRN_PRINTF(format_index, first_argument) __attribute__((format(printf, format_index, first_argument)))

namespace mirn {

// Levels; a level mask is their sum. Other values are written with the tag "?unknown?".
inline constexpr int kLogInfo = 1;
inline constexpr int kLogWarning = 2;
inline constexpr int kLogError = 4;
inline constexpr int kLogDebug = 8;

class filelog {
 public:
  enum _logstyle : int32_t {
    fixed_size = 0,  // D/N.log, rotated at the maximum size to D/N.log.1, .2, ... or to D/N.<time>.log
    by_hour = 1,     // D/N.<hour>.log, one file for each hour
  };

  filelog();
  filelog(const filelog&) = delete;
  filelog& operator=(const filelog&) = delete;
  virtual ~filelog();

  // Opens D/name.log (name may be null or empty); an existing file is continued (append) or rotated away. The hourly
  // style opens its files when lines are written. Returns whether lines go to a file now; false also when one was open
  // already.
  bool open(const char* name, _logstyle style, bool append);
  // Writes what is buffered, flushes and closes the file. Returns true.
  bool close();

  // One line: thread id, local time with milliseconds, level tag, message (at most 10239 bytes). Returns 1. A line of
  // level kLogError has been written when the call returns; others may be left to a thread that is writing already.
  int write_log(int level, const char* format, ...) MIRN_PRINTF(3, 4);
  // One line to standard output, whatever mask and enable say. Returns 1.
  int write_log_console(int level, const char* format, ...) MIRN_PRINTF(3, 4);

  void enable(bool on) { enabled_ = on; }
  void Flag(unsigned long level_mask) { level_mask_ = level_mask; }
  // Bytes. Looked at after each write: the line that reaches it is the last of its file; 0 rotates after every write.
  void MaxSize(unsigned long bytes) { max_size_ = bytes; }
  // The character between the columns.
  void Split(char separator) { separator_ = separator; }
  // Below 2: numbered backups, never deleted. From 2 on: time-stamped backups; the oldest is deleted when there are
  // that many files with the name.
  void SetFileMaxCount(unsigned short count) { file_max_count_ = count; }
  // A null directory is reported and changes nothing.
  void Path(const char* directory, unsigned int file_max_count);
  // Accepted and ignored.
  void SetEnableRealTimeOutput(bool /*on*/) {}
  // Writes the text to standard output as it is.
  void debug_output(const char* text);

 protected:
  // For the end of the process: writes what waits, and from now on every call writes its own line. Changes nothing when
  // the file isn't free for a second, so that a process whose log is stuck still ends.
  void writeThrough() MIRN_EXCLUDES(file_lock_, buffer_lock_);

 private:
  // One caller's time at the file.
  struct Turn {
    uint64_t ticket = 0;  // 0: none
    int owed = 0;         // batches that it writes even if it has been relieved
    int written = 0;      // batches
  };

  // Flushing is one thread's duty at a time. A caller that finds it taken leaves its line to that thread, which looks
  // at the buffers once more, under the buffer lock, before it leaves: nothing stays behind when all callers have
  // returned. Who must not leave its line (`at_once`) relieves that thread.
  void append(std::string_view line, bool at_once) MIRN_EXCLUDES(file_lock_, buffer_lock_);
  Turn elect(std::string_view line, bool at_once) noexcept MIRN_REQUIRES(buffer_lock_);
  Turn newTurn(int owed) noexcept MIRN_REQUIRES(buffer_lock_);
  void write_file_with_fixedsize(Turn turn, std::string* batch) MIRN_REQUIRES(file_lock_) MIRN_EXCLUDES(buffer_lock_);
  std::string* nextBatch(const Turn& turn, bool last_one_written) noexcept MIRN_REQUIRES(file_lock_)
      MIRN_EXCLUDES(buffer_lock_);
  void abandon(const Turn& turn) noexcept MIRN_EXCLUDES(buffer_lock_);
  std::string* selectBuffer() noexcept MIRN_REQUIRES(file_lock_, buffer_lock_);
  bool writeBatch(std::string& batch) MIRN_REQUIRES(file_lock_);
  bool writeToFile(std::string_view bytes) MIRN_REQUIRES(file_lock_);
  void writeRest() MIRN_REQUIRES(file_lock_) MIRN_EXCLUDES(buffer_lock_);
  void write_file_with_hour(std::string_view line) MIRN_EXCLUDES(file_lock_);
  void current_file_byhour() MIRN_EXCLUDES(file_lock_);

  // The variants of open and close for who holds the file lock already: the flusher's reopening must not lock again.
  bool openLocked(const std::string& name, _logstyle style, bool append) MIRN_REQUIRES(file_lock_);
  void closeLocked() MIRN_REQUIRES(file_lock_);
  void openStream(const std::string& path, const char* mode) MIRN_REQUIRES(file_lock_);
  void moveToBackup(const std::string& stem) MIRN_REQUIRES(file_lock_);

  std::atomic<int32_t> write_failures_{0};  // consecutive; above 1 nothing is written any more
  std::atomic<bool> enabled_{true};
  uint64_t bytes_written_ MIRN_GUARDED_BY(file_lock_) = 0;  // to the current file
  std::atomic<uint64_t> max_size_{16ULL << 20};
  const uint64_t buffer_limit_ = 1ULL << 20;  // bytes; what does not fit is dropped
  std::string directory_ MIRN_GUARDED_BY(file_lock_) = ".";
  std::string base_name_ MIRN_GUARDED_BY(file_lock_);
  std::atomic<uint32_t> file_max_count_{0};
  std::atomic<uint64_t> level_mask_{~0ULL};
  uint32_t fill_index_ MIRN_GUARDED_BY(buffer_lock_) = 0;  // flushed next; lines are appended to the other one
  // The flusher reads the selected buffer under the file lock alone: nobody else touches that one. Both have their full
  // size from the beginning, so that appending, under a lock that everybody needs, can't fail.
  std::string buffers_[2];
  CMutexLock buffer_lock_;
  CMutexLock file_lock_;  // taken before buffer_lock_
  std::FILE* file_ MIRN_GUARDED_BY(file_lock_) = nullptr;
  std::atomic<char> separator_{'\t'};
  std::atomic<_logstyle> style_{fixed_size};
  std::string hour_file_ MIRN_GUARDED_BY(file_lock_);  // path of the current hourly file

  bool flushing_ MIRN_GUARDED_BY(buffer_lock_) = false;
  bool relief_wanted_ MIRN_GUARDED_BY(buffer_lock_) = false;  // the flusher has done its share
  bool write_through_ MIRN_GUARDED_BY(buffer_lock_) = false;  // all lines are written at once
  uint64_t ticket_ MIRN_GUARDED_BY(buffer_lock_) = 0;         // of the newest flusher; it relieves older ones
};

// Removes the file in `directory` with the earliest modification time among those whose names contain `part`, if there
// are at least `max_count` of them. Directories don't count; at most one file goes.
void delete_earliest_logfile(const char* directory, const char* part, unsigned int max_count);

}  // namespace mirn
