// The course of a firmware upgrade as a state machine: check the file first, release all input, start once, follow the
// chunks, survive unplugging, and judge by the version that a new handshake brings.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace mirn {

// What an upgrade file turned out to be.
struct UpgradeFile {
  bool ok = false;
  bool hex = false;  // the library takes it for Intel HEX; anything else goes to the device as it is
  std::string path;
  std::string reason;  // why not ok, one line
  uint64_t file_bytes = 0;
  uint64_t image_bytes = 0;  // what the device receives, before padding
  uint64_t chunks = 0;       // of 1024 bytes
};

uint64_t chunksOf(uint64_t image_bytes);
// The chunk numbers of the protocol are 16 bits wide: larger images can't be followed.
constexpr uint64_t kMostChunks = 65535;

enum class UpgradeState {
  kSending,    // chunks are on their way
  kSettling,   // nothing more is sent: the device may restart, new handshakes are tried
  kUnplugged,  // gone in the middle; waits for the device
  kFinished,   // judged: see result()
};

enum class UpgradeResult {
  kNone,
  kUpdated,       // the device took all and answers with another version than before
  kSameVersion,   // it took all and still, or again, answers with the version it had
  kRefused,       // it did not take all of the file, whatever version it answers with
  kNotStarted,    // the upgrade command was refused
  kNotAnswering,  // all was sent or nothing more is taken, and no handshake succeeded afterwards
  kUnplugged,     // pulled out while chunks were sent, and back now or still away
};

struct UpgradeStatus {
  UpgradeState state = UpgradeState::kSending;
  uint64_t chunk = 0;  // chunks that the device took so far
  uint64_t total = 0;
  uint64_t failed = 0;
  bool all_taken = false;
  double percent = 0;
  double bytes_per_second = 0;                    // over the whole sending
  std::optional<std::chrono::seconds> remaining;  // nothing before the rate is known
};

// What the flow sees of the world at one moment.
struct UpgradeFacts {
  bool present = true;    // on the USB bus
  uint64_t answered = 0;  // firmware chunks answered since the process began, taken or refused
  uint64_t failed = 0;    // those refused or unanswered
};

// Bound to the main thread; does no I/O. The owner calls start() after the upgrade command returned, update() every few
// milliseconds, and when wantsHandshake() makes a new proxy, reads the information and tells handshake(). The new proxy
// drops what is still queued: behind a chunk that failed nothing may complete an image with a hole.
class UpgradeFlow {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // No chunk was answered for this long (the device has 10 s for one): nothing is on the way any more.
  static constexpr std::chrono::seconds kChunkPatience{25};
  // A device that restarts needs seconds until its handshake works again.
  static constexpr std::chrono::seconds kHandshakePatience{15};
  // It may answer with its old version until it restarts: that version counts when it is still there after this long.
  static constexpr std::chrono::seconds kRestartPatience{5};
  static constexpr std::chrono::milliseconds kHandshakeEvery{500};
  // After an unplugging the owner's person may need this long to plug it in again.
  static constexpr std::chrono::minutes kReplugPatience{2};

  UpgradeFlow(UpgradeFile file, std::string version_before, const UpgradeFacts& facts,
              std::chrono::seconds replug_patience = kReplugPatience);

  // `command_result` is what "reqUpgradeFirmware" answered: 1 = every chunk is queued.
  void start(int64_t command_result, Time now);
  void update(const UpgradeFacts& facts, Time now);
  // True when a new proxy and a handshake are due now.
  bool wantsHandshake(Time now) const;
  // The outcome of one: the version, or nothing when the device didn't answer.
  void handshake(const std::optional<std::string>& version, Time now);
  // The person gives up waiting for a replugging.
  void giveUp();

  UpgradeStatus status(Time now) const;
  UpgradeState state() const { return state_; }
  UpgradeResult result() const { return result_; }
  bool wasUnplugged() const { return unplugged_at_.has_value(); }
  const std::string& versionBefore() const { return version_before_; }
  const std::string& versionAfter() const { return version_after_; }
  const UpgradeFile& file() const { return file_; }
  // The result in one or two sentences; empty before the end.
  std::string resultText() const;

 private:
  void note(const UpgradeFacts& facts, Time now);
  void updateSending(Time now);
  void updateUnplugged(Time now);
  void updateSettling(Time now);
  void settle(Time now);
  void noteUnplugging(Time now);
  void finish(UpgradeResult result);
  uint64_t chunksAnswered() const;
  uint64_t chunksTaken() const;
  bool allTaken() const { return failed_ == 0 && answered_ >= file_.chunks; }
  std::string unpluggedText() const;

  UpgradeFile file_;
  std::string version_before_;
  std::string version_after_;  // of the latest handshake; empty when the device did not answer it
  std::chrono::seconds replug_patience_;
  uint64_t base_answered_;
  uint64_t base_failed_;
  uint64_t answered_ = 0;
  uint64_t failed_ = 0;
  uint64_t answered_at_unplug_ = 0;
  uint64_t refused_chunk_ = 0;  // 1 is the first; 0 = none
  bool present_ = true;
  bool left_ = false;  // the bus, after it took everything
  UpgradeState state_ = UpgradeState::kSending;
  UpgradeResult result_ = UpgradeResult::kNone;
  Time started_{};
  Time last_chunk_{};
  Time last_look_{};
  Time settling_since_{};
  std::optional<Time> unplugged_at_;
  std::optional<Time> last_try_;
};

const char* upgradeResultWord(UpgradeResult result);

}  // namespace mirn
