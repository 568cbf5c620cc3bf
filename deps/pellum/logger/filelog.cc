#include "deps/pellum/logger/filelog.h"

#include <unistd.h>

#include <cerrno>

#include "deps/pellum/base_assert.h"
#include "deps/pellum/logger/filelog_line.h"

namespace mirn {
namespace {

constexpr int32_t kFailuresToGiveUp = 1;
// After so many writes the flusher lets the next caller take over, so that nobody writes for the others for ever.
constexpr int kRoundsBeforeRelief = 64;
// With so many bytes waiting, callers wait for the file instead of leaving their lines to the flusher: a slow disk
// slows them down before it costs them lines. Far below the buffer limit.
constexpr size_t kWaitingBytesToQueueUp = 128 << 10;

}  // namespace

filelog::filelog() = default;

filelog::~filelog() {
  close();
}

void filelog::Path(const char* directory, unsigned int file_max_count) {
  if (!baseAssert(directory != nullptr, "directory != nullptr", "filelog")) {
    return;
  }
  CMutexLockGuard file(file_lock_);
  directory_ = directory;
  file_max_count_ = file_max_count;
}

void filelog::debug_output(const char* text) {
  if (text) {
    std::fputs(text, stdout);
  }
}

int filelog::write_log_console(int level, const char* format, ...) {
  char message[kMessageBytes];
  va_list arguments;
  va_start(arguments, format);
  formatMessage(message, format, arguments);
  va_end(arguments);
  const char separator = separator_;
  std::printf("%s%c0x%08x%c%s\n", localTimeText("%Y-%m-%d %H:%M:%S").c_str(), separator, static_cast<unsigned>(level),
              separator, message);
  return 1;
}

int filelog::write_log(int level, const char* format, ...) {
  // The level is compared sign-extended, so a negative one meets the high mask bits as well.
  if ((static_cast<uint64_t>(static_cast<int64_t>(level)) & level_mask_) == 0 || !enabled_) {
    return 1;
  }
  char line[kLineHeadBytes + kMessageBytes];
  size_t length = formatLineHead(line, level, separator_);
  va_list arguments;
  va_start(arguments, format);
  length += formatMessage(line + length, format, arguments);
  va_end(arguments);
  line[length++] = '\n';

  if (style_ == by_hour) {
    write_file_with_hour({line, length});
  } else {
    append({line, length});
  }
  return 1;
}

bool filelog::mayLeaveToFlusher(size_t waiting_bytes) const {
  return write_failures_ > kFailuresToGiveUp ||
         (flushing_ && !relief_wanted_ && waiting_bytes < kWaitingBytesToQueueUp);
}

void filelog::append(std::string_view line) {
  buffer_lock_.LockBriefly();
  std::string& buffer = buffers_[1 - fill_index_];
  if (buffer.size() + line.size() < buffer_limit_) {
    buffer.append(line);
  }
  if (mayLeaveToFlusher(buffer.size())) {
    buffer_lock_.Unlock();
    return;
  }
  flushing_ = true;
  relief_wanted_ = false;
  const uint64_t ticket = ++ticket_;
  std::string* batch = nullptr;
  // File lock before buffer lock: here it may only be tried. With nobody else about, that saves a round of locking.
  if (file_lock_.TryLock()) {
    batch = selectBuffer();
    buffer_lock_.Unlock();
  } else {
    buffer_lock_.Unlock();
    file_lock_.Lock();
    batch = nextBatch(ticket, 0, false);
  }
  write_file_with_fixedsize(ticket, batch);
  file_lock_.Unlock();
}

void filelog::write_file_with_fixedsize(uint64_t ticket, std::string* batch) {
  for (int rounds = 1; batch; ++rounds) {
    const bool written = writeBatch(*batch);
    batch = nextBatch(ticket, rounds, written);
  }
}

// The end of one round and the start of the next, in one step for all who append. Null: leave.
std::string* filelog::nextBatch(uint64_t ticket, int rounds_done, bool last_one_written) {
  std::string* batch = nullptr;
  buffer_lock_.LockBriefly();
  if (last_one_written) {
    fill_index_ = 1 - fill_index_;
  }
  if (ticket == ticket_) {  // else relieved: the newer one is waiting for the file lock
    batch = write_failures_ > kFailuresToGiveUp ? nullptr : selectBuffer();
    flushing_ = batch != nullptr;
    relief_wanted_ = flushing_ && rounds_done >= kRoundsBeforeRelief;
  }
  buffer_lock_.Unlock();
  return batch;
}

// The buffer to write, or null when both are empty.
std::string* filelog::selectBuffer() {
  if (buffers_[fill_index_].empty()) {
    fill_index_ = 1 - fill_index_;
  }
  return buffers_[fill_index_].empty() ? nullptr : &buffers_[fill_index_];
}

// The file's end is known, and a positioned write is cheaper than one that takes the kernel's lock on the file
// position. The stream is only opened and closed.
bool filelog::writeToFile(std::string_view bytes) {
  const int descriptor = ::fileno(file_);
  auto offset = static_cast<off_t>(bytes_written_);
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(descriptor, bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(written));
    offset += written;
  }
  bytes_written_ = static_cast<uint64_t>(offset);
  return true;
}

// Returns false when the batch is to be tried again.
bool filelog::writeBatch(std::string& batch) {
  if (file_ && !writeToFile(batch)) {
    ++write_failures_;
    closeLocked();
    openLocked(base_name_, style_, false);
    return false;
  }
  if (file_) {
    write_failures_ = 0;
  } else {
    std::fwrite(batch.data(), 1, batch.size(), stdout);
  }
  batch.clear();
  if (bytes_written_ >= max_size_) {
    closeLocked();
    openLocked(base_name_, fixed_size, false);
  }
  return true;
}

// Into the open file, without rotation: lines that were logged before a close belong before it.
void filelog::writeRest() {
  CMutexLockGuard lock(buffer_lock_);
  while (file_ && write_failures_ <= kFailuresToGiveUp) {
    std::string* batch = selectBuffer();
    if (!batch) {
      return;
    }
    if (!writeToFile(*batch)) {
      ++write_failures_;
      return;
    }
    write_failures_ = 0;
    batch->clear();
  }
}

bool filelog::open(const char* name, _logstyle style, bool append) {
  CMutexLockGuard file(file_lock_);
  if (file_) {
    return false;
  }
  return openLocked(name ? name : "", style, append);
}

bool filelog::close() {
  CMutexLockGuard file(file_lock_);
  writeRest();
  closeLocked();
  return true;
}

}  // namespace mirn
