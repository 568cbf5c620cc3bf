// What a virtual Mirn does wrong, and at which exchange.
//
// A plan as text, for tests and command lines: faults separated by ',', ';', blanks or line ends, each
//
//   KIND[=VALUE]@WHEN[/cCOMMAND]
//
//   drop@3              the third exchange is carried out, its answer never comes
//   lose@3              the request itself is lost: nothing is carried out, nothing is answered
//   delay=80@2-4        the answers of the exchanges 2 to 4 come 80 ms later
//   corrupt@5+          from the fifth exchange on every answer has a wrong checksum
//   truncate=12@1       only the first 12 bytes of the answer travel, zeros follow
//   split=5@1           the answer's first 5 bytes end one report, the rest starts the next one
//   duplicate@1         the answer comes twice
//   refuse=7@*/10       every tenth request is not carried out and answered with status 7 (1 without a value)
//   garbage=9@1         9 bytes that are no frame stand before the answer; garbage=xCC.. gives the bytes in hex
//   stall=500@1         the device does nothing for 500 ms; this answer and later ones wait
//   write-error@1       the host's write fails; the request never arrives
//   read-error@1        the request arrives, the host's next read fails
//   unplug@12           the device is gone before the twelfth exchange's request
//   unplug-after@12     the device is gone after the request and before the answer
//
//   WHEN: N | N-M | N+ | */N | *      exchanges count from 1; with /c3 only the exchanges of command 3 count and are
//   hit; N-M/S and N+/S are every S-th from N on
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mirn {

enum class FaultKind : uint8_t {
  kDrop,
  kLose,
  kDelay,  // value: ms
  kCorrupt,
  kTruncate,  // value: bytes that remain
  kSplit,     // value: bytes in the first report
  kDuplicate,
  kRefuse,   // value: status byte
  kGarbage,  // value: bytes; or `bytes`
  kStall,    // value: ms
  kWriteError,
  kReadError,
  kUnplug,
  kUnplugAfter,
};

struct Fault {
  FaultKind kind = FaultKind::kDrop;
  uint32_t value = 0;
  std::vector<uint8_t> bytes;  // kGarbage: exactly these
  uint64_t first = 1;          // exchanges that are hit: first .. last, every `step`-th from `first`
  uint64_t last = 1;
  uint64_t step = 1;
  int command = -1;  // only this command's exchanges count and are hit; -1: all

  bool hits(uint64_t exchange) const { return exchange >= first && exchange <= last && (exchange - first) % step == 0; }
};

// A value type. Not thread-safe; the device that holds one locks.
class FaultPlan {
 public:
  FaultPlan() = default;
  explicit FaultPlan(std::vector<Fault> faults) : faults_(std::move(faults)) {}

  // Reads the text form. False and a line for a person in `error` when it is not understood; `plan` is then unchanged.
  // Never throws, whatever the text.
  static bool parse(std::string_view text, FaultPlan* plan, std::string* error);

  // The text form; parse() of it gives the same plan.
  std::string text() const;

  void add(Fault fault) { faults_.push_back(std::move(fault)); }
  bool empty() const { return faults_.empty(); }
  const std::vector<Fault>& faults() const { return faults_; }

  // The faults that hit, in the order of the plan. `exchange` is the number of the exchange, `of_command` its number
  // among those with the same command; both count from 1.
  std::vector<const Fault*> at(uint64_t exchange, uint8_t command, uint64_t of_command) const;

 private:
  std::vector<Fault> faults_;
};

}  // namespace mirn
