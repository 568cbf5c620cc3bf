#include "deps/pellum/logger/filelog.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>

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
// A line stands in one of the two buffers: after so many batches it has been written.
constexpr int kBatchesToOwnLine = 2;
// How long a file may block before that counts as a failed write: a pipe that nobody reads does for ever.
constexpr int kPipeMs = 1000;
constexpr int kFileFreeMs = 1000;

// What has no positions: a pipe or a terminal. No more than it takes without blocking.
ssize_t writeToPipe(int descriptor, std::string_view bytes) {
  pollfd ready{descriptor, POLLOUT, 0};
  const int result = ::poll(&ready, 1, kPipeMs);
  return result > 0 ? ::write(descriptor, bytes.data(), std::min<size_t>(bytes.size(), PIPE_BUF)) : result;
}

}  // namespace

filelog::filelog() {
  for (std::string& buffer : buffers_) {
    buffer.reserve(buffer_limit_);
  }
}

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
    append({line, length}, level == kLogError);
  }
  return 1;
}

void filelog::append(std::string_view line, bool at_once) {
  buffer_lock_.LockBriefly();
  const Turn turn = elect(line, at_once);
  if (turn.ticket == 0) {
    buffer_lock_.Unlock();
    return;
  }
  std::string* batch = nullptr;
  // File lock before buffer lock: here it may only be tried. With nobody else about, that saves a round of locking.
  if (file_lock_.TryLock()) {
    batch = selectBuffer();
    buffer_lock_.Unlock();
  } else {
    buffer_lock_.Unlock();
    file_lock_.Lock();
    batch = nextBatch(turn, false);
  }
  const CMutexLockGuard file(file_lock_, std::adopt_lock);
  write_file_with_fixedsize(turn, batch);
}

// Takes the line in. No ticket when somebody else will write it, or nobody.
filelog::Turn filelog::elect(std::string_view line, bool at_once) noexcept {
  std::string& buffer = buffers_[1 - fill_index_];
  if (buffer.size() + line.size() < buffer_limit_) {
    buffer.append(line);
  }
  const bool must_stay = at_once || write_through_;
  const bool relieves = must_stay || !flushing_ || relief_wanted_ || buffer.size() >= kWaitingBytesToQueueUp;
  if (write_failures_ > kFailuresToGiveUp || !relieves) {
    return {};
  }
  return newTurn(must_stay ? kBatchesToOwnLine : 0);
}

filelog::Turn filelog::newTurn(int owed) noexcept {
  flushing_ = true;
  relief_wanted_ = false;
  return {++ticket_, owed};
}

void filelog::write_file_with_fixedsize(Turn turn, std::string* batch) {
  try {
    while (batch) {
      const bool written = writeBatch(*batch);
      turn.written += written ? 1 : 0;
      batch = nextBatch(turn, written);
    }
  } catch (...) {  // no memory for a file name: somebody else may try
    abandon(turn);
    throw;
  }
}

// The end of one round and the start of the next, in one step for all who append. Null: leave.
std::string* filelog::nextBatch(const Turn& turn, bool last_one_written) noexcept {
  std::string* batch = nullptr;
  buffer_lock_.LockBriefly();
  if (last_one_written) {
    fill_index_ = 1 - fill_index_;
  }
  const bool relieved = turn.ticket != ticket_;  // by a newer one, which is waiting for the file lock
  if (write_failures_ <= kFailuresToGiveUp && (!relieved || turn.written < turn.owed)) {
    batch = selectBuffer();
  }
  if (!relieved) {
    flushing_ = batch != nullptr;
    relief_wanted_ = flushing_ && turn.written >= kRoundsBeforeRelief;
  }
  buffer_lock_.Unlock();
  return batch;
}

void filelog::abandon(const Turn& turn) noexcept {
  const CMutexLockGuard lock(buffer_lock_);
  if (turn.ticket == ticket_) {
    flushing_ = false;
  }
}

void filelog::writeThrough() {
  if (!file_lock_.LockWithin(kFileFreeMs)) {
    return;
  }
  const CMutexLockGuard file(file_lock_, std::adopt_lock);
  Turn turn;
  {
    const CMutexLockGuard lock(buffer_lock_);
    write_through_ = true;
    turn = newTurn(kBatchesToOwnLine);
  }
  write_file_with_fixedsize(turn, nextBatch(turn, false));
}

// The buffer to write, or null when both are empty.
std::string* filelog::selectBuffer() noexcept {
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
    ssize_t written = ::pwrite(descriptor, bytes.data(), bytes.size(), offset);
    if (written < 0 && errno == ESPIPE) {
      written = writeToPipe(descriptor, bytes);
    }
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
