#include "apps/common/upgrade_flow.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace mirn {
namespace {

constexpr uint64_t kChunkBytes = 1024;
// A refusal comes at once; a chunk that nobody answers holds the ones behind it for longer than this.
constexpr std::chrono::seconds kSilence{5};

double seconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

uint64_t chunksOf(uint64_t image_bytes) {
  return image_bytes / kChunkBytes + (image_bytes % kChunkBytes != 0 ? 1 : 0);
}

UpgradeFlow::UpgradeFlow(UpgradeFile file, std::string version_before, const UpgradeFacts& facts,
                         std::chrono::seconds replug_patience)
    : file_(std::move(file)),
      version_before_(std::move(version_before)),
      replug_patience_(replug_patience),
      base_answered_(facts.answered),
      base_failed_(facts.failed) {}

void UpgradeFlow::start(int64_t command_result, Time now) {
  started_ = now;
  last_chunk_ = now;
  last_look_ = now;
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
  note(facts, now);
  switch (state_) {
    case UpgradeState::kSending:
      return updateSending(now);
    case UpgradeState::kUnplugged:
      return updateUnplugged(now);
    case UpgradeState::kSettling:
      return updateSettling(now);
    case UpgradeState::kFinished:
      return;
  }
}

void UpgradeFlow::note(const UpgradeFacts& facts, Time now) {
  bool silent = last_look_ - last_chunk_ >= kSilence;
  last_look_ = now;
  uint64_t taken_before = chunksTaken();
  bool failed_before = failed_ > 0;
  uint64_t answered = facts.answered - base_answered_;
  if (answered != answered_) {
    last_chunk_ = now;
  }
  answered_ = answered;
  failed_ = facts.failed - base_failed_;
  if (failed_ > 0 && !failed_before) {
    // After a silence others may have been taken behind it already.
    refused_chunk_ = (silent ? taken_before : chunksTaken()) + 1;
  }
  if (facts.present != present_ && state_ == UpgradeState::kSettling) {
    settling_since_ = now;
    left_ = left_ || allTaken();
    version_after_.clear();
  }
  present_ = facts.present;
}

void UpgradeFlow::updateSending(Time now) {
  if (!present_ && !allTaken()) {
    noteUnplugging(now);  // one that has taken them all and leaves is restarting
  } else if (allTaken() || failed_ > 0 || now - last_chunk_ > kChunkPatience) {
    settle(now);
  }
}

void UpgradeFlow::updateUnplugged(Time now) {
  if (allTaken()) {
    // The last answer was counted after the bus had told that the device left.
    unplugged_at_.reset();
    left_ = true;
  }
  if (allTaken() || present_) {
    settle(now);
  } else if (now - *unplugged_at_ > replug_patience_) {
    finish(UpgradeResult::kUnplugged);
  }
}

void UpgradeFlow::updateSettling(Time now) {
  if (!present_ && !allTaken() && !wasUnplugged()) {
    // The chunks that were queued can fail faster than the bus tells that the device has left.
    noteUnplugging(now);
  } else if (version_after_.empty() && now - settling_since_ > kHandshakePatience) {
    finish(wasUnplugged() ? UpgradeResult::kUnplugged : UpgradeResult::kNotAnswering);
  }
}

void UpgradeFlow::settle(Time now) {
  state_ = UpgradeState::kSettling;
  settling_since_ = now;
}

void UpgradeFlow::noteUnplugging(Time now) {
  state_ = UpgradeState::kUnplugged;
  unplugged_at_ = now;
  answered_at_unplug_ = chunksTaken();
}

bool UpgradeFlow::wantsHandshake(Time now) const {
  if (state_ != UpgradeState::kSettling || !present_) {
    return false;
  }
  if (!version_after_.empty()) {
    return now - settling_since_ >= kRestartPatience;
  }
  return !last_try_ || now - *last_try_ >= kHandshakeEvery;
}

void UpgradeFlow::handshake(const std::optional<std::string>& version, Time now) {
  last_try_ = now;
  if (state_ != UpgradeState::kSettling) {
    return;
  }
  version_after_ = version.value_or("");
  if (version_after_.empty()) {
    return;
  }
  if (wasUnplugged()) {
    finish(UpgradeResult::kUnplugged);
  } else if (!allTaken()) {
    finish(UpgradeResult::kRefused);
  } else if (version_after_ != version_before_) {
    finish(UpgradeResult::kUpdated);
  } else if (left_ || now - settling_since_ >= kRestartPatience) {
    finish(UpgradeResult::kSameVersion);
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
  status.all_taken = allTaken();
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
  std::string of_all = " of " + std::to_string(file_.chunks);
  switch (result_) {
    case UpgradeResult::kNone:
      return "";
    case UpgradeResult::kUpdated:
      return "The device now runs version " + version_after_ + " (before: " + version_before_ + ").";
    case UpgradeResult::kSameVersion:
      return "The device answers with version " + version_after_ +
             ", the one it had before: either the file carries this same version, or the device kept its old firmware.";
    case UpgradeResult::kRefused:
      return (refused_chunk_ != 0
                  ? "The device refused chunk " + std::to_string(refused_chunk_) + of_all + " or didn't answer it (" +
                        std::to_string(failed_) + (failed_ == 1 ? " chunk" : " chunks") + " failed)"
                  : "The device took " + std::to_string(chunksTaken()) + of_all + " chunks and no more") +
             ", so the upgrade was broken off. It answers with version " + version_after_ + ". Start it again.";
    case UpgradeResult::kNotStarted:
      return "The upgrade could not be started; the device keeps the firmware it has.";
    case UpgradeResult::kNotAnswering:
      return (allTaken() ? "Everything was sent"
                         : "The device took " + std::to_string(chunksTaken()) + of_all + " chunks") +
             ", but it doesn't answer any more. Unplug it, plug it in again and look at the version it shows.";
    case UpgradeResult::kUnplugged:
      return unpluggedText();
  }
  return "";
}

std::string UpgradeFlow::unpluggedText() const {
  std::string begin = "The device was unplugged after " + std::to_string(answered_at_unplug_) + " of " +
                      std::to_string(file_.chunks) + " chunks";
  if (version_after_.empty()) {
    return begin + " and doesn't answer. Plug it in, look at the version it shows, and start the upgrade again.";
  }
  return begin + "; it is back with version " + version_after_ +
         (version_after_ == version_before_ ? ", so the upgrade has not happened" : "") + ". Start it again.";
}

const char* upgradeResultWord(UpgradeResult result) {
  switch (result) {
    case UpgradeResult::kUpdated:
      return "updated";
    case UpgradeResult::kSameVersion:
      return "same-version";
    case UpgradeResult::kRefused:
      return "refused";
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
