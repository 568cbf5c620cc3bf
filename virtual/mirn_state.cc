#include "virtual/mirn_state.h"

#include <algorithm>

namespace mirn {
namespace {

constexpr size_t kReportBytes = 64;
constexpr size_t kRawReportBytes = 7;
constexpr uint8_t kRawReportMark = 0x01;
constexpr uint8_t kRawCommand = 12;
constexpr uint8_t kFrameHead = 0xAA;
constexpr uint16_t kSpoiledChecksum = 0x0101;

constexpr size_t kVersionLimit = 9;
constexpr size_t kDetailLimit = 40;

bool isRawReport(std::span<const uint8_t> report) {
  return report.size() == kRawReportBytes && report[0] == kRawReportMark;
}

// The command that a write begins, for the fault plan: 0 when it can't be told.
uint8_t commandOf(std::span<const uint8_t> report) {
  if (isRawReport(report)) {
    return kRawCommand;
  }
  // head, six escaped bytes of length, index and checksum, then the command (which needs no escape)
  size_t at = 1;
  for (int field_byte = 0; field_byte < 6 && at < report.size(); ++field_byte) {
    at += report[at] == 0xCC ? 2 : 1;
  }
  return !report.empty() && report[0] == kFrameHead && at < report.size() ? report[at] : uint8_t{0};
}

template <size_t Size>
std::array<uint8_t, Size> cutTo(std::string_view text) {
  std::array<uint8_t, Size> bytes{};
  std::copy_n(text.begin(), std::min(text.size(), Size), bytes.begin());
  return bytes;
}

std::chrono::nanoseconds milliseconds(uint32_t count) {
  return std::chrono::milliseconds(count);
}

}  // namespace

MirnState::MirnState(const VirtualMirnSettings& settings)
    : latency(settings.latency),
      jitter(settings.jitter),
      name(cutTo<20>(settings.name)),
      id_text(cutTo<12>(settings.id_text)),
      flag(settings.flag),
      version(settings.version, 0, kVersionLimit),
      detail(settings.detail, 0, kDetailLimit),
      led(settings.led),
      settings_(settings),
      random_(settings.seed) {}

VirtualWriteResult MirnState::hostWrite(std::span<const uint8_t> report, Nanoseconds now) {
  if (!plugged) {
    return VirtualWriteResult::kGone;
  }
  // A bus that hands a frame over in pieces: they all belong to the exchange that its first piece began.
  const bool under_way = parser_.inFrame() || lost_.inFrame();
  const bool continued = under_way && !report.empty() && report[0] != kFrameHead;
  if (!continued) {
    ++counters_.writes;
    lost_.reset();
    verdict_ = judge(commandOf(report));
  }
  if (verdict_.unplug) {
    unplug();
    return VirtualWriteResult::kGone;
  }
  if (verdict_.write_error) {
    followLost(report);
    return VirtualWriteResult::kError;
  }
  if (verdict_.stall > Nanoseconds::zero()) {
    stalled_until_ = std::max(stalled_until_, now + verdict_.stall);
  }
  if (verdict_.lose) {
    followLost(report);
  } else {
    takePieces(report, now);
  }
  if (verdict_.unplug_after && !parser_.inFrame() && !lost_.inFrame()) {
    unplug();
  }
  return VirtualWriteResult::kAccepted;
}

void MirnState::followLost(std::span<const uint8_t> report) {
  if (!lost_.inFrame() && (report.empty() || report[0] != kFrameHead)) {
    return;
  }
  for (const uint8_t byte : report) {
    lost_.take(byte);
  }
}

ExchangeVerdict MirnState::judge(uint8_t command) {
  ++exchanges;
  ++exchanges_of_command[command];
  ExchangeVerdict verdict;
  for (const Fault* const fault : plan.at(exchanges, command, exchanges_of_command[command])) {
    ++counters_.faults;
    apply(*fault, &verdict);
  }
  return verdict;
}

void MirnState::apply(const Fault& fault, ExchangeVerdict* verdict) {
  switch (fault.kind) {
    case FaultKind::kDrop:
      verdict->drop = true;
      break;
    case FaultKind::kLose:
      verdict->lose = true;
      break;
    case FaultKind::kDelay:
      verdict->delay += milliseconds(fault.value);
      break;
    case FaultKind::kCorrupt:
      verdict->corrupt = true;
      break;
    case FaultKind::kTruncate:
      verdict->truncate = fault.value;
      break;
    case FaultKind::kSplit:
      verdict->split = fault.value;
      break;
    case FaultKind::kDuplicate:
      verdict->duplicate = true;
      break;
    case FaultKind::kRefuse:
      verdict->refuse = static_cast<uint8_t>(fault.value);
      break;
    case FaultKind::kGarbage:
      verdict->garbage = fault.bytes;
      while (verdict->garbage.size() < fault.value) {
        // Below 0x80: no head and no escape byte, which would be more than noise.
        verdict->garbage.push_back(static_cast<uint8_t>(random_() & 0x7F));
      }
      break;
    case FaultKind::kStall:
      verdict->stall += milliseconds(fault.value);
      break;
    case FaultKind::kWriteError:
      verdict->write_error = true;
      break;
    case FaultKind::kReadError:
      verdict->read_error = true;
      break;
    case FaultKind::kUnplug:
      verdict->unplug = true;
      break;
    case FaultKind::kUnplugAfter:
      verdict->unplug_after = true;
      break;
  }
}

void MirnState::takePieces(std::span<const uint8_t> report, Nanoseconds now) {
  while (!report.empty()) {
    const std::span<const uint8_t> piece = report.first(std::min(report.size(), kReportBytes));
    report = report.subspan(piece.size());
    // The bus hands over pieces, whatever the host wrote at once.
    if (!parser_.inFrame() && isRawReport(piece)) {
      takeRawReport(piece, now);
      continue;
    }
    for (const uint8_t byte : piece) {
      if (parser_.take(byte)) {
        takeFrame(parser_.frame(), now);
      }
    }
  }
}

void MirnState::takeFrame(const WireFrame& frame, Nanoseconds now) {
  ++counters_.frames;
  VirtualReceived request;
  request.at = now;
  request.command = frame.command;
  request.packet_index = frame.packet_index;
  request.payload = frame.payload;
  request.wire = frame.wire;
  request.record = understand(frame.command, frame.payload);
  std::vector<uint8_t> payload;
  if (verdict_.refuse) {
    request.refused = true;
    payload = {*verdict_.refuse};
  } else {
    const uint64_t rejected = firmware.rejected_chunks;
    payload = carryOut(request.record);
    request.refused =
        std::holds_alternative<VirtualNotUnderstood>(request.record) || firmware.rejected_chunks != rejected;
  }
  remember(std::move(request));
  answer(frame.command, frame.packet_index, payload, now);
}

void MirnState::takeRawReport(std::span<const uint8_t> report, Nanoseconds now) {
  ++counters_.raw_reports;
  VirtualReceived request;
  request.at = now;
  request.command = kRawCommand;
  request.payload.assign(report.begin(), report.end());
  request.wire = request.payload;
  request.record = understandRaw(report);
  request.refused = verdict_.refuse.has_value();
  if (!request.refused) {
    carryOut(request.record);
  }
  remember(std::move(request));
}

void MirnState::remember(VirtualReceived request) {
  request.number = ++received_count;
  received.push_back(std::move(request));
  if (received.size() > settings_.history_limit) {
    received.pop_front();
  }
}

void MirnState::answer(uint8_t command, uint16_t packet_index, std::span<const uint8_t> payload, Nanoseconds now) {
  ++counters_.answers;
  const Nanoseconds due = dueTime(now);
  if (verdict_.read_error) {
    reports.push_back({{}, due, true});
    return;
  }
  if (verdict_.drop) {
    return;
  }
  std::vector<uint8_t> wire =
      buildWireFrame(command, packet_index, payload, verdict_.corrupt ? kSpoiledChecksum : uint16_t{0});
  if (verdict_.truncate) {
    wire.resize(std::min(wire.size(), *verdict_.truncate));
  }
  if (verdict_.split) {
    const size_t first_part = std::min(*verdict_.split, wire.size());
    // Zeros push the frame to the report's end, as far as it stands before the cut.
    const size_t filler = (2 * kReportBytes - verdict_.garbage.size() % kReportBytes - first_part) % kReportBytes;
    wire.insert(wire.begin(), filler, uint8_t{0});
  }
  wire.insert(wire.begin(), verdict_.garbage.begin(), verdict_.garbage.end());
  for (int copies = verdict_.duplicate ? 2 : 1; copies > 0; --copies) {
    emit(wire, due);
  }
}

void MirnState::emit(std::span<const uint8_t> bytes, Nanoseconds due) {
  do {
    const size_t size = std::min(bytes.size(), kReportBytes);
    VirtualReport report;
    report.due = due;
    std::copy_n(bytes.begin(), size, report.bytes.begin());
    reports.push_back(report);
    bytes = bytes.subspan(size);
  } while (!bytes.empty());
}

// Answers never overtake each other: a device works on one request at a time.
MirnState::Nanoseconds MirnState::dueTime(Nanoseconds now) {
  Nanoseconds wait = latency + verdict_.delay;
  if (jitter > Nanoseconds::zero()) {
    wait += Nanoseconds(std::uniform_int_distribution<int64_t>(0, jitter.count())(random_));
  }
  if (answers_since_plug_++ < settings_.warm_up_answers) {
    wait += settings_.warm_up_latency;
  }
  last_due_ = std::max(last_due_, std::max(now, stalled_until_) + wait);
  return last_due_;
}

void MirnState::plug() {
  if (plugged) {
    return;
  }
  plugged = true;
  ++generation;
  answers_since_plug_ = 0;
  if (!version_after_replug.empty()) {
    version = version_after_replug;
    version_after_replug.clear();
  }
  addEvent(VirtualMirnEvent::Kind::kPlugged);
}

void MirnState::unplug() {
  if (!plugged) {
    return;
  }
  plugged = false;
  parser_.reset();
  lost_.reset();
  verdict_ = {};
  reports.clear();
  last_due_ = {};
  stalled_until_ = {};
  input.modifiers = 0;
  input.keys = {};
  input.buttons = 0;
  firmware.greeted = false;
  firmware.receiving = false;
  firmware.expected = 0;
  firmware.unfinished.clear();
  addEvent(VirtualMirnEvent::Kind::kUnplugged);
}

void MirnState::setVersion(std::string_view new_version, std::string_view new_detail) {
  version = new_version.substr(0, kVersionLimit);
  detail = new_detail.substr(0, kDetailLimit);
  addEvent(VirtualMirnEvent::Kind::kFirmware);
}

void MirnState::setName(std::string_view text) {
  name = cutTo<20>(text);
  addEvent(VirtualMirnEvent::Kind::kName);
}

void MirnState::setIdText(std::string_view text) {
  id_text = cutTo<12>(text);
}

void MirnState::setLed(VirtualLed new_led) {
  led = new_led;
  addEvent(VirtualMirnEvent::Kind::kLed);
}

VirtualMirnEvent& MirnState::addEvent(VirtualMirnEvent::Kind kind) {
  VirtualMirnEvent event;
  event.kind = kind;
  event.input = input;
  event.led = led;
  event.version = version;
  events_.push_back(std::move(event));
  return events_.back();
}

std::vector<VirtualMirnEvent> MirnState::takeEvents() {
  return std::exchange(events_, {});
}

VirtualMirnCounters MirnState::countersNow() const {
  VirtualMirnCounters counters = counters_;
  counters.bad_frames = parser_.counters().bad_frames;
  counters.stray_bytes = parser_.counters().stray_bytes;
  return counters;
}

}  // namespace mirn
