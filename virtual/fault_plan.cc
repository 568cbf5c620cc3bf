#include "virtual/fault_plan.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>

namespace mirn {
namespace {

constexpr uint64_t kForever = std::numeric_limits<uint64_t>::max();
constexpr uint32_t kMaxValue = 3600U * 1000U;  // an hour in milliseconds
constexpr size_t kMaxGarbage = 4096;

enum class ValueUse : uint8_t { kNone, kOptional, kRequired };

struct KindName {
  std::string_view name;
  FaultKind kind;
  ValueUse value;
  uint32_t value_if_absent;
  uint32_t max_value;
};

constexpr KindName kKinds[] = {
    {"drop", FaultKind::kDrop, ValueUse::kNone, 0, 0},
    {"lose", FaultKind::kLose, ValueUse::kNone, 0, 0},
    {"delay", FaultKind::kDelay, ValueUse::kRequired, 0, kMaxValue},
    {"corrupt", FaultKind::kCorrupt, ValueUse::kNone, 0, 0},
    {"truncate", FaultKind::kTruncate, ValueUse::kRequired, 0, 4096},
    {"split", FaultKind::kSplit, ValueUse::kRequired, 0, 63},
    {"duplicate", FaultKind::kDuplicate, ValueUse::kNone, 0, 0},
    {"refuse", FaultKind::kRefuse, ValueUse::kOptional, 1, 255},
    {"garbage", FaultKind::kGarbage, ValueUse::kRequired, 0, kMaxGarbage},
    {"stall", FaultKind::kStall, ValueUse::kRequired, 0, kMaxValue},
    {"write-error", FaultKind::kWriteError, ValueUse::kNone, 0, 0},
    {"read-error", FaultKind::kReadError, ValueUse::kNone, 0, 0},
    {"unplug", FaultKind::kUnplug, ValueUse::kNone, 0, 0},
    {"unplug-after", FaultKind::kUnplugAfter, ValueUse::kNone, 0, 0},
};

const KindName* findKind(std::string_view name) {
  const auto* const found = std::ranges::find(kKinds, name, &KindName::name);
  return found != std::end(kKinds) ? found : nullptr;
}

const KindName& nameOf(FaultKind kind) {
  return *std::ranges::find(kKinds, kind, &KindName::kind);
}

std::optional<uint64_t> readNumber(std::string_view text) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

std::optional<std::vector<uint8_t>> readHex(std::string_view text) {
  if (text.empty() || text.size() % 2 != 0 || text.size() / 2 > kMaxGarbage) {
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    uint8_t byte = 0;
    const auto [end, error] = std::from_chars(text.data() + i, text.data() + i + 2, byte, 16);
    if (error != std::errc() || end != text.data() + i + 2) {
      return std::nullopt;
    }
    bytes.push_back(byte);
  }
  return bytes;
}

// Splits at the first `separator`; `tail` is empty and the result false when there is none.
bool cut(std::string_view text, char separator, std::string_view* head, std::string_view* tail) {
  const size_t at = text.find(separator);
  *head = text.substr(0, at);
  *tail = at == std::string_view::npos ? std::string_view() : text.substr(at + 1);
  return at != std::string_view::npos;
}

bool readEvery(std::string_view step_text, Fault* fault) {
  const std::optional<uint64_t> step = readNumber(step_text);
  if (!step || *step == 0) {
    return false;
  }
  fault->first = *step;
  fault->last = kForever;
  fault->step = *step;
  return true;
}

bool readRange(std::string_view text, Fault* fault) {
  std::string_view range_text;
  std::string_view step_text;
  const bool stepped = cut(text, '/', &range_text, &step_text);
  const std::optional<uint64_t> step = stepped ? readNumber(step_text) : 1;
  std::string_view first_text;
  std::string_view last_text;
  const bool range = cut(range_text, '-', &first_text, &last_text);
  const bool open = !range && first_text.ends_with('+');
  if (open) {
    first_text.remove_suffix(1);
  }
  const std::optional<uint64_t> first = readNumber(first_text);
  const std::optional<uint64_t> last = range ? readNumber(last_text) : first;
  if (!first || !last || *first == 0 || *last < *first) {
    return false;
  }
  if (!step || *step == 0 || (stepped && !range && !open)) {
    return false;
  }
  fault->first = *first;
  fault->last = open ? kForever : *last;
  fault->step = *step;
  return true;
}

bool readWhen(std::string_view text, Fault* fault) {
  const size_t command_at = text.rfind("/c");
  if (command_at != std::string_view::npos) {
    const std::optional<uint64_t> command = readNumber(text.substr(command_at + 2));
    if (!command || *command > 255) {
      return false;
    }
    fault->command = static_cast<int>(*command);
    text = text.substr(0, command_at);
  }
  if (text == "*") {
    return readEvery("1", fault);
  }
  return text.starts_with("*/") ? readEvery(text.substr(2), fault) : readRange(text, fault);
}

bool readValue(std::string_view text, bool present, const KindName& kind, Fault* fault) {
  if (!present) {
    fault->value = kind.value_if_absent;
    return kind.value != ValueUse::kRequired;
  }
  if (kind.value == ValueUse::kNone) {
    return false;
  }
  if (kind.kind == FaultKind::kGarbage && text.starts_with('x')) {
    const std::optional<std::vector<uint8_t>> bytes = readHex(text.substr(1));
    if (bytes) {
      fault->bytes = *bytes;
      fault->value = static_cast<uint32_t>(bytes->size());
    }
    return bytes.has_value();
  }
  const std::optional<uint64_t> number = readNumber(text);
  if (!number || *number > kind.max_value) {
    return false;
  }
  fault->value = static_cast<uint32_t>(*number);
  return true;
}

bool readFault(std::string_view text, Fault* fault, std::string* error) {
  const auto complain = [&](std::string_view what) {
    *error = "fault plan: " + std::string(what) + " in \"" + std::string(text) + "\"";
    return false;
  };
  std::string_view what;
  std::string_view when;
  if (!cut(text, '@', &what, &when)) {
    return complain("no '@' and exchange number");
  }
  std::string_view name;
  std::string_view value;
  const bool with_value = cut(what, '=', &name, &value);
  const KindName* const kind = findKind(name);
  if (kind == nullptr) {
    return complain("unknown fault");
  }
  fault->kind = kind->kind;
  if (!readValue(value, with_value, *kind, fault)) {
    return complain("wrong or missing value");
  }
  if (!readWhen(when, fault)) {
    return complain("exchange not understood");
  }
  return true;
}

void appendWhen(const Fault& fault, std::string* text) {
  const std::string step = fault.step == 1 ? "" : "/" + std::to_string(fault.step);
  if (fault.last == kForever && fault.step == fault.first) {
    *text += "*" + step;
  } else if (fault.last == kForever) {
    *text += std::to_string(fault.first) + "+" + step;
  } else if (fault.first == fault.last) {
    *text += std::to_string(fault.first);
  } else {
    *text += std::to_string(fault.first) + "-" + std::to_string(fault.last) + step;
  }
  if (fault.command >= 0) {
    *text += "/c" + std::to_string(fault.command);
  }
}

}  // namespace

bool FaultPlan::parse(std::string_view text, FaultPlan* plan, std::string* error) {
  constexpr std::string_view kSeparators = ",; \t\r\n";
  std::vector<Fault> faults;
  while (true) {
    const size_t begin = text.find_first_not_of(kSeparators);
    if (begin == std::string_view::npos) {
      break;
    }
    text.remove_prefix(begin);
    const std::string_view item = text.substr(0, text.find_first_of(kSeparators));
    text.remove_prefix(item.size());
    Fault fault;
    if (!readFault(item, &fault, error)) {
      return false;
    }
    faults.push_back(std::move(fault));
  }
  *plan = FaultPlan(std::move(faults));
  return true;
}

std::string FaultPlan::text() const {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const Fault& fault : faults_) {
    const KindName& kind = nameOf(fault.kind);
    text += text.empty() ? "" : ", ";
    text += kind.name;
    if (!fault.bytes.empty()) {
      text += "=x";
      for (const uint8_t byte : fault.bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
      }
    } else if (kind.value != ValueUse::kNone) {
      text += "=" + std::to_string(fault.value);
    }
    text += "@";
    appendWhen(fault, &text);
  }
  return text;
}

std::vector<const Fault*> FaultPlan::at(uint64_t exchange, uint8_t command, uint64_t of_command) const {
  std::vector<const Fault*> hits;
  for (const Fault& fault : faults_) {
    const bool hit = fault.command < 0 ? fault.hits(exchange) : fault.command == command && fault.hits(of_command);
    if (hit) {
      hits.push_back(&fault);
    }
  }
  return hits;
}

}  // namespace mirn
