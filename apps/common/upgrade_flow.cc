#include "apps/common/upgrade_flow.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace mirn {
namespace {

constexpr uint64_t kChunkBytes = 1024;

bool endsAtFirst(const std::string& path, const std::string& ending) {
  size_t place = path.find(ending);
  return place != std::string::npos && place + ending.size() == path.size();
}

double seconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

bool isHexPath(const std::string& path) {
  return endsAtFirst(path, ".hex") || endsAtFirst(path, ".HEX");
}

uint64_t chunksOf(uint64_t image_bytes) {
  return image_bytes / kChunkBytes + (image_bytes % kChunkBytes != 0 ? 1 : 0);
}

UpgradeFlow::UpgradeFlow(UpgradeFile file, std::string version_before, const UpgradeFacts& facts)
    : file_(std::move(file)),
      version_before_(std::move(version_before)),
      base_answered_(facts.answered),
      base_failed_(facts.failed) {}

void UpgradeFlow::start(int64_t command_result, Time now) {
  started_ = now;
  last_chunk_ = now;
  if (command_result != 1) {
    finish(UpgradeResult::kNotStarted);
  }
}

uint64_t UpgradeFlow::chunksAnswered() const {
  return std::min(answered_, file_.chunks);
}

uint64_t UpgradeFlow::chunksTaken() const {
  uint64_t refused = std::min(failed_, chunksAnswered());
  // A failed last chunk is reported as taken. After other failures nobody takes it for that.
  if (refused != 0 && chunksAnswered() == file_.chunks && refused < file_.chunks) {
    ++refused;
  }
  return chunksAnswered() - refused;
}

void UpgradeFlow::update(const UpgradeFacts& facts, Time now) {
  present_ = facts.present;
  uint64_t answered = facts.answered - base_answered_;
  if (answered != answered_) {
    last_chunk_ = now;
  }
  answered_ = answered;
  failed_ = facts.failed - base_failed_;
  if (state_ == UpgradeState::kSending) {
    if (!present_) {
      noteUnplugging(now);
    } else if (answered_ >= file_.chunks || now - last_chunk_ > kChunkPatience) {
      state_ = UpgradeState::kSettling;
      settling_since_ = now;
    }
    return;
  }
  if (state_ == UpgradeState::kUnplugged) {
    if (present_) {
      state_ = UpgradeState::kSettling;
      settling_since_ = now;
    } else if (now - *unplugged_at_ > kReplugPatience) {
      finish(UpgradeResult::kUnplugged);
    }
  } else if (!present_ && failed_ > 0 && !wasUnplugged()) {
    // The chunks that were queued can fail faster than the bus tells that the device has left. One that has taken them
    // all and leaves is restarting.
    noteUnplugging(now);
  } else if (state_ == UpgradeState::kSettling && now - settling_since_ > kHandshakePatience) {
    finish(wasUnplugged() ? UpgradeResult::kUnplugged : UpgradeResult::kNotAnswering);
  }
}

void UpgradeFlow::noteUnplugging(Time now) {
  state_ = UpgradeState::kUnplugged;
  unplugged_at_ = now;
  answered_at_unplug_ = chunksTaken();
}

bool UpgradeFlow::wantsHandshake(Time now) const {
  return state_ == UpgradeState::kSettling && present_ && (!last_try_ || now - *last_try_ >= kHandshakeEvery);
}

void UpgradeFlow::handshake(const std::optional<std::string>& version, Time now) {
  last_try_ = now;
  if (state_ != UpgradeState::kSettling || !version || version->empty()) {
    return;
  }
  version_after_ = *version;
  if (version_after_ != version_before_) {
    finish(UpgradeResult::kUpdated);
  } else {
    finish(wasUnplugged() ? UpgradeResult::kUnplugged : UpgradeResult::kSameVersion);
  }
}

void UpgradeFlow::giveUp() {
  if (state_ == UpgradeState::kUnplugged) {
    finish(UpgradeResult::kUnplugged);
  }
}

void UpgradeFlow::finish(UpgradeResult result) {
  state_ = UpgradeState::kFinished;
  result_ = result;
}

UpgradeStatus UpgradeFlow::status(Time now) const {
  UpgradeStatus status;
  status.state = state_;
  status.chunk = unplugged_at_ ? answered_at_unplug_ : chunksTaken();
  status.total = file_.chunks;
  status.failed = std::min(failed_, file_.chunks);
  status.percent =
      file_.chunks == 0 ? 0 : 100.0 * static_cast<double>(status.chunk) / static_cast<double>(file_.chunks);
  double time = seconds((state_ == UpgradeState::kSending ? now : last_chunk_) - started_);
  if (status.chunk > 0 && time > 0) {
    status.bytes_per_second = static_cast<double>(status.chunk * kChunkBytes) / time;
    if (state_ == UpgradeState::kSending) {
      double left = static_cast<double>((file_.chunks - status.chunk) * kChunkBytes) / status.bytes_per_second;
      status.remaining = std::chrono::seconds(std::llround(left));
    }
  }
  return status;
}

std::string UpgradeFlow::resultText() const {
  std::string sent = std::to_string(wasUnplugged() ? answered_at_unplug_ : chunksTaken()) + " of " +
                     std::to_string(file_.chunks) + " chunks";
  switch (result_) {
    case UpgradeResult::kNone:
      return "";
    case UpgradeResult::kUpdated:
      return "The device now runs version " + version_after_ + " (before: " + version_before_ + ").";
    case UpgradeResult::kSameVersion:
      return "The device answers with version " + version_after_ +
             ", the one it had before: either the file carries this same version, or the device kept its old firmware.";
    case UpgradeResult::kNotStarted:
      return "The upgrade could not be started; nothing was sent.";
    case UpgradeResult::kNotAnswering:
      return (chunksTaken() == file_.chunks ? "Everything was sent" : "The device took " + sent) +
             ", but it doesn't answer any more. Unplug it, plug it in again and look at the version it shows.";
    case UpgradeResult::kUnplugged:
      return version_after_.empty()
                 ? "The device was unplugged after " + sent +
                       " and doesn't answer. Plug it in, look at the version it shows, and start the upgrade again."
                 : "The device was unplugged after " + sent + "; it is back with version " + version_after_ +
                       ", so the upgrade has not happened. Start it again.";
  }
  return "";
}

const char* upgradeResultWord(UpgradeResult result) {
  switch (result) {
    case UpgradeResult::kUpdated:
      return "updated";
    case UpgradeResult::kSameVersion:
      return "same-version";
    case UpgradeResult::kNotStarted:
      return "not-started";
    case UpgradeResult::kNotAnswering:
      return "not-answering";
    case UpgradeResult::kUnplugged:
      return "unplugged";
    case UpgradeResult::kNone:
      break;
  }
  return "running";
}

}  // namespace mirn
